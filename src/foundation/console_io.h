// The small console operations that everything before mining needs: colours,
// single keys, and the countdown question.
#pragma once

#include <cstdint>
#include <functional>

enum ConsoleColor : int {
  ConsoleColorBlue = 9,
  ConsoleColorGreen = 10,
  ConsoleColorMagenta = 11,
  ConsoleColorRed = 12,
  ConsoleColorCyan = 13,
  ConsoleColorYellow = 14,
  ConsoleColorNormal = 15,
};

// Writes the escape sequence of `code` to standard output; other codes do
// nothing.
void SetConsoleColor(int code);

// Calls `callback` with each key pressed since the last call, without waiting.
void ConsumeKeys(const std::function<void(char)> &callback);

// Counts down `seconds`, printing a dot a second, and returns the first key
// pressed that is one of `keys`, or 0 when the time runs out.
char InterruptableDelay(uint64_t seconds, const char *keys);

// A coloured message: the colour, the log line, then the normal colour.
#define LOG_COLOR(color, level, tag, ...) \
  do {                                    \
    SetConsoleColor(color);               \
    VL_LOG((level), (tag), __VA_ARGS__);  \
    SetConsoleColor(ConsoleColorNormal);  \
  } while (0)
