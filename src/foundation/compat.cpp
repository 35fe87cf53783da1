#include "foundation/compat.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "foundation/logger.h"

namespace {

constexpr uint32_t kExecutionContinuous = 0x80000000;
constexpr uint32_t kExecutionSystemAwayMode = 0x80000041;
constexpr uint32_t kExecutionDisplayAwayMode = 0x80000043;

// Linux has no such request; answering success keeps the manager's logic the
// same as on systems that do.
uint32_t NoExecutionState(uint32_t flags) { return flags | 1; }

std::atomic<VLExecutionStateHook> g_executionStateHook{NoExecutionState};

uint32_t SetExecutionState(uint32_t flags) { return g_executionStateHook.load(std::memory_order_relaxed)(flags); }

}  // namespace

void VLSetExecutionStateHook(VLExecutionStateHook hook) {
  g_executionStateHook.store(hook ? hook : NoExecutionState, std::memory_order_relaxed);
}

VLSystemSleepManager *VLSleepManagerCreate() { return new VLSystemSleepManager{}; }

void VLSleepManagerDestroy(VLSystemSleepManager *manager) { delete manager; }

void VLSleepManagerSetMode(VLSystemSleepManager *manager, uint32_t mode) {
  if (manager->mode == mode) return;
  manager->mode = mode;
  if (manager->sleepDisabled) {
    VLSleepManagerSetDisabled(manager, false);
    VLSleepManagerSetDisabled(manager, true);
  }
}

void VLSleepManagerSetDisabled(VLSystemSleepManager *manager, bool disabled) {
  if (manager->sleepDisabled == disabled) return;
  manager->sleepDisabled = disabled;
  if (!disabled) {
    SetExecutionState(kExecutionContinuous);
    return;
  }
  uint32_t flags = 0;
  if (manager->mode == 0) flags = kExecutionDisplayAwayMode;
  if (manager->mode == 1) flags = kExecutionSystemAwayMode;
  if (SetExecutionState(flags) == 0) {
    VL_LOG(VLLogLevelError, "COMPAT", "VLSystemSleepManager failed to disable sleep.");
    manager->sleepDisabled = false;
  }
}

uint32_t VLSocketPair(VLSocket sockets[2]) {
  sockets[0] = kVLInvalidSocket;
  sockets[1] = kVLInvalidSocket;

  VLSocket listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) return UINT32_MAX;

  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof address;
  bool ok = bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 && listen(listener, 1) == 0 &&
            getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) == 0;
  if (ok) {
    sockets[1] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ok = sockets[1] >= 0 && connect(sockets[1], reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
  }
  if (ok) {
    sockets[0] = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (sockets[0] < 0) {
      close(sockets[1]);
      sockets[0] = kVLInvalidSocket;
      sockets[1] = kVLInvalidSocket;
      ok = false;
    }
  }
  close(listener);
  return ok ? 0 : UINT32_MAX;
}

int64_t VLSocketRecv(VLSocket socket, void *buffer, uint32_t length) {
  ssize_t received = recv(socket, buffer, length, 0);
  if (received < 0 && errno == ECONNRESET) return 0;
  return received;
}

void VLSocketClose(VLSocket socket) {
  if (socket >= 0) close(socket);
}

void VLConditionInit(VLCondition *) {}
void VLConditionDestroy(VLCondition *) {}

int VLConditionSignal(VLCondition *condition) {
  condition->variable.notify_one();
  return 0;
}

int VLConditionBroadcast(VLCondition *condition) {
  condition->variable.notify_all();
  return 0;
}

void VLConditionWait(VLCondition *condition, std::mutex *lock) {
  std::unique_lock<std::mutex> guard(*lock, std::adopt_lock);
  condition->variable.wait(guard);
  guard.release();
}

void VLConditionTimedWait(VLCondition *condition, std::mutex *lock, const VLDeadline *deadline) {
  if (!deadline) {
    VLConditionWait(condition, lock);
    return;
  }
  auto until = std::chrono::system_clock::time_point(std::chrono::seconds(deadline->seconds) +
                                                     std::chrono::microseconds(deadline->microseconds));
  std::unique_lock<std::mutex> guard(*lock, std::adopt_lock);
  condition->variable.wait_until(guard, until);
  guard.release();
}

void VLThreadSetName(const char *name) {
  char shortName[16];
  snprintf(shortName, sizeof shortName, "%s", name);
  pthread_setname_np(pthread_self(), shortName);
}

#if OMBRY_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
void VLServiceNotifyReady() { sd_notify(0, "READY=1"); }
void VLServiceNotifyAlive() { sd_notify(0, "WATCHDOG=1"); }
void VLServiceNotifyStopping() { sd_notify(0, "STOPPING=1"); }
#else
void VLServiceNotifyReady() {}
void VLServiceNotifyAlive() {}
void VLServiceNotifyStopping() {}
#endif
