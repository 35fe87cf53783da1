// The JSON API of the farm tools: a request names a command (as a JSON object
// {"command":"NAME","parameter":"..."} or as the plain name, "NAME|PARAM"
// too), and the reply is one JSON object with a STATUS section and the
// command's own.
#pragma once

#include <functional>
#include <string>

#include "monitor/snapshot.h"

struct ApiRequest {
  std::string command;
  std::string parameter;
};

// False for a request that names no command.
bool ParseApiRequest(const std::string &text, ApiRequest &request);

// Whether the bytes so far are a whole request: a whole JSON object, or any
// plain text at all (a plain name arrives in one piece).
bool ApiRequestComplete(const std::string &text);

// What privileged commands do; each returns an empty string on success or
// the reason it could not.
struct ApiActions {
  std::function<std::string(uint64_t board)> enable;  // board counted from 1
  std::function<std::string(uint64_t board)> disable;
  std::function<std::string(uint32_t pool)> switchPool;  // pool counted from 0
  std::function<void()> quit;
};

// The reply to `text`. `privileged` says whether the client may change the
// run; `description` is "ombry-miner <version>".
std::string ApiReply(const std::string &text, bool privileged, const RunSnapshot &snapshot, const ApiActions &actions,
                     const std::string &description, int64_t now);

// What the status page shows, in one object: "Miner" (the description),
// "When", and the SUMMARY, DEVS and POOLS sections as the commands give them.
std::string StatusJson(const RunSnapshot &snapshot, const std::string &description, int64_t now);
