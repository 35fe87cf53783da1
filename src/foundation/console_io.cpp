#include "foundation/console_io.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "foundation/colour.h"
#include "foundation/console.h"
#include "foundation/run_state.h"

void SetConsoleColor(int code) {
  const char *sequence = nullptr;
  switch (code) {
    case ConsoleColorBlue: sequence = "\x1b[1;34m"; break;
    case ConsoleColorGreen: sequence = "\x1b[1;32m"; break;
    case ConsoleColorMagenta: sequence = "\x1b[1;35m"; break;
    case ConsoleColorRed: sequence = "\x1b[1;31m"; break;
    case ConsoleColorCyan: sequence = "\x1b[1;36m"; break;
    case ConsoleColorYellow: sequence = "\x1b[1;33m"; break;
    case ConsoleColorNormal: sequence = "\x1b[0m"; break;
    default: return;
  }
  VLWriteColour(sequence);
}

void ConsumeKeys(const std::function<void(char)> &callback) {
  constexpr size_t kMaxKeysPerRead = 64;
  // A held key repeats faster than this; a second press of the same key
  // comes later. Each repeat moves the window on.
  constexpr auto kRepeatWindow = std::chrono::milliseconds(150);
  static char lastKey = 0;
  static std::chrono::steady_clock::time_point lastSeen;
  char keys[kMaxKeysPerRead];
  size_t count = VLConsoleReadKeys(keys, sizeof keys);
  auto now = std::chrono::steady_clock::now();
  for (size_t i = 0; i < count; i++) {
    if (keys[i] == 0) continue;
    bool repeat = keys[i] == lastKey && now - lastSeen < kRepeatWindow;
    lastKey = keys[i];
    lastSeen = now;
    if (!repeat) callback(keys[i]);
  }
}

char InterruptableDelay(uint64_t seconds, const char *keys) {
  printf("Waiting for %llu seconds", static_cast<unsigned long long>(seconds));
  fflush(stdout);

  char taken = 0;
  auto takeKey = [&](char key) {
    if (taken == 0 && strchr(keys, key) != nullptr) taken = key;
  };

  constexpr uint64_t kUnitsPerSecond = 10;
  for (uint64_t second = 0; second < seconds && g_runState == RunStateRunning; second++) {
    for (uint64_t unit = 0; unit < kUnitsPerSecond && g_runState == RunStateRunning; unit++) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      ConsumeKeys(takeKey);
      if (taken != 0) {
        printf("\n");
        fflush(stdout);
        return taken;
      }
    }
    printf(".");
    fflush(stdout);
  }
  printf("\n");
  fflush(stdout);
  return 0;
}
