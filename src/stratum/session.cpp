#include "stratum/session.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <thread>

#include "foundation/colour.h"
#include "foundation/escape.h"
#include "foundation/logger.h"
#include "stratum/failover.h"
#include "stratum/job_intake.h"
#include "stratum/pool_values.h"

namespace {

constexpr const char *kTag = "Miner";
constexpr const char *kClientName = "testminer";
constexpr uint64_t kNonceCounterStep = 32;

enum RequestId : uint32_t {
  kSubscribeId = 1,
  kExtranonceSubscribeId = 2,
  kAuthorizeId = 3,
  kSubmitId = 4,
};

// Coloured lines go through the console's escape sequences, as the miner's
// other coloured lines do.
void Colour(const char *sequence) { VLWriteColour(sequence); }
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

// The text of the message's JSON-RPC error, as the pool sent it, escaped.
std::string ErrorText(VLJsonRpcMessage *message) { return VLEscapeControl(VLJsonRpcMessageErrorMessage(message)); }

// The subscribe response: [subscriptions, extranonce1, extranonce2 size],
// with difficulty pairs searched in the subscriptions.
void TakeSubscribeResponse(VLJsonRpcClient *client, StratumContext &context, const VLObject *result) {
  auto emptyJob = std::make_shared<StratumJob>();
  emptyJob->pool = context.activePool;
  emptyJob->link = context.LinkNumber();
  // Nonce words go on from the last job's, so that a job the pool sends again
  // after a reconnect is not searched over the same nonces twice.
  if (std::shared_ptr<StratumJob> previous = context.CurrentJob()) {
    emptyJob->nonceCounter = previous->nonceCounter.load() + kNonceCounterStep;
  }
  const VLObject *subscriptions = VLArrayGet(result, 0);
  if (VLObjectType(subscriptions) == VLTypeArray) {
    for (uint32_t i = 0; i < VLArrayCount(subscriptions); i++) {
      const VLObject *entry = VLArrayGet(subscriptions, i);
      if (VLObjectType(entry) != VLTypeArray || VLArrayCount(entry) < 2) continue;
      if (!MethodIs(VLArrayGet(entry, 0), "mining.set_difficulty")) continue;
      StratumTakeDifficulty(VLArrayGet(entry, 1), context);
    }
  }
  StratumTakeExtranonce(VLArrayGet(result, 1), VLArrayGet(result, 2), context);
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
  VLJsonRpcMessageSetSecretParam(authorize, 1);
  SendAndRelease(client, authorize);
}

void BookShareResponse(VLJsonRpcMessage *message, StratumContext &context) {
  std::optional<PendingShare> answered;
  {
    uint64_t link = context.LinkNumber();
    std::lock_guard<std::mutex> guard(context.link.pendingLock);
    auto &pending = context.link.pendingShares;
    while (!pending.empty() && pending.front().link != link) pending.pop_front();
    if (!pending.empty()) {
      answered = pending.front();
      pending.pop_front();
    }
  }
  bool accepted = !VLJsonRpcMessageIsError(message);
  if (answered) context.OnShareAnswered(*answered, accepted);
  // The pool's answer time closes the outcome line: the raw lines that
  // would show it are off by default.
  char answerTime[48] = "";
  if (answered) {
    snprintf(answerTime, sizeof answerTime, " (answered in %.0f ms)",
             std::max(0.0, (context.link.clock() - answered->sentAt) * 1000.0));
  }
  StratumShareCounters *counters = context.ShareCounters(context.lastSubmitWorker);
  if (!accepted) {
    VLRef error(VLJsonRpcMessageError(message));
    Colour(kRed);
    VL_LOG(VLLogLevelError, kTag, "Share was rejected %s%s", PoolValueText(error.get()).c_str(), answerTime);
    Colour(kNormal);
    if (counters) ++counters->sharesRejected;
    return;
  }
  // Only the error member decides: a false result is still an acceptance.
  Colour(kGreen);
  VL_LOG(VLLogLevelInfo, kTag, "Share Accepted!%s", answerTime);
  Colour(kNormal);
  if (counters) ++counters->sharesAccepted;
}

// The pool's words for an error response: a 2.0 error object, or the common
// [code, "text", data] array, or an object of a 1.0 peer. `code` stays 0 when
// the pool gave none.
std::string PoolErrorText(VLJsonRpcMessage *message, long long &code) {
  code = 0;
  if (!VLJsonRpcMessageIsError(message)) return "no reason given";
  if (VLJsonRpcMessageVersion(message) == VLJsonRpcVersion2) {
    code = VLJsonRpcMessageErrorCode(message);
    const VLObject *text = VLJsonRpcMessageErrorMessage(message);
    return text ? VLEscapeControl(text) : "no reason given";
  }
  const VLObject *error = VLJsonRpcMessageErrorObject(message);
  const VLObject *codeValue = nullptr;
  const VLObject *textValue = error;
  if (VLObjectType(error) == VLTypeArray) {
    codeValue = VLArrayGet(error, 0);
    textValue = VLArrayGet(error, 1);
  } else if (VLObjectType(error) == VLTypeDictionary) {
    codeValue = VLDictionaryGetByName(error, "code");
    textValue = VLDictionaryGetByName(error, "message");
  }
  if (VLObjectType(codeValue) == VLTypeNumber) code = VLNumberGetInt64(codeValue);
  return VLObjectType(textValue) == VLTypeString ? VLEscapeControl(textValue) : "no reason given";
}

void ReportRefusedLogin(VLJsonRpcMessage *message, StratumContext &context) {
  long long code = 0;
  std::string text = PoolErrorText(message, code);
  std::string account = VLEscapeControl(context.account ? context.account : "");
  Colour(kRed);
  if (code != 0) {
    VL_LOG(VLLogLevelError, kTag, "Pool refused authorisation for %s: %s (%lld)", account.c_str(), text.c_str(), code);
  } else {
    VL_LOG(VLLogLevelError, kTag, "Pool refused authorisation for %s: %s", account.c_str(), text.c_str());
  }
  Colour(kNormal);
  // The console loop closes the connection and tries again later.
  context.link.loginRefused = true;
}

void StartMining(StratumContext &context) {
  StratumSetState(context, Authorized);
  context.jobGeneration.fetch_add(1);
  context.link.lastLineAt = context.link.clock();
  context.link.mined = true;
  StratumSetState(context, Mining);
  uint64_t dropped = context.link.droppedSinceLoss.exchange(0);
  if (dropped == 1) {
    VL_LOG(VLLogLevelWarning, kTag, "1 share found while disconnected was dropped");
  } else if (dropped > 1) {
    VL_LOG(VLLogLevelWarning, kTag, "%llu shares found while disconnected were dropped",
           static_cast<unsigned long long>(dropped));
  }
}

void WhileAuthorizing(VLJsonRpcClient *, VLJsonRpcMessage *message, StratumContext &context, const VLObject *id,
                      const VLObject *result) {
  const VLObject *method = VLJsonRpcMessageMethod(message);
  uint64_t idValue = id ? VLNumberGetUInt64(id) : 0;
  if (id && idValue == kAuthorizeId && result && VLNumberGetBool(result)) {
    StartMining(context);
  } else if (id && idValue == kAuthorizeId && !method) {
    ReportRefusedLogin(message, context);
  } else if (id && idValue == kExtranonceSubscribeId) {
    // The answer to mining.extranonce.subscribe, whatever it says.
  } else if (MethodIs(method, "mining.notify")) {
    StratumProcessJob(message, context, true);
    VL_LOG(VLLogLevelError, kTag, "Processed pre-authorization job");
  } else if (MethodIs(method, "mining.set_difficulty")) {
    if (context.CurrentJob()) StratumSetDifficulty(message, context);
  } else {
    VL_LOG(VLLogLevelError, kTag, "Not authorization related message, ignoring: %s", ErrorText(message).c_str());
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
  context.link.stateSince = context.link.clock();
  context.stratumState = state;
}

double StratumMonotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void StratumConnect(VLJsonRpcClient *client, StratumContext &context) {
  VLJsonRpcClientSetUserData(client, &context);
  VLJsonRpcClientSetConnectedCallback(client, OnStratumConnected);
  VLJsonRpcClientSetDisconnectedCallback(client, OnStratumDisconnected);
  VLJsonRpcClientSetMessageCallback(client, OnStratumMessage);
  StratumSetState(context, Connecting);
  bool started;
  if (context.activePool < context.pools.size()) {
    started = StratumOpen(client, context.pools[context.activePool]);
  } else {
    VLObject *host = VLStringCreate(context.poolHost ? context.poolHost : "", 0);
    started = VLJsonRpcClientConnectTcp(client, host, context.poolPort);
    VLObjectRelease(host);
  }
  if (!started) {
    VL_LOG(VLLogLevelWarning, kTag, "Cannot start a connection to %s:%u", VLEscapeControl(context.poolHost).c_str(),
           static_cast<unsigned>(context.poolPort));
    StratumSetState(context, Disconnected);
  }
}

void OnStratumConnected(VLJsonRpcClient *client, void *userData) {
  StratumContext &context = ContextOf(userData);
  if (context.link.connectedBefore) {
    context.reconnects += 1;
    context.OnReconnect(context.activePool);
  } else {
    context.link.connectedBefore = true;
  }
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
  context.link.lastLineAt = context.link.clock();
  const VLObject *id = VLJsonRpcMessageId(message);
  const VLObject *fullResult = VLJsonRpcMessageResult(message);
  if (VLObjectType(id) != VLTypeNumber) id = nullptr;
  const VLObject *result = VLObjectType(fullResult) == VLTypeNumber ? fullResult : nullptr;

  switch (context.stratumState.load()) {
    case Authorizing: WhileAuthorizing(client, message, context, id, result); break;
    case Subscribing:
      if (!id || VLNumberGetUInt64(id) != kSubscribeId) break;
      if (VLObjectType(fullResult) == VLTypeArray && VLArrayCount(fullResult) > 2) {
        TakeSubscribeResponse(client, context, fullResult);
      } else {
        VL_LOG(VLLogLevelError, kTag, "Failed to subscribe - invalid or failed response %s",
               ErrorText(message).c_str());
      }
      break;
    case Mining: WhileMining(message, context); break;
    default:
      VL_LOG(VLLogLevelError, kTag, "Ignoring unexpected stratum message %s",
             VLEscapeControl(VLJsonRpcMessageMethod(message)).c_str());
      break;
  }
  Colour(kNormal);
}

namespace {

std::shared_ptr<VLJsonRpcClient> NewClient() {
  return std::shared_ptr<VLJsonRpcClient>(VLJsonRpcClientCreate(), VLJsonRpcClientDestroy);
}

// Closes the connection from the console loop. Once the close returns no
// callback of the old client runs, so the state set here stays.
void CloseLink(StratumContext &context) {
  std::shared_ptr<VLJsonRpcClient> old = context.ExchangeClient(nullptr);
  if (old) VLJsonRpcClientClose(old.get());
  {
    std::lock_guard<std::mutex> guard(context.link.pendingLock);
    context.link.pendingShares.clear();
  }
  context.link.loginRefused = false;
}

void DropLink(StratumContext &context, const std::string &why) {
  VL_LOG(VLLogLevelWarning, kTag, "%s; reconnecting", why.c_str());
  CloseLink(context);
  StratumSetState(context, Disconnected);
}

std::string Seconds(double limit) {
  char text[32];
  snprintf(text, sizeof text, "%.0f s", limit);
  return text;
}

// The next retry: the delay doubles from the first to the longest, and each
// wait is drawn between half the delay and the whole, so that rigs that lost
// the same pool don't come back in step.
void ScheduleRetry(StratumLink &link, double now) {
  double delay = link.retryDelay <= 0 ? link.firstRetryDelay : link.retryDelay * 2;
  if (delay > link.longestRetryDelay) delay = link.longestRetryDelay;
  link.retryDelay = delay;
  std::uniform_real_distribution<double> share(0.5, 1.0);
  link.retryAt = now + delay * share(link.jitter);
}

// The active pool changed: its connection starts at once, with a clean slate.
void ReconnectAtOnce(StratumContext &context, double now) {
  StratumLink &link = context.link;
  CloseLink(context);
  StratumSetState(context, Disconnected);
  link.mined = false;
  link.failuresInARow = 0;
  link.switchesSinceMined = 0;
  link.retryDelay = 0;
  link.retryAt = now;
}

double OldestPendingShare(StratumContext &context) {
  uint64_t current = context.LinkNumber();
  StratumLink &link = context.link;
  std::lock_guard<std::mutex> guard(link.pendingLock);
  auto &pending = link.pendingShares;
  while (!pending.empty() && pending.front().link != current) pending.pop_front();
  return pending.empty() ? -1 : pending.front().sentAt;
}

void KeepMining(StratumContext &context, double now) {
  StratumLink &link = context.link;
  double oldestShare = OldestPendingShare(context);
  if (now - link.lastLineAt > link.silenceLimit) {
    link.giveUpReason = "it went silent";
    DropLink(context, "No line from the pool for " + Seconds(link.silenceLimit));
  } else if (oldestShare >= 0 && now - oldestShare > link.shareLimit) {
    link.giveUpReason = "it went silent";
    DropLink(context, "The pool left a share unanswered for " + Seconds(link.shareLimit));
  } else if (now - link.stateSince >= link.settledAfter) {
    // A settled session: the next loss is retried after the first delay.
    link.retryDelay = 0;
  }
}

}  // namespace

// The old connection is closed before the switch, so that none of its
// callbacks sees the new pool's settings.
void StratumSwitchPool(StratumContext &context, uint32_t index) {
  if (index >= context.pools.size() || index == context.activePool) return;
  ReconnectAtOnce(context, context.link.clock());
  StratumSwitchTo(context, index, "the operator asked for it");
}

void StratumPoll(StratumContext &context) {
  StratumLink &link = context.link;
  double now = link.clock();
  double inState = now - link.stateSince;
  if (link.loginRefused) {
    CloseLink(context);
    link.giveUpReason = "it refused the login";
    StratumSetState(context, Disconnected);
    return;
  }
  // Back to the primary: the backup's connection ends and the primary's
  // starts at once.
  std::string failback;
  if (StratumWatchPrimary(context, now, failback)) {
    ReconnectAtOnce(context, now);
    StratumSwitchTo(context, 0, failback);
  }
  switch (context.stratumState.load()) {
    case Idle: {
      std::shared_ptr<VLJsonRpcClient> client = NewClient();
      context.ExchangeClient(client);
      StratumConnect(client.get(), context);
      break;
    }
    case Connecting:
      if (inState > link.connectLimit) {
        DropLink(context, "Connecting to " + VLEscapeControl(context.poolHost) + ":" +
                              std::to_string(context.poolPort) + " took over " + Seconds(link.connectLimit));
      }
      break;
    case Subscribing:
      if (inState > link.answerLimit) {
        DropLink(context, "The pool did not answer mining.subscribe within " + Seconds(link.answerLimit));
      }
      break;
    case Subscribed:
    case Authorizing:
    case Authorized:
      if (inState > link.answerLimit) {
        DropLink(context, "The pool did not answer mining.authorize within " + Seconds(link.answerLimit));
      }
      break;
    case Mining: KeepMining(context, now); break;
    case Disconnected:
      if (link.retryAt < 0) {
        // A new pool is tried at once; once every pool has failed since the
        // last session that mined, the pauses grow as for one pool.
        if (StratumFailOver(context) && link.switchesSinceMined < context.pools.size()) {
          link.retryDelay = 0;
          link.retryAt = now;
        } else {
          ScheduleRetry(link, now);
        }
      } else if (now >= link.retryAt) {
        // A fresh client and a fresh subscribe.
        link.retryAt = -1;
        CloseLink(context);
        std::shared_ptr<VLJsonRpcClient> client = NewClient();
        context.ExchangeClient(client);
        StratumSetState(context, Idle);
        StratumConnect(client.get(), context);
      }
      break;
    default: break;
  }
}

void StratumShutdown(StratumContext &context) {
  StratumStopProbe(context);
  CloseLink(context);
}
