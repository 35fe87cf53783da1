#include "foundation/console.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>

#include "foundation/compat.h"
#include "foundation/logger.h"

namespace {

termios g_savedTerminal;
std::atomic<bool> g_terminalSaved{false};
std::atomic<bool> g_keysEnded{false};
VLConsoleCtrlHandler g_ctrlHandler = nullptr;

uint32_t EventForSignal(int signal) {
  switch (signal) {
    case SIGINT: return VLConsoleEventInterrupt;
    case SIGHUP: return VLConsoleEventClose;
    default: return VLConsoleEventShutdown;
  }
}

sigset_t ConsoleSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  // Control-\ stops the run like a termination request, boards ramped down.
  sigaddset(&signals, SIGQUIT);
  // Log rotation: the log file is opened again under its name.
  sigaddset(&signals, SIGUSR1);
  return signals;
}

void *SignalThread(void *) {
  VLThreadSetName("console-ctrl");
  sigset_t signals = ConsoleSignals();
  for (;;) {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) continue;
    if (signal == SIGUSR1) {
      VLLogReopenFile();
      continue;
    }
    g_ctrlHandler(EventForSignal(signal));
  }
  return nullptr;
}

// Keys such as Delete, F5 or the arrows arrive as escape sequences
// (ESC [ ... final, ESC O final): read whole and dropped, so that their
// letters and digits never act as keys. A sequence under way carries over to
// the next read; an ESC that ended a read and had nothing after it for a
// moment was the Esc key alone, and the key after it counts.
enum class EscapeState { None, Escape, Csi, Ss3 };
EscapeState g_escape = EscapeState::None;
std::chrono::steady_clock::time_point g_escapeAt;
constexpr auto kLoneEscape = std::chrono::milliseconds(50);

size_t DropEscapeSequences(char *keys, size_t count) {
  auto now = std::chrono::steady_clock::now();
  if (g_escape == EscapeState::Escape && now - g_escapeAt > kLoneEscape) g_escape = EscapeState::None;
  size_t kept = 0;
  for (size_t i = 0; i < count; i++) {
    auto byte = static_cast<unsigned char>(keys[i]);
    switch (g_escape) {
      case EscapeState::None:
        if (byte == 0x1b) {
          g_escape = EscapeState::Escape;
        } else {
          keys[kept++] = static_cast<char>(byte);
        }
        break;
      case EscapeState::Escape:
        // ESC with another key (Alt) is no plain key either.
        g_escape = byte == '[' ? EscapeState::Csi : byte == 'O' ? EscapeState::Ss3 : EscapeState::None;
        break;
      case EscapeState::Csi:
        if (byte >= 0x40 && byte <= 0x7e) g_escape = EscapeState::None;
        break;
      case EscapeState::Ss3: g_escape = EscapeState::None; break;
    }
  }
  g_escapeAt = now;
  return kept;
}

// A crash must not leave the operator's terminal without echo.
void RestoreAndReraise(int signal) {
  VLConsoleRestore();
  raise(signal);
}

void InstallFatalSignalRestore() {
#if defined(OMBRY_SANITIZE_ADDRESS) || defined(OMBRY_SANITIZE_THREAD)
  // The sanitizers report crashes through their own handlers; leave them be.
  return;
#endif
  struct sigaction action {};
  action.sa_handler = RestoreAndReraise;
  action.sa_flags = SA_RESETHAND;
  sigemptyset(&action.sa_mask);
  for (int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) sigaction(signal, &action, nullptr);
}

}  // namespace

bool VLConsoleSetCtrlHandler(VLConsoleCtrlHandler handler) {
  g_ctrlHandler = handler;
  sigset_t signals = ConsoleSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // Writes to a closed socket report an error instead of ending the process.
  signal(SIGPIPE, SIG_IGN);
  pthread_t thread;
  if (pthread_create(&thread, nullptr, SignalThread, nullptr) != 0) return false;
  pthread_detach(thread);
  return true;
}

void VLConsoleBeginKeys() {
  if (!isatty(STDIN_FILENO) || g_terminalSaved.load()) return;
  termios terminal;
  if (tcgetattr(STDIN_FILENO, &terminal) != 0) return;
  g_savedTerminal = terminal;
  g_terminalSaved.store(true);
  terminal.c_lflag &= ~(ICANON | ECHO);
  terminal.c_cc[VMIN] = 0;
  terminal.c_cc[VTIME] = 0;
  tcsetattr(STDIN_FILENO, TCSANOW, &terminal);
  atexit(VLConsoleRestore);
  InstallFatalSignalRestore();
}

bool VLConsoleHasKeys() { return g_terminalSaved.load(); }

void VLConsoleDiscardInput() {
  if (g_terminalSaved.load()) tcflush(STDIN_FILENO, TCIFLUSH);
}

size_t VLConsoleReadKeys(char *keys, size_t capacity) {
  if (!g_terminalSaved.load(std::memory_order_relaxed) || g_keysEnded.load(std::memory_order_relaxed)) { return 0; }
  pollfd input{STDIN_FILENO, POLLIN, 0};
  if (poll(&input, 1, 0) <= 0) return 0;
  if (input.revents & (POLLHUP | POLLERR | POLLNVAL) && !(input.revents & POLLIN)) {
    g_keysEnded.store(true);
    return 0;
  }
  ssize_t count = read(STDIN_FILENO, keys, capacity);
  if (count == 0) g_keysEnded.store(true);  // the terminal is gone
  return count > 0 ? DropEscapeSequences(keys, static_cast<size_t>(count)) : 0;
}

void VLConsoleRestore() {
  if (g_terminalSaved.load()) tcsetattr(STDIN_FILENO, TCSANOW, &g_savedTerminal);
}

void VLProcessTerminate(int code) {
  VLConsoleRestore();
  _exit(code);
}
