// Key reading and the countdown question, driven through a pseudo-terminal.
#include "foundation/console_io.h"

#include <gtest/gtest.h>

#include "foundation/console.h"
#include "support/process.h"

using testing_support::PtyProcess;

namespace {

TEST(InterruptableDelayTest, FirstAcceptedLowerCaseKeyEndsTheWait) {
  // Keys typed, and the key the wait ends with.
  const std::pair<std::vector<const char *>, char> rows[] = {
      {{"y"}, 'y'},
      {{"qY N", "n"}, 'n'},  // other keys and upper case are ignored
      {{"xny"}, 'n'},        // the first accepted key of one read wins
  };
  for (const auto &[typed, key] : rows) {
    // The child's exit code is the key the wait ended with.
    PtyProcess child({}, {}, [] {
      VLConsoleBeginKeys();
      return static_cast<int>(static_cast<unsigned char>(InterruptableDelay(30, "yn")));
    });
    ASSERT_TRUE(child.WaitFor("Waiting for 30 seconds"));
    for (const char *keys : typed) child.Type(keys);
    EXPECT_EQ(child.Wait(), key) << typed[0];
    EXPECT_EQ(child.Output().find("Waiting for 30 seconds"), 0u);
    EXPECT_EQ(child.Output().back(), '\n');
  }
}

// Each press once, in order: a held key's repeats and the escape sequences
// of Delete, F5, PgUp and an arrow (with their digits) act on nothing.
TEST(ConsumeKeysTest, DeliversEachPressOnceAndNoEscapeSequence) {
  PtyProcess child({}, {}, [] {
    VLConsoleBeginKeys();
    printf("ready\n");
    fflush(stdout);
    std::string seen;
    for (int i = 0; i < 200 && seen.size() < 4; i++) {
      usleep(10000);
      ConsumeKeys([&](char key) { seen += key; });
    }
    return seen == "a+1Q" ? 0 : 1;
  });
  ASSERT_TRUE(child.WaitFor("ready"));
  child.Type("a\x1b[3~+\x1b[15~11\x1b[5~\x1bOAQ");
  EXPECT_EQ(child.Wait(), 0);
}

}  // namespace
