// Services that each operating system offers in its own way: the switch that
// keeps the machine awake, a loop-back socket pair to wake a polling thread, a
// receive call with uniform end-of-stream behaviour, and a condition variable.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

using VLSocket = int;
constexpr VLSocket kVLInvalidSocket = -1;

// The platform call that asks the system to stay awake. It does nothing on
// Linux; tests replace it to observe the manager's requests. Returns 0 on
// failure, like the call it stands for.
using VLExecutionStateHook = uint32_t (*)(uint32_t flags);
void VLSetExecutionStateHook(VLExecutionStateHook hook);

struct VLSystemSleepManager {
  uint32_t mode = 1;           // 0 keeps the display on too, 1 only the system
  bool sleepDisabled = false;  // whether prevention is active now
};

VLSystemSleepManager *VLSleepManagerCreate();
void VLSleepManagerDestroy(VLSystemSleepManager *manager);
void VLSleepManagerSetMode(VLSystemSleepManager *manager, uint32_t mode);
void VLSleepManagerSetDisabled(VLSystemSleepManager *manager, bool disabled);

// A connected pair of loop-back stream sockets. Returns 0, or all bits set on
// failure.
uint32_t VLSocketPair(VLSocket sockets[2]);

// recv with flags 0; a connection reset reads as an orderly end of stream.
int64_t VLSocketRecv(VLSocket socket, void *buffer, uint32_t length);

void VLSocketClose(VLSocket socket);

// A condition variable over the caller's mutex. Callers test their predicate
// after each wait, as a wake-up may be spurious.
struct VLCondition {
  std::condition_variable_any variable;
};
struct VLDeadline {
  int64_t seconds;
  int64_t microseconds;
};

void VLConditionInit(VLCondition *condition);
void VLConditionDestroy(VLCondition *condition);
int VLConditionSignal(VLCondition *condition);
int VLConditionBroadcast(VLCondition *condition);
void VLConditionWait(VLCondition *condition, std::mutex *lock);
// `deadline` is absolute wall-clock time; null waits without one.
void VLConditionTimedWait(VLCondition *condition, std::mutex *lock, const VLDeadline *deadline);

// Names the calling thread for debuggers; `name` is cut to what the system allows.
void VLThreadSetName(const char *name);

// The service manager, where the process runs under one (systemd's notify
// protocol): ready once mining has started, alive on every watchdog check,
// stopping when the stop begins. No-ops elsewhere, and in builds without it.
void VLServiceNotifyReady();
void VLServiceNotifyAlive();
void VLServiceNotifyStopping();
