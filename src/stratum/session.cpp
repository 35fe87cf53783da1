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
#include "stratum/message_kind.h"
#include "stratum/pool_requests.h"
#include "stratum/pool_values.h"
#include "stratum/share_verdict.h"

namespace {

constexpr const char *kTag = "Miner";
constexpr const char *kClientName = "testminer";
constexpr uint64_t kNonceCounterStep = 32;

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

// Difficulty pairs in the subscriptions: a list of [method, value] pairs, or
// one pair on its own. Session ids, nulls and empty lists hold none.
void TakeSubscribedDifficulty(const VLObject *subscriptions, StratumContext &context) {
  if (VLObjectType(subscriptions) != VLTypeArray) return;
  if (VLObjectType(VLArrayGet(subscriptions, 0)) == VLTypeString) {
    if (VLArrayCount(subscriptions) >= 2 && MethodIs(VLArrayGet(subscriptions, 0), "mining.set_difficulty")) {
      StratumTakeDifficulty(VLArrayGet(subscriptions, 1), context);
    }
    return;
  }
  for (uint32_t i = 0; i < VLArrayCount(subscriptions); i++) {
    const VLObject *entry = VLArrayGet(subscriptions, i);
    if (VLObjectType(entry) != VLTypeArray || VLArrayCount(entry) < 2) continue;
    if (!MethodIs(VLArrayGet(entry, 0), "mining.set_difficulty")) continue;
    StratumTakeDifficulty(VLArrayGet(entry, 1), context);
  }
}

// The subscribe response: [subscriptions, extranonce1, extranonce2 size]. An
// extranonce the boards can't mine with ends the connection.
void TakeSubscribeResponse(VLJsonRpcClient *client, StratumContext &context, const VLObject *result) {
  std::string why;
  if (!ReadExtranonce(VLArrayGet(result, 1), VLArrayGet(result, 2), context.extranonce1, context.extranonce2Size,
                      why)) {
    VL_LOG(VLLogLevelWarning, kTag,
           "Refused the subscription of extranonce1 %s and extranonce2 size %s: %s; reconnecting",
           PoolValueText(VLArrayGet(result, 1)).c_str(), PoolValueText(VLArrayGet(result, 2)).c_str(), why.c_str());
    context.link.closeAsked = kCloseSubscriptionUnusable;
    return;
  }
  auto emptyJob = std::make_shared<StratumJob>();
  emptyJob->pool = context.activePool;
  emptyJob->link = context.LinkNumber();
  // Nonce words go on from the last job's, so that a job the pool sends again
  // after a reconnect is not searched over the same nonces twice.
  if (std::shared_ptr<StratumJob> previous = context.CurrentJob()) {
    emptyJob->nonceCounter = previous->nonceCounter.load() + kNonceCounterStep;
  }
  TakeSubscribedDifficulty(VLArrayGet(result, 0), context);
  // An empty job marks the initial data as taken; workers keep waiting.
  context.SetCurrentJob(std::move(emptyJob));

  // Its answer is not waited for: a pool that never answers mines as well.
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

// The share an answer is for, by its id, taken off the list; none when the
// pool answers a share of ours that isn't under way (or never was).
std::optional<PendingShare> TakeAnsweredShare(StratumContext &context, uint64_t id) {
  uint64_t link = context.LinkNumber();
  StratumLink &state = context.link;
  std::lock_guard<std::mutex> guard(state.pendingLock);
  auto &pending = state.pendingShares;
  while (!pending.empty() && pending.front().link != link) pending.pop_front();
  for (auto share = pending.begin(); share != pending.end(); ++share) {
    if (share->id != id || share->link != link) continue;
    PendingShare answered = *share;
    pending.erase(share);
    state.answerTimes.Add(state.clock() - answered.sentAt);
    return answered;
  }
  return std::nullopt;
}

void BookShareResponse(VLJsonRpcMessage *message, StratumContext &context) {
  uint64_t id = VLNumberGetUInt64(VLJsonRpcMessageId(message));
  std::optional<PendingShare> answered = TakeAnsweredShare(context, id);
  if (!answered) {
    VL_LOG(VLLogLevelDebug, kTag, "Ignored an answer to id %llu: no share of that id is under way",
           static_cast<unsigned long long>(id));
    return;
  }
  ShareVerdict verdict = StratumReadVerdict(message);
  context.OnShareAnswered(*answered, verdict);
  // The pool's answer time closes the outcome line: the raw lines that
  // would show it are off by default.
  char answerTime[48];
  snprintf(answerTime, sizeof answerTime, " (answered in %.0f ms)",
           std::max(0.0, (context.link.clock() - answered->sentAt) * 1000.0));
  StratumShareCounters *counters = context.ShareCounters(context.lastSubmitWorker);
  if (!verdict.accepted) {
    VLRef error(VLJsonRpcMessageError(message));
    std::string words = error ? PoolValueText(error.get()) + " " : "";
    Colour(kRed);
    VL_LOG(VLLogLevelError, kTag, "Share was rejected %s(%s)%s", words.c_str(), RejectReasonWords(verdict.reason),
           answerTime);
    Colour(kNormal);
    if (counters) ++counters->sharesRejected;
    return;
  }
  context.link.shareAccepted = true;
  Colour(kGreen);
  VL_LOG(VLLogLevelInfo, kTag, "Share Accepted!%s", answerTime);
  Colour(kNormal);
  if (counters) ++counters->sharesAccepted;
}

void ReportRefusedLogin(VLJsonRpcMessage *message, StratumContext &context) {
  int64_t code = 0;
  std::string text;
  PoolErrorParts(message, text, code);
  if (text.empty()) text = "no reason given";
  std::string account = VLEscapeControl(context.account ? context.account : "");
  Colour(kRed);
  if (code != 0) {
    VL_LOG(VLLogLevelError, kTag, "Pool refused authorisation for %s: %s (%lld)", account.c_str(), text.c_str(),
           static_cast<long long>(code));
  } else {
    VL_LOG(VLLogLevelError, kTag, "Pool refused authorisation for %s: %s", account.c_str(), text.c_str());
  }
  Colour(kNormal);
  // The console loop closes the connection and tries again later.
  context.link.closeAsked = kCloseLoginRefused;
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

// Difficulty, target, extranonce and jobs, from authorising on. Both target
// messages may come: the last one received wins.
bool TakeWork(VLJsonRpcMessage *message, PoolMessageKind kind, StratumContext &context, bool preAuthorization) {
  switch (kind) {
    case PoolMessageKind::SetDifficulty: StratumSetDifficulty(message, context); return true;
    case PoolMessageKind::SetTarget: StratumSetTarget(message, context); return true;
    case PoolMessageKind::SetExtranonce: StratumSetExtranonce(message, context); return true;
    case PoolMessageKind::Notify:
      StratumProcessJob(message, context, preAuthorization);
      if (preAuthorization) VL_LOG(VLLogLevelError, kTag, "Processed pre-authorization job");
      return true;
    default: return false;
  }
}

void WhileSubscribing(VLJsonRpcClient *client, VLJsonRpcMessage *message, PoolMessageKind kind,
                      StratumContext &context) {
  // Anything else before the subscription is dropped without a word.
  if (kind != PoolMessageKind::SubscribeAnswer) return;
  const VLObject *result = VLJsonRpcMessageResult(message);
  if (VLObjectType(result) == VLTypeArray && VLArrayCount(result) > 2) {
    TakeSubscribeResponse(client, context, result);
  } else {
    VL_LOG(VLLogLevelError, kTag, "Failed to subscribe - invalid or failed response %s", ErrorText(message).c_str());
  }
}

void WhileAuthorizing(VLJsonRpcMessage *message, PoolMessageKind kind, StratumContext &context) {
  if (kind == PoolMessageKind::AuthorizeAnswer) {
    const VLObject *result = VLJsonRpcMessageResult(message);
    bool granted = !VLJsonRpcMessageIsError(message) && VLObjectType(result) == VLTypeNumber && VLNumberGetBool(result);
    if (granted) {
      StartMining(context);
    } else {
      ReportRefusedLogin(message, context);
    }
  } else if (kind == PoolMessageKind::ExtranonceSubscribeAnswer) {
    // The answer to mining.extranonce.subscribe, whatever it says.
  } else if (!TakeWork(message, kind, context, true)) {
    VL_LOG(VLLogLevelError, kTag, "Not authorization related message, ignoring: %s", ErrorText(message).c_str());
  }
}

void WhileMining(VLJsonRpcMessage *message, PoolMessageKind kind, StratumContext &context) {
  if (kind == PoolMessageKind::ShareAnswer) {
    BookShareResponse(message, context);
  } else {
    // Late handshake answers, answers to no request and unknown methods are
    // dropped without a word.
    TakeWork(message, kind, context, false);
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
  // A port the pool named in client.reconnect serves this one connection.
  auto port = static_cast<uint16_t>(context.link.redirectPort.load());
  if (port == 0) port = context.poolPort;
  context.link.redirectPort = 0;
  bool started;
  if (context.activePool < context.pools.size()) {
    PoolEndpoint pool = context.pools[context.activePool];
    pool.port = port;
    started = StratumOpen(client, pool);
  } else {
    VLObject *host = VLStringCreate(context.poolHost ? context.poolHost : "", 0);
    started = VLJsonRpcClientConnectTcp(client, host, port);
    VLObjectRelease(host);
  }
  if (!started) {
    VL_LOG(VLLogLevelWarning, kTag, "Cannot start a connection to %s:%u", VLEscapeControl(context.poolHost).c_str(),
           static_cast<unsigned>(port));
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
  PoolMessageKind kind = StratumClassifyMessage(message);
  uint32_t state = context.stratumState.load();
  bool connected =
      state == Subscribing || state == Subscribed || state == Authorizing || state == Authorized || state == Mining;
  if (connected && IsPoolRequest(kind)) {
    StratumAnswerPoolRequest(client, message, kind, context);
  } else if (state == Subscribing) {
    WhileSubscribing(client, message, kind, context);
  } else if (state == Authorizing) {
    WhileAuthorizing(message, kind, context);
  } else if (state == Mining) {
    WhileMining(message, kind, context);
  } else {
    VL_LOG(VLLogLevelError, kTag, "Ignoring unexpected stratum message %s",
           VLEscapeControl(VLJsonRpcMessageMethod(message)).c_str());
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
  context.link.closeAsked = kCloseNone;
  context.link.reconnectAt = -1;
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

// When the oldest share under way was sent (-1: none), and the limit its
// answer has, from the pool's recent answer times.
double OldestPendingShare(StratumContext &context, double &limit, std::string &limitWords) {
  uint64_t current = context.LinkNumber();
  StratumLink &link = context.link;
  std::lock_guard<std::mutex> guard(link.pendingLock);
  auto &pending = link.pendingShares;
  while (!pending.empty() && pending.front().link != current) pending.pop_front();
  limit = link.answerTimes.ShareLimit(link.shareLimitFloor, link.shareLimit);
  if (link.answerTimes.Adapted()) {
    char words[160];
    snprintf(words, sizeof words,
             "past its adaptive limit of %.0f s (%g times its 99th-percentile answer time, %.3f s)", limit,
             AnswerTimes::kTimesTheUsual, link.answerTimes.Percentile99());
    limitWords = words;
  } else {
    limitWords = "for " + Seconds(limit);
  }
  return pending.empty() ? -1 : pending.front().sentAt;
}

void KeepMining(StratumContext &context, double now) {
  StratumLink &link = context.link;
  double shareLimit = 0;
  std::string limitWords;
  double oldestShare = OldestPendingShare(context, shareLimit, limitWords);
  if (now - link.lastLineAt > link.silenceLimit) {
    link.giveUpReason = "it went silent";
    DropLink(context, "No line from the pool for " + Seconds(link.silenceLimit));
  } else if (oldestShare >= 0 && now - oldestShare > shareLimit) {
    link.giveUpReason = "it went silent";
    DropLink(context, "The pool left a share unanswered " + limitWords);
  } else if (now - link.stateSince >= link.settledAfter) {
    // A settled session: the next loss is retried after the first delay.
    link.retryDelay = 0;
  }
}

// The pool asked for a new connection to its own host: it comes at once, as
// after a session that mined, and goes to the port the pool named.
void FollowReconnect(StratumContext &context, double now) {
  StratumLink &link = context.link;
  CloseLink(context);
  StratumSetState(context, Disconnected);
  link.mined = false;
  link.shareAccepted = false;
  link.retryDelay = 0;
  link.retryAt = now;
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
  switch (link.closeAsked.load()) {
    case kCloseLoginRefused: link.giveUpReason = "it refused the login"; [[fallthrough]];
    case kCloseSubscriptionUnusable:
      CloseLink(context);
      StratumSetState(context, Disconnected);
      return;
    default: break;
  }
  double reconnectAt = link.reconnectAt;
  if (reconnectAt >= 0 && now >= reconnectAt && context.stratumState != Disconnected) {
    FollowReconnect(context, now);
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
        // After a session in which the pool took a share, the pauses start
        // again from the first: only sessions that fail before mining
        // make them grow.
        if (link.shareAccepted) link.retryDelay = 0;
        link.shareAccepted = false;
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
