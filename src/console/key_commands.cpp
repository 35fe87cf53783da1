#include "console/key_commands.h"

#include "foundation/logger.h"
#include "rig/board_settings.h"
#include "rig/worker.h"

namespace {

constexpr const char *kTag = "Miner";
constexpr uint64_t kClockStepHz = 5000000;
constexpr uint64_t kIdentityLedPasses = 5000;

bool IsTargeted(const ConsoleSession &session, size_t index) {
  return session.targetDevice == -1 || static_cast<int64_t>(index) == session.targetDevice - 1;
}

template <typename Action>
void ForEachTargeted(ConsoleSession &session, Action action) {
  auto &workers = session.context.workers;
  for (size_t i = 0; i < workers.size(); i++) {
    if (IsTargeted(session, i)) action(*workers[i], i);
  }
}

void RaiseClocks(ConsoleSession &session) {
  VL_LOG(VLLogLevelInfo, kTag, "Increasing clocks by 5 MHz");
  ForEachTargeted(session, [](Worker &worker, size_t) { worker.targetClockHz += kClockStepHz; });
  session.quickRefresh = true;
}

void LowerClocks(ConsoleSession &session) {
  VL_LOG(VLLogLevelInfo, kTag, "Decreasing clocks by 5 MHz");
  ForEachTargeted(session, [](Worker &worker, size_t) {
    uint64_t clock = worker.targetClockHz;
    worker.targetClockHz = clock > kClockStepHz ? clock - kClockStepHz : 0;
  });
  session.quickRefresh = true;
}

void ShowIdentity(ConsoleSession &session) {
  ForEachTargeted(session, [](Worker &worker, size_t index) {
    VL_LOG(VLLogLevelInfo, kTag, "Worker %llu DNA: %s", static_cast<unsigned long long>(index + 1), worker.dna.c_str());
    // A stopped worker has no loop to turn the LED off again.
    if (worker.enabled) {
      worker.identityLedRequest = true;
      worker.identityLedCountdown = kIdentityLedPasses;
    }
  });
}

void TargetPrevious(ConsoleSession &session) {
  // From "all" (-1) this wraps to the last worker.
  if (session.targetDevice > 1) {
    session.targetDevice--;
  } else {
    session.targetDevice = static_cast<int64_t>(session.context.workers.size());
  }
  VL_LOG(VLLogLevelInfo, kTag, "Commands targeting device %d", static_cast<int>(session.targetDevice));
}

void TargetNext(ConsoleSession &session) {
  // Compared as unsigned, "all" (-1) is past every worker and wraps to 1.
  if (static_cast<uint64_t>(session.targetDevice) < session.context.workers.size()) {
    session.targetDevice++;
  } else {
    session.targetDevice = 1;
  }
  VL_LOG(VLLogLevelInfo, kTag, "Commands targeting device %d", static_cast<int>(session.targetDevice));
}

}  // namespace

void HandleKey(ConsoleSession &session, char key) {
  if (g_runState != RunStateRunning) return;
  MiningContext &context = session.context;
  switch (key) {
    case '+': RaiseClocks(session); break;
    case '-': LowerClocks(session); break;
    case 'q':
      VL_LOG(VLLogLevelInfo, kTag, "Quitting miner, shutting down devices...");
      g_runState = RunStateStopping;
      break;
    case 'd':
      VL_LOG(VLLogLevelInfo, kTag, "Disabling targeted device(s)");
      ForEachTargeted(session, [](Worker &worker, size_t) { worker.enabled = false; });
      break;
    case 'e':
      VL_LOG(VLLogLevelInfo, kTag, "Enabling targeted device(s)");
      // No check for a thread still running on the record: a second one
      // starts beside it.
      ForEachTargeted(session, [&](Worker &worker, size_t index) {
        worker.takenOut = false;
        worker.enabled = true;
        StartWorkerThread(context, index);
      });
      break;
    case 't':
      VL_LOG(VLLogLevelInfo, kTag, "Tuning targeted device(s)");
      ForEachTargeted(session, [](Worker &worker, size_t) { worker.tuning = TuningActive; });
      break;
    case 'i': ShowIdentity(session); break;
    case 'c':
      VL_LOG(VLLogLevelInfo, kTag, "Preparing to print coupons, get your scissors ready!");
      ForEachTargeted(session, [](Worker &worker, size_t) { worker.couponRequest = true; });
      break;
    case 's':
      // Every worker's settings go to the file, whatever is targeted.
      VL_LOG(VLLogLevelInfo, kTag, "Saving configuration of all devices");
      SaveConfiguration(context);
      break;
    case 'p': TargetPrevious(session); break;
    case 'n': TargetNext(session); break;
    case 'a':
      VL_LOG(VLLogLevelInfo, kTag, "Commands targeting all devices");
      session.targetDevice = -1;
      break;
    default:
      if (key >= '1' && key <= '9') {
        VL_LOG(VLLogLevelInfo, kTag, "Commands targeting device %c", key);
        session.targetDevice = key - '0';
      }
      break;
  }
}
