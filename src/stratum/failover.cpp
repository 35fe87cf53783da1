#include "stratum/failover.h"

#include <cstring>

#include "foundation/escape.h"
#include "foundation/logger.h"
#include "net/tls_link.h"

namespace {

constexpr const char *kTag = "Miner";
constexpr uint32_t kFailuresBeforeSwitch = 3;
constexpr uint64_t kSubscribeId = 1;
constexpr uint64_t kAuthorizeId = 3;

void Switch(StratumContext &context, uint32_t index, const std::string &reason) {
  const PoolEndpoint &from = context.pools[context.activePool];
  const PoolEndpoint &to = context.pools[index];
  VL_LOG(VLLogLevelError, kTag, "Switching from pool %s to pool %s: %s", VLEscapeControl(from.Name()).c_str(),
         VLEscapeControl(to.Name()).c_str(), reason.c_str());
  // Leaving the primary: it is tried again after the interval, not at once.
  if (context.activePool == 0) context.probe.nextAttempt = context.link.clock() + context.primaryRetryInterval;
  StratumUsePool(context, index);
}

// ---- The primary, tried in the background ----------------------------------
// A handshake of its own, answered by nothing else: the probe's messages never
// touch the mining session.

StratumContext &ContextOf(void *userData) { return *static_cast<StratumContext *>(userData); }

// `secret`: the parameter the log shows as ***, if any.
void SendRequest(VLJsonRpcClient *client, uint32_t id, const char *method, std::initializer_list<std::string> params,
                 int secret = -1) {
  VLObject *idValue = VLNumberCreateUInt32(id);
  VLObject *methodValue = VLStringCreate(method, 0);
  VLJsonRpcMessage *message = VLJsonRpcRequestCreate(idValue, methodValue, VLJsonRpcVersion2);
  VLObjectRelease(idValue);
  VLObjectRelease(methodValue);
  for (const std::string &param : params) {
    VLObject *value = VLStringCreate(param.c_str(), 0);
    VLJsonRpcMessageAddParam(message, value);
    VLObjectRelease(value);
  }
  if (secret >= 0) VLJsonRpcMessageSetSecretParam(message, static_cast<uint32_t>(secret));
  VLJsonRpcClientSend(client, message);
  VLJsonRpcMessageRelease(message);
}

void OnProbeConnected(VLJsonRpcClient *client, void *) {
  SendRequest(client, kSubscribeId, "mining.subscribe", {"testminer", "testminer"});
}

void OnProbeDisconnected(VLJsonRpcClient *, void *userData) { ContextOf(userData).probe.lost = true; }

void OnProbeMessage(VLJsonRpcClient *client, VLJsonRpcMessage *message, void *userData) {
  StratumContext &context = ContextOf(userData);
  const VLObject *id = VLJsonRpcMessageId(message);
  if (VLObjectType(id) != VLTypeNumber || VLJsonRpcMessageMethod(message) != nullptr) return;
  const VLObject *result = VLJsonRpcMessageResult(message);
  const PoolEndpoint &primary = context.pools[0];
  if (VLNumberGetUInt64(id) == kSubscribeId) {
    if (VLObjectType(result) == VLTypeArray && VLArrayCount(result) > 2) {
      SendRequest(client, kAuthorizeId, "mining.authorize", {primary.user, primary.password}, 1);
    } else {
      context.probe.lost = true;
    }
  } else if (VLNumberGetUInt64(id) == kAuthorizeId) {
    bool accepted =
        !VLJsonRpcMessageIsError(message) && VLObjectType(result) == VLTypeNumber && VLNumberGetBool(result);
    if (accepted) {
      context.probe.upSince = context.link.clock();
    } else {
      context.probe.lost = true;
    }
  }
}

void StartProbe(StratumContext &context, double now) {
  PrimaryProbe &probe = context.probe;
  probe.client = std::shared_ptr<VLJsonRpcClient>(VLJsonRpcClientCreate(), VLJsonRpcClientDestroy);
  probe.startedAt = now;
  probe.upSince = -1;
  probe.lost = false;
  VLJsonRpcClient *client = probe.client.get();
  VLJsonRpcClientSetUserData(client, &context);
  VLJsonRpcClientSetConnectedCallback(client, OnProbeConnected);
  VLJsonRpcClientSetDisconnectedCallback(client, OnProbeDisconnected);
  VLJsonRpcClientSetMessageCallback(client, OnProbeMessage);
  if (!StratumOpen(client, context.pools[0])) probe.lost = true;
}

}  // namespace

void StratumUsePool(StratumContext &context, uint32_t index) {
  if (index >= context.pools.size()) return;
  const PoolEndpoint &pool = context.pools[index];
  context.activePool = index;
  context.poolHost = pool.host.c_str();
  context.poolPort = pool.port;
  context.account = pool.user.c_str();
  context.password = pool.password.c_str();
}

void StratumSwitchTo(StratumContext &context, uint32_t index, const std::string &reason) {
  if (index >= context.pools.size() || index == context.activePool) return;
  StratumStopProbe(context);
  context.probe.nextAttempt = -1;
  Switch(context, index, reason);
}

bool StratumOpen(VLJsonRpcClient *client, const PoolEndpoint &pool) {
  VLObject *host = VLStringCreate(pool.host.c_str(), 0);
  bool started;
  if (pool.tls) {
    TlsSettings settings;
    settings.serverName = pool.host;
    settings.pinnedSha256 = pool.pinnedSha256;
    settings.caFile = pool.caFile;
    started = VLJsonRpcClientConnectTls(client, host, pool.port, settings);
  } else {
    started = VLJsonRpcClientConnectTcp(client, host, pool.port);
  }
  VLObjectRelease(host);
  return started;
}

bool StratumFailOver(StratumContext &context) {
  StratumLink &link = context.link;
  bool mined = link.mined;
  link.mined = false;
  std::string reason;
  reason.swap(link.giveUpReason);
  // A connection that mined starts a new round of the pools.
  if (mined) link.switchesSinceMined = 0;
  if (mined && reason.empty()) {
    link.failuresInARow = 0;
    return false;
  }
  if (!mined) link.failuresInARow++;
  if (reason.empty() && link.failuresInARow >= kFailuresBeforeSwitch) {
    reason = "its connection failed " + std::to_string(kFailuresBeforeSwitch) + " times in a row";
  }
  if (reason.empty() || context.pools.size() < 2) return false;
  link.failuresInARow = 0;
  link.switchesSinceMined++;
  Switch(context, static_cast<uint32_t>((context.activePool + 1) % context.pools.size()), reason);
  return true;
}

void StratumStopProbe(StratumContext &context) {
  std::shared_ptr<VLJsonRpcClient> client;
  client.swap(context.probe.client);
  if (client) VLJsonRpcClientClose(client.get());
}

bool StratumWatchPrimary(StratumContext &context, double now, std::string &reason) {
  PrimaryProbe &probe = context.probe;
  if (context.activePool == 0 || context.pools.size() < 2 || context.failbackDelay <= 0) {
    StratumStopProbe(context);
    probe.nextAttempt = -1;
    return false;
  }
  if (!probe.client) {
    if (probe.nextAttempt < 0 || now >= probe.nextAttempt) StartProbe(context, now);
    return false;
  }
  const StratumLink &link = context.link;
  bool stalled = probe.upSince < 0 && now - probe.startedAt > link.connectLimit + 2 * link.answerLimit;
  if (probe.lost || stalled) {
    StratumStopProbe(context);
    probe.nextAttempt = now + context.primaryRetryInterval;
    return false;
  }
  if (probe.upSince >= 0 && now - probe.upSince >= context.failbackDelay) {
    StratumStopProbe(context);
    probe.nextAttempt = -1;
    char seconds[32];
    snprintf(seconds, sizeof seconds, "%.0f s", context.failbackDelay);
    reason = std::string("the primary pool has been back for ") + seconds;
    return true;
  }
  return false;
}
