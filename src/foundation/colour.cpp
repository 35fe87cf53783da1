#include "foundation/colour.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {

// Per descriptor (1 and 2): 0 not yet looked at, 1 plain, 2 colour. A stream
// doesn't change its kind while the process runs.
std::atomic<int> g_kind[3];
std::atomic<int> g_forced{-1};

bool Set(const char *name) {
  const char *value = getenv(name);
  return value != nullptr && *value != '\0';
}

// NO_COLOR wins; CLICOLOR_FORCE (other than 0) asks for colour into a pipe too.
bool Decide(int fd) {
  if (Set("NO_COLOR")) return false;
  if (Set("CLICOLOR_FORCE") && strcmp(getenv("CLICOLOR_FORCE"), "0") != 0) return true;
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
