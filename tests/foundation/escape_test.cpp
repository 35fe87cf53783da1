// Text from outside made safe for a log line or a screen.
#include "foundation/escape.h"

#include <gtest/gtest.h>

#include <string>

#include "foundation/logger.h"
#include "support/log_lines.h"

namespace {

TEST(EscapeControl, NothingThatSteersATerminalSurvives) {
  const std::pair<std::string, std::string> cases[] = {
      {"mining.notify 25\u00b0C caf\u00e9", "mining.notify 25\u00b0C caf\u00e9"},  // UTF-8 stays
      {"\x1b[2J\x1b]0;title\x07", "\\u001b[2J\\u001b]0;title\\u0007"},
      {"a\r\nb\tc\x7f", "a\\u000d\\u000ab\\u0009c\\u007f"},
      {"\u009b2J", "\\u009b2J"},            // the one-character CSI
      {"\u202etxt.exe", "\\u202etxt.exe"},  // text shown right to left
      {"\xff\xfe \xe2\x82 \xed\xa0\x80 \xc0\xaf", "\\xff\\xfe \\xe2\\x82 \\xed\\xa0\\x80 \\xc0\\xaf"},  // no UTF-8
      {std::string("a\0b", 3), "a\\u0000b"},
  };
  for (const auto &[text, expected] : cases) EXPECT_EQ(VLEscapeControl(text), expected);
  EXPECT_EQ(VLEscapeControl(std::string(2000, 'a')), std::string(1024, 'a') + "... (2000 bytes)");
  EXPECT_EQ(VLEscapeControl(static_cast<const VLObject *>(nullptr)), "(null)");
}

TEST(EscapeControl, IntoABufferColoursMayStayAndNoEscapeIsCut) {
  char out[64];
  const std::string coloured = "\x1b[1;31mred\x1b[0m \x1b[2J";
  VLEscapeInto(out, sizeof out, coloured.data(), coloured.size(), true);
  EXPECT_STREQ(out, "\x1b[1;31mred\x1b[0m \\u001b[2J");
  VLEscapeInto(out, sizeof out, coloured.data(), coloured.size(), false);
  EXPECT_STREQ(out, "\\u001b[1;31mred\\u001b[0m \\u001b[2J");
  EXPECT_EQ(VLEscapeInto(out, 10, "ab\x1b\x1b", 4, false), 8u);  // the second escape doesn't fit
  EXPECT_STREQ(out, "ab\\u001b");
  EXPECT_EQ(VLEscapeInto(out, 5, "abcdefgh", 8, false), 4u);
}

// A line whose argument came unescaped from outside still can't steer the
// terminal; the program's own colours pass.
TEST(EscapeControl, TheLoggerEscapesWhatItsCallerDidNot) {
  testing_support::LogLines log(VLLogLevelInfo);
  VL_LOG(VLLogLevelInfo, "T", "method %s", "\x1b[2J\rI/Miner : Share Accepted!");
  VL_LOG(VLLogLevelInfo, "T", "\x1b[1;32m%s\x1b[0m", "ok");
  EXPECT_TRUE(log.Has("T", "method \\u001b[2J\\u000dI/Miner : Share Accepted!"));
  EXPECT_TRUE(log.Has("T", "\x1b[1;32mok\x1b[0m"));
}

}  // namespace
