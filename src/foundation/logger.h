// The one logging facility: a level threshold and a console sink on the
// standard streams. Each line leaves in a single write so that lines of
// different threads never interleave.
#pragma once

#include <cstdint>

enum : uint32_t {
  VLLogLevelTrace = 50,
  VLLogLevelVerbose = 100,
  VLLogLevelDebug = 200,
  VLLogLevelInfo = 300,
  VLLogLevelWarning = 400,
  VLLogLevelError = 500,
};

using VLLogCallback = void (*)(uint32_t level, const char *tag, const char *message, void *context);
using VLLogHostFilter = void (*)(char *buffer, uint32_t size, const char *text);

// Formats and emits one line when `level` passes the threshold. `line` and
// `file` name the call site; the console sink doesn't print them. Control
// characters in the result are escaped (foundation/escape.h), colour
// sequences excepted, so no line can steer the terminal; text from outside
// is still escaped by the caller, colours and all, with VLEscapeControl.
void VLLog(uint32_t level, const char *tag, uint32_t line, const char *file, const char *format, ...)
    __attribute__((format(printf, 5, 6)));

void VLLogEnableConsole();

// A log file beside the console: every line the console gets, with a UTC time
// stamp to the millisecond and without colour codes, appended to `path`.
// False (errno set) when it cannot be opened.
bool VLLogOpenFile(const char *path);
// Opens the file again under its name, after a rotation moved it away. Safe
// from the signal thread; false when it could not be opened again.
bool VLLogReopenFile();
void VLLogCloseFile();
void VLLogInit(uint32_t level);
void VLLogSetLevel(uint32_t level);
void VLLogSetCallback(VLLogCallback callback, void *context);
void VLLogSetBanner(const char *text);
uint32_t VLLogGetLevel();
const char *VLLogLevelName(uint32_t level);

// The text to log in place of a host name: the name with its control
// characters escaped, unless a filter is set.
const char *VLLogFilterHost(const char *text);
void VLLogSetHostFilter(VLLogHostFilter filter);

// Call-site convenience: passes the source line and file along.
#define VL_LOG(level, tag, ...) VLLog((level), (tag), __LINE__, __FILE__, __VA_ARGS__)
