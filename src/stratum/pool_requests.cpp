#include "stratum/pool_requests.h"

#include <strings.h>

#include <cmath>
#include <cstdlib>
#include <string>

#include "foundation/build_info.h"
#include "foundation/escape.h"
#include "foundation/logger.h"
#include "stratum/pool_values.h"

namespace {

constexpr const char *kTag = "Miner";
constexpr double kNoticeSeconds = 10;
// An id longer than this is not echoed back.
constexpr uint32_t kLongestEchoedId = 64;

// Answers a request that carries an id, in the JSON-RPC form it came in; a
// notification gets no answer.
void Answer(VLJsonRpcClient *client, VLJsonRpcMessage *request, VLObject *result) {
  VLObject *id = VLJsonRpcMessageId(request);
  if (!id || (VLObjectType(id) == VLTypeString && VLStringLength(id) > kLongestEchoedId)) return;
  VLJsonRpcMessage *answer = VLJsonRpcResultCreate(id, result, VLJsonRpcMessageVersion(request));
  if (!answer) return;
  if (client) VLJsonRpcClientSend(client, answer);
  VLJsonRpcMessageRelease(answer);
}

// True when a line of this kind may go out now; `untold` then says how many
// were held back since the last one.
bool NoticeDue(StratumLink::Notice &notice, double now, uint64_t &untold) {
  if (notice.last >= 0 && now - notice.last < kNoticeSeconds) {
    notice.untold++;
    return false;
  }
  untold = notice.untold;
  notice.untold = 0;
  notice.last = now;
  return true;
}

std::string Untold(uint64_t untold, const char *what) {
  return untold == 0 ? "" : " (" + std::to_string(untold) + " more " + what + " since the last one)";
}

void ShowMessage(VLJsonRpcMessage *message, StratumContext &context) {
  const VLObject *params = VLJsonRpcMessageParams(message);
  const VLObject *text = VLObjectType(params) == VLTypeArray ? VLArrayGet(params, 0) : nullptr;
  uint64_t untold = 0;
  if (!NoticeDue(context.link.messageNotice, context.link.clock(), untold)) return;
  std::string shown =
      VLObjectType(text) == VLTypeString ? VLEscapeControl(text, kPoolMessageBytes) : PoolValueText(text);
  VL_LOG(VLLogLevelWarning, kTag, "Message from the pool: %s%s", shown.c_str(), Untold(untold, "messages").c_str());
}

// A whole number in [low, high], written as a number or as decimal text.
bool ReadWhole(const VLObject *value, double low, double high, double &number) {
  if (VLObjectType(value) == VLTypeString) {
    const char *text = VLStringChars(value);
    char *end = nullptr;
    number = strtod(text, &end);
    if (end == text || *end != '\0') return false;
  } else if (VLObjectType(value) == VLTypeNumber && VLNumberGetKind(value) != VLNumberBool) {
    number = VLNumberGetKind(value) == VLNumberInt32 ? static_cast<int32_t>(VLNumberGetInt32(value))
                                                     : VLNumberGetReal(value);
  } else {
    return false;
  }
  return std::isfinite(number) && number >= low && number <= high;
}

bool Absent(const VLObject *value) { return !value || VLObjectType(value) == VLTypeNull; }

void RefuseRedirect(StratumContext &context, const std::string &where, const std::string &why) {
  uint64_t untold = 0;
  if (!NoticeDue(context.link.redirectNotice, context.link.clock(), untold)) return;
  VL_LOG(VLLogLevelWarning, kTag, "Refused the pool's request to reconnect%s: %s; mining on%s", where.c_str(),
         why.c_str(), Untold(untold, "requests").c_str());
}

// client.reconnect [host, port, wait]: each may be left out.
void Reconnect(VLJsonRpcMessage *message, StratumContext &context) {
  const VLObject *params = VLJsonRpcMessageParams(message);
  bool list = VLObjectType(params) == VLTypeArray;
  const VLObject *host = list ? VLArrayGet(params, 0) : nullptr;
  const VLObject *port = list ? VLArrayGet(params, 1) : nullptr;
  const VLObject *wait = list ? VLArrayGet(params, 2) : nullptr;
  const char *ownHost = context.poolHost ? context.poolHost : "";

  std::string hostText = ownHost;
  if (!Absent(host)) {
    if (VLObjectType(host) != VLTypeString)
      return RefuseRedirect(context, "", "host " + PoolValueText(host) + " is no name");
    if (VLStringLength(host) > 0) hostText = VLStringChars(host);
  }
  double portNumber = context.poolPort;
  if (!Absent(port) && !ReadWhole(port, 1, 65535, portNumber)) {
    return RefuseRedirect(context, "", "port " + PoolValueText(port) + " is no port");
  }
  double seconds = 0;
  if (!Absent(wait) && !ReadWhole(wait, 0, kLongestReconnectWait, seconds)) {
    return RefuseRedirect(context, "", "a wait of " + PoolValueText(wait) + " s is not 0 to 600 s");
  }
  std::string where = " to " + VLEscapeControl(hostText, 256) + ":" + std::to_string(static_cast<unsigned>(portNumber));
  // Names are compared as names: without regard to case.
  if (strcasecmp(hostText.c_str(), ownHost) != 0) return RefuseRedirect(context, where, "not the pool's own host");

  VL_LOG(VLLogLevelWarning, kTag, "The pool asked to reconnect%s in %.0f s; following", where.c_str(), seconds);
  context.link.redirectPort = static_cast<uint32_t>(portNumber);
  context.link.reconnectAt = context.link.clock() + seconds;
}

}  // namespace

void StratumAnswerPoolRequest(VLJsonRpcClient *client, VLJsonRpcMessage *message, PoolMessageKind kind,
                              StratumContext &context) {
  switch (kind) {
    case PoolMessageKind::GetVersion: {
      VLRef version(VLStringCreateFormat("ombry-miner/%s", OmbryVersion()));
      Answer(client, message, version.get());
      break;
    }
    case PoolMessageKind::Ping: {
      VLRef pong(VLStringCreate("pong", 0));
      Answer(client, message, pong.get());
      break;
    }
    case PoolMessageKind::ShowMessage: {
      ShowMessage(message, context);
      VLRef done(VLNumberCreateBool(1));
      Answer(client, message, done.get());
      break;
    }
    case PoolMessageKind::Reconnect: Reconnect(message, context); break;
    default: break;
  }
}
