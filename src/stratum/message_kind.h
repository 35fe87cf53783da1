// What a line from the pool is, before the session looks at its state: a
// message that names a method is something the pool tells or asks, whatever
// its id (pools send notifications with ids of 0, other numbers or strings);
// only a message without a method is an answer, and its id says to which of
// our requests.
#pragma once

#include <cstdint>

#include "net/json_rpc.h"
#include "stratum/stratum_context.h"

enum class PoolMessageKind {
  // Told or asked by the pool.
  SetDifficulty,
  SetTarget,
  SetExtranonce,
  Notify,
  GetVersion,
  ShowMessage,
  Ping,
  Reconnect,
  OtherMethod,
  // Answers, by the id of the request they answer.
  SubscribeAnswer,
  ExtranonceSubscribeAnswer,
  AuthorizeAnswer,
  ShareAnswer,
  StrayAnswer,  // an id we never send
};

PoolMessageKind StratumClassifyMessage(const VLJsonRpcMessage *message);

// True for the requests the pool may make of any session it has connected:
// client.get_version, client.show_message, mining.ping, client.reconnect.
bool IsPoolRequest(PoolMessageKind kind);
