#include "foundation/logger.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <ctime>

#include "foundation/colour.h"
#include "foundation/escape.h"

namespace {

constexpr size_t kMessageBufferSize = 4096;
constexpr size_t kHostFilterBufferSize = 4096;

// Written during start-up before other threads exist; relaxed atomics keep the
// later unsynchronised reads well defined.
std::atomic<uint32_t> g_threshold{VLLogLevelInfo};
std::atomic<bool> g_consoleEnabled{false};
std::atomic<VLLogCallback> g_callback{nullptr};
std::atomic<void *> g_callbackContext{nullptr};
std::atomic<VLLogHostFilter> g_hostFilter{nullptr};
std::string *g_banner = nullptr;
std::once_flag g_sinksStarted;

struct LevelInfo {
  uint32_t level;
  const char *name;
  char letter;
};

constexpr LevelInfo kLevels[] = {
    {VLLogLevelError, "Error", 'E'}, {VLLogLevelWarning, "Warning", 'W'}, {VLLogLevelInfo, "Info", 'I'},
    {VLLogLevelDebug, "Debug", 'D'}, {VLLogLevelVerbose, "Verbose", 'V'}, {VLLogLevelTrace, "Trace", 'T'},
};

const LevelInfo *FindLevel(uint32_t level) {
  for (const LevelInfo &info : kLevels) {
    if (info.level == level) return &info;
  }
  return nullptr;
}

void ConsoleSink(uint32_t level, const char *tag, char *message) {
  const LevelInfo *info = FindLevel(level);
  char letter = info ? info->letter : '?';
  FILE *stream = level >= VLLogLevelWarning ? stderr : stdout;
  if (!VLStreamTakesColour(stream)) VLStripColour(message);
  fprintf(stream, "%c/%-12s : %s\n", letter, tag, message);
}

// The log file, guarded by its own lock: lines of all threads go through it,
// and a reopen swaps the stream under it.
struct LogFile {
  std::mutex lock;
  std::string path;
  FILE *stream = nullptr;
};
LogFile &TheLogFile() {
  static LogFile *file = new LogFile;  // lives to the end, for late lines
  return *file;
}
std::atomic<bool> g_fileEnabled{false};

void FileSink(uint32_t level, const char *tag, const char *message) {
  const LevelInfo *info = FindLevel(level);
  char stamp[40];
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm utc{};
  gmtime_r(&now.tv_sec, &utc);
  size_t length = strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &utc);
  snprintf(stamp + length, sizeof stamp - length, ".%03ldZ", now.tv_nsec / 1000000);
  char plain[kMessageBufferSize];
  snprintf(plain, sizeof plain, "%s", message);
  VLStripColour(plain);
  LogFile &file = TheLogFile();
  std::lock_guard<std::mutex> guard(file.lock);
  if (!file.stream) return;
  fprintf(file.stream, "%s %c/%-12s : %s\n", stamp, info ? info->letter : '?', tag, plain);
  fflush(file.stream);
}

void StartSinks() {
  // The console sink has nothing to open; the hook exists for sinks that do.
}

}  // namespace

void VLLog(uint32_t level, const char *tag, uint32_t line, const char *file, const char *format, ...) {
  (void)line;
  (void)file;
  if (level < g_threshold.load(std::memory_order_relaxed)) return;

  char formatted[kMessageBufferSize];
  va_list args;
  va_start(args, format);
  int length = vsnprintf(formatted, sizeof formatted, format, args);
  va_end(args);
  if (length < 0) length = 0;
  // Text from outside that a caller passed on unescaped still can't steer the
  // terminal: every control character but the program's colours is escaped.
  char message[kMessageBufferSize];
  VLEscapeInto(message, sizeof message, formatted, std::min(static_cast<size_t>(length), sizeof formatted - 1), true);

  VLLogCallback callback = g_callback.load(std::memory_order_relaxed);
  if (callback) callback(level, tag, message, g_callbackContext.load(std::memory_order_relaxed));
  if (g_fileEnabled.load(std::memory_order_relaxed)) FileSink(level, tag, message);
  if (g_consoleEnabled.load(std::memory_order_relaxed)) ConsoleSink(level, tag, message);
}

bool VLLogOpenFile(const char *path) {
  LogFile &file = TheLogFile();
  std::lock_guard<std::mutex> guard(file.lock);
  FILE *stream = fopen(path, "ae");
  if (!stream) return false;
  if (file.stream) fclose(file.stream);
  file.stream = stream;
  file.path = path;
  g_fileEnabled.store(true, std::memory_order_relaxed);
  return true;
}

bool VLLogReopenFile() {
  LogFile &file = TheLogFile();
  std::lock_guard<std::mutex> guard(file.lock);
  if (file.path.empty()) return true;
  FILE *stream = fopen(file.path.c_str(), "ae");
  if (!stream) return false;  // the old stream stays, so nothing is lost
  if (file.stream) fclose(file.stream);
  file.stream = stream;
  return true;
}

void VLLogCloseFile() {
  LogFile &file = TheLogFile();
  std::lock_guard<std::mutex> guard(file.lock);
  g_fileEnabled.store(false, std::memory_order_relaxed);
  if (file.stream) fclose(file.stream);
  file.stream = nullptr;
  file.path.clear();
}

void VLLogEnableConsole() { g_consoleEnabled.store(true, std::memory_order_relaxed); }

const char *VLLogLevelName(uint32_t level) {
  const LevelInfo *info = FindLevel(level);
  return info ? info->name : "Unknown";
}

uint32_t VLLogGetLevel() { return g_threshold.load(std::memory_order_relaxed); }

static void ReportLevel() {
  if (g_banner) VL_LOG(VLLogLevelInfo, "LOGGER", "%s", g_banner->c_str());
  VL_LOG(VLLogLevelInfo, "LOGGER", "Log level set to %s", VLLogLevelName(VLLogGetLevel()));
}

// Read by the main thread at start and on a level change; nothing in the
// process sets the environment.
static bool TraceAsked() { return getenv("VL_LOG_TRACE") != nullptr; }  // NOLINT(concurrency-mt-unsafe)

void VLLogInit(uint32_t level) {
  g_threshold.store(TraceAsked() ? VLLogLevelTrace : level, std::memory_order_relaxed);
  std::call_once(g_sinksStarted, StartSinks);
  ReportLevel();
}

void VLLogSetLevel(uint32_t level) {
  g_threshold.store(TraceAsked() ? VLLogLevelTrace : level, std::memory_order_relaxed);
  ReportLevel();
}

void VLLogSetCallback(VLLogCallback callback, void *context) {
  g_callbackContext.store(context, std::memory_order_relaxed);
  g_callback.store(callback, std::memory_order_relaxed);
}

void VLLogSetBanner(const char *text) {
  delete g_banner;
  g_banner = text ? new std::string(text) : nullptr;
}

const char *VLLogFilterHost(const char *text) {
  // One shared buffer, as its single user is the socket set's connect thread.
  static char buffer[kHostFilterBufferSize];
  VLLogHostFilter filter = g_hostFilter.load(std::memory_order_relaxed);
  if (filter) {
    filter(buffer, sizeof buffer, text ? text : "");
  } else {
    // A host name comes from the operator's settings or a URL: escaped.
    VLEscapeInto(buffer, sizeof buffer, text ? text : "", text ? strlen(text) : 0, false);
  }
  return buffer;
}

void VLLogSetHostFilter(VLLogHostFilter filter) { g_hostFilter.store(filter, std::memory_order_relaxed); }
