#include "foundation/colour.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Per descriptor (1 and 2): 0 not yet looked at, 1 plain, 2 colour. A stream
// doesn't change its kind while the process runs.
std::atomic<int> g_kind[3];
std::atomic<int> g_forced{-1};

// The variable's value, empty when it is not set. Nothing in the process sets
// the environment, so reading it from any thread is safe.
std::string Variable(const char *name) {
  const char *value = getenv(name);  // NOLINT(concurrency-mt-unsafe)
  return value != nullptr ? value : "";
}

// NO_COLOR wins; CLICOLOR_FORCE (other than 0) asks for colour into a pipe too.
bool Decide(int fd) {
  if (!Variable("NO_COLOR").empty()) return false;
  std::string force = Variable("CLICOLOR_FORCE");
  if (!force.empty() && force != "0") return true;
  return isatty(fd);
}

}  // namespace

void VLForceColour(int mode) { g_forced.store(mode, std::memory_order_relaxed); }

bool VLStreamTakesColour(FILE *stream) {
  int forced = g_forced.load(std::memory_order_relaxed);
  if (forced >= 0) return forced == 1;
  int fd = fileno(stream);
  if (fd != STDOUT_FILENO && fd != STDERR_FILENO) return false;
  int kind = g_kind[fd].load(std::memory_order_relaxed);
  if (kind == 0) {
    kind = Decide(fd) ? 2 : 1;
    g_kind[fd].store(kind, std::memory_order_relaxed);
  }
  return kind == 2;
}

void VLWriteColour(const char *sequence) {
  if (VLStreamTakesColour(stdout)) fputs(sequence, stdout);
}

void VLStripColour(char *text) {
  char *out = text;
  for (const char *in = text; *in;) {
    if (in[0] == '\x1b' && in[1] == '[') {
      const char *end = in + 2;
      while ((*end >= '0' && *end <= '9') || *end == ';') end++;
      if (*end == 'm') {
        in = end + 1;
        continue;
      }
    }
    *out++ = *in++;
  }
  *out = '\0';
}
