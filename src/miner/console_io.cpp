#include "miner/console_io.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "foundation/colour.h"
#include "foundation/console.h"

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
  char keys[kMaxKeysPerRead];
  size_t count = VLConsoleReadKeys(keys, sizeof keys);
  for (size_t i = 0; i < count; i++) {
    if (keys[i] != 0) callback(keys[i]);
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
  for (uint64_t second = 0; second < seconds; second++) {
    for (uint64_t unit = 0; unit < kUnitsPerSecond; unit++) {
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
