#include "stratum/session.h"

#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "foundation/logger.h"
#include "stratum/job_intake.h"

namespace {

constexpr const char *kTag = "Miner";
constexpr const char *kClientName = "testminer";
constexpr uint64_t kRetryPolls = 9;

enum RequestId : uint32_t {
  kSubscribeId = 1,
  kExtranonceSubscribeId = 2,
  kAuthorizeId = 3,
  kSubmitId = 4,
};

// Coloured lines go through the console's escape sequences, as the miner's
// other coloured lines do.
void Colour(const char *sequence) { fputs(sequence, stdout); }
constexpr const char *kGreen = "\x1b[1;32m";
constexpr const char *kRed = "\x1b[1;31m";
constexpr const char *kNormal = "\x1b[0m";

StratumContext &ContextOf(void *userData) { return *static_cast<StratumContext *>(userData); }

// A request of the 2.0 form with one of the session's fixed ids.
VLJsonRpcMessage *NewRequest(uint32_t id, const char *method) {
  VLObject *idValue = VLNumberCreateUInt32(id);
  VLObject *methodValue = VLStringCreate(method, 0);
  VLJsonRpcMessage *message = VLJsonRpcRequestCreate(idValue, methodValue, VLJsonRpcVersion2);
  VLObjectRelease(idValue);
  VLObjectRelease(methodValue);
  return message;
}

void AddStringParam(VLJsonRpcMessage *message, const char *text) {
  VLObject *value = VLStringCreateFormat("%s", text ? text : "");
  VLJsonRpcMessageAddParam(message, value);
  VLObjectRelease(value);
}

void SendAndRelease(VLJsonRpcClient *client, VLJsonRpcMessage *message) {
  if (client && message) VLJsonRpcClientSend(client, message);
  VLJsonRpcMessageRelease(message);
}

bool MethodIs(const VLObject *method, const char *name) {
  const char *text = VLObjectType(method) == VLTypeString ? VLStringChars(method) : nullptr;
  return text && strcmp(text, name) == 0;
}

// The text of the message's JSON-RPC error, as the pool sent it.
const char *ErrorText(VLJsonRpcMessage *message) {
  const char *text = VLStringChars(VLJsonRpcMessageErrorMessage(message));
  return text ? text : "(null)";
}

// The subscribe response: [subscriptions, extranonce1, extranonce2 size],
// with difficulty pairs searched in the subscriptions.
void TakeSubscribeResponse(VLJsonRpcClient *client, StratumContext &context, const VLObject *result) {
  auto emptyJob = std::make_shared<StratumJob>();
  const VLObject *subscriptions = VLArrayGet(result, 0);
  if (VLObjectType(subscriptions) == VLTypeArray) {
    for (uint32_t i = 0; i < VLArrayCount(subscriptions); i++) {
      const VLObject *entry = VLArrayGet(subscriptions, i);
      if (VLObjectType(entry) != VLTypeArray || VLArrayCount(entry) < 2) continue;
      if (!MethodIs(VLArrayGet(entry, 0), "mining.set_difficulty")) continue;
      context.difficulty = VLNumberGetReal(VLArrayGet(entry, 1));
    }
  }
  HexToBytes(VLArrayGet(result, 1), context.extranonce1);
  context.extranonce2Size = VLNumberGetUInt64(VLArrayGet(result, 2));
  // An empty job marks the initial data as taken; workers keep waiting.
  context.SetCurrentJob(std::move(emptyJob));

  VLJsonRpcMessage *extranonce = NewRequest(kExtranonceSubscribeId, "mining.extranonce.subscribe");
  VLObject *noParams = VLArrayCreate(0);
  VLJsonRpcMessageSetParams(extranonce, noParams);
  VLObjectRelease(noParams);
  SendAndRelease(client, extranonce);

  StratumSetState(context, Subscribed);
  StratumSetState(context, Authorizing);

  VLJsonRpcMessage *authorize = NewRequest(kAuthorizeId, "mining.authorize");
  AddStringParam(authorize, context.account);
  AddStringParam(authorize, context.password);
  SendAndRelease(client, authorize);
}

void BookShareResponse(VLJsonRpcMessage *message, StratumContext &context) {
  StratumShareCounters *counters = context.ShareCounters(context.lastSubmitWorker);
  if (VLJsonRpcMessageIsError(message)) {
    VLObject *error = VLJsonRpcMessageError(message);
    VLObject *description = VLObjectDescribe(error);
    const char *text = VLStringChars(description);
    Colour(kRed);
    VL_LOG(VLLogLevelError, kTag, "Share was rejected %s", text ? text : "(null)");
    Colour(kNormal);
    VLObjectRelease(description);
    VLObjectRelease(error);
    if (counters) ++counters->sharesRejected;
    return;
  }
  // Only the error member decides: a false result is still an acceptance.
  Colour(kGreen);
  VL_LOG(VLLogLevelInfo, kTag, "Share Accepted!");
  Colour(kNormal);
  if (counters) ++counters->sharesAccepted;
}

void WhileAuthorizing(VLJsonRpcClient *, VLJsonRpcMessage *message, StratumContext &context, const VLObject *id,
                      const VLObject *result) {
  const VLObject *method = VLJsonRpcMessageMethod(message);
  uint64_t idValue = id ? VLNumberGetUInt64(id) : 0;
  if (id && idValue == kAuthorizeId && result && VLNumberGetBool(result)) {
    StratumSetState(context, Authorized);
    context.jobGeneration.fetch_add(1);
    StratumSetState(context, Mining);
  } else if (id && idValue == kExtranonceSubscribeId) {
    // The answer to mining.extranonce.subscribe, whatever it says.
  } else if (MethodIs(method, "mining.notify")) {
    StratumProcessJob(message, context, true);
    VL_LOG(VLLogLevelError, kTag, "Processed pre-authorization job");
  } else if (MethodIs(method, "mining.set_difficulty")) {
    if (context.CurrentJob()) StratumSetDifficulty(message, context);
  } else {
    VL_LOG(VLLogLevelError, kTag, "Not authorization related message, ignoring: %s", ErrorText(message));
  }
}

void WhileMining(VLJsonRpcMessage *message, StratumContext &context) {
  const VLObject *id = VLJsonRpcMessageId(message);
  if (VLObjectType(id) == VLTypeNumber) {
    // A notification with a numeric id is dropped here, however good its method.
    if (VLNumberGetUInt64(id) == kSubmitId) BookShareResponse(message, context);
    return;
  }
  const VLObject *method = VLJsonRpcMessageMethod(message);
  if (MethodIs(method, "mining.set_difficulty")) {
    StratumSetDifficulty(message, context);
  } else if (MethodIs(method, "mining.set_target")) {
    StratumSetTarget(message, context);
  } else if (MethodIs(method, "mining.set_extranonce")) {
    StratumSetExtranonce(message, context);
  } else if (MethodIs(method, "mining.notify")) {
    StratumProcessJob(message, context, false);
  }
}

}  // namespace

const char *StratumStateName(uint32_t state) {
  switch (state) {
    case Idle: return "Idle";
    case Disconnected: return "Disconnected";
    case Connecting: return "Connecting";
    case Authorizing: return "Authorizing";
    case Authorized: return "Authorized";
    case Subscribing: return "Subscribing";
    case Subscribed: return "Subscribed";
    case Mining: return "Mining";
    default: return "Unknown";
  }
}

void StratumSetState(StratumContext &context, uint32_t state) {
  VL_LOG(VLLogLevelInfo, kTag, "Stratum state %s -> %s", StratumStateName(context.stratumState),
         StratumStateName(state));
  context.stratumState = state;
}

void StratumConnect(VLJsonRpcClient *client, StratumContext &context) {
  VLJsonRpcClientSetUserData(client, &context);
  VLJsonRpcClientSetConnectedCallback(client, OnStratumConnected);
  VLJsonRpcClientSetDisconnectedCallback(client, OnStratumDisconnected);
  VLJsonRpcClientSetMessageCallback(client, OnStratumMessage);
  VLObject *host = VLStringCreate(context.poolHost ? context.poolHost : "", 0);
  StratumSetState(context, Connecting);
  VLJsonRpcClientConnectTcp(client, host, context.poolPort);
  VLObjectRelease(host);
}

void OnStratumConnected(VLJsonRpcClient *client, void *userData) {
  StratumContext &context = ContextOf(userData);
  Colour(kGreen);
  VL_LOG(VLLogLevelInfo, kTag, "Stratum connected");
  Colour(kNormal);
  StratumSetState(context, Subscribing);
  VLJsonRpcMessage *subscribe = NewRequest(kSubscribeId, "mining.subscribe");
  // The client's name, and the same where other miners resume a session.
  VLObject *name = VLStringCreate(kClientName, 0);
  VLJsonRpcMessageAddParam(subscribe, name);
  VLJsonRpcMessageAddParam(subscribe, name);
  VLObjectRelease(name);
  SendAndRelease(client, subscribe);
}

void OnStratumDisconnected(VLJsonRpcClient *, void *userData) {
  StratumContext &context = ContextOf(userData);
  Colour(kRed);
  VL_LOG(VLLogLevelInfo, kTag, "Stratum disconnected");
  Colour(kNormal);
  StratumSetState(context, Disconnected);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
}

void OnStratumMessage(VLJsonRpcClient *client, VLJsonRpcMessage *message, void *userData) {
  StratumContext &context = ContextOf(userData);
  const VLObject *id = VLJsonRpcMessageId(message);
  const VLObject *fullResult = VLJsonRpcMessageResult(message);
  if (VLObjectType(id) != VLTypeNumber) id = nullptr;
  const VLObject *result = VLObjectType(fullResult) == VLTypeNumber ? fullResult : nullptr;

  switch (context.stratumState.load()) {
    case Authorizing:
      WhileAuthorizing(client, message, context, id, result);
      break;
    case Subscribing:
      if (!id || VLNumberGetUInt64(id) != kSubscribeId) break;
      if (VLObjectType(fullResult) == VLTypeArray && VLArrayCount(fullResult) > 2) {
        TakeSubscribeResponse(client, context, fullResult);
      } else {
        VL_LOG(VLLogLevelError, kTag, "Failed to subscribe - invalid or failed response %s", ErrorText(message));
      }
      break;
    case Mining:
      WhileMining(message, context);
      break;
    default: {
      const char *method = VLStringChars(VLJsonRpcMessageMethod(message));
      VL_LOG(VLLogLevelError, kTag, "Ignoring unexpected stratum message %s", method ? method : "(null)");
      break;
    }
  }
  Colour(kNormal);
}

void StratumPoll(StratumContext &context, uint64_t &retryCount) {
  uint32_t state = context.stratumState;
  if (state == Idle) {
    context.rpcClient = VLJsonRpcClientCreate();
    StratumConnect(context.rpcClient, context);
  } else if (state == Disconnected) {
    if (retryCount <= kRetryPolls) {
      retryCount++;
      return;
    }
    // A fresh client and a fresh subscribe, about 1.1 s after the loss.
    retryCount = 0;
    VLJsonRpcClientDestroy(context.rpcClient);
    context.rpcClient = VLJsonRpcClientCreate();
    StratumSetState(context, Idle);
    StratumConnect(context.rpcClient, context);
  }
}

void StratumShutdown(StratumContext &context) {
  if (!context.rpcClient) return;
  VLJsonRpcClientDestroy(context.rpcClient);
  context.rpcClient = nullptr;
}
