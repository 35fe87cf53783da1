#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "foundation/list.h"
#include "foundation/object.h"
#include "foundation/show.h"
#include "foundation/text.h"

namespace {

TEST(Formatting, TruncatesSilently) {
  std::string long_text(40000, 'q');
  VLRef s(VLStringCreateFormat("%s", long_text.c_str()));
  EXPECT_EQ(VLStringLength(s.get()), 4095u);
  VLRef t(VLStringCreateWithCapacity(0));
  VLStringAppendFormat(t.get(), "%s", long_text.c_str());
  EXPECT_EQ(VLStringLength(t.get()), 32767u);
  VLStringAppendFormat(t.get(), "%c", 0);  // a zero byte adds nothing
  EXPECT_EQ(VLStringLength(t.get()), 32767u);

  char buffer[8];
  memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(VLFormatBuffer(buffer, sizeof buffer, "%d", 42), 2u);
  EXPECT_EQ(std::string(buffer, 4), std::string("42\0\0", 4));
  EXPECT_EQ(buffer[4], 'x');
  EXPECT_EQ(VLFormatBuffer(buffer, 4, "%s", "abcdef"), 3u);
  EXPECT_EQ(buffer[4], 'x');  // nothing written past the given size
}

std::string Pieces(const char *text, const char *separator) { return Show(VLRef(VLTextSplit(text, separator)).get()); }

TEST(Split, DropsEmptyPiecesAndCountsOverlaps) {
  EXPECT_EQ(VLTextCount("aaa", "aa"), 2u);
  EXPECT_EQ(VLTextCount("abc", ""), 0u);
  EXPECT_EQ(Pieces("a b", " "), R"(["a","b"])");
  EXPECT_EQ(Pieces("a b", "x"), R"(["a b"])");
  EXPECT_EQ(Pieces(",,,", ","), "[]");
  EXPECT_EQ(Pieces("a,,b", ","), R"(["a","b"])");
  EXPECT_EQ(Pieces(",a,", ","), R"(["a"])");
  EXPECT_EQ(Pieces("one\r\ntwo\r\n", "\r\n"), R"(["one","two"])");
  EXPECT_EQ(Pieces("", ","), R"([""])");
  EXPECT_EQ(Pieces("abc", ""), R"(["abc"])");
  VLRef line(VLStringCreate("{}\n[]\n", 0));
  EXPECT_EQ(Show(VLRef(VLStringSplit(line.get(), "\n")).get()), R"(["{}","[]"])");
}

TEST(Split, RefusesPiecesAboveTheLimitAndKeepsTheRest) {
  std::string fits(kVLSplitPieceLimit, 'f');
  std::string too_long(kVLSplitPieceLimit + 1, 'l');
  std::string text = "a\n" + fits + "\n" + too_long + "\nb\n" + too_long;
  VLRef pieces(VLTextSplit(text.c_str(), "\n"));
  ASSERT_EQ(VLArrayCount(pieces.get()), 3u);
  EXPECT_STREQ(VLStringChars(VLArrayGet(pieces.get(), 0)), "a");
  EXPECT_EQ(VLStringChars(VLArrayGet(pieces.get(), 1)), fits);
  EXPECT_STREQ(VLStringChars(VLArrayGet(pieces.get(), 2)), "b");
}

std::string HexData(const char *text) {
  VLRef string(VLStringCreate(text, 0));
  return Show(VLRef(VLDataFromHexString(string.get())).get());
}

TEST(Hex, DecodesLenientlyAndTakesAPrefix) {
  EXPECT_EQ(HexData("0x1f"), "<1f>");
  EXPECT_EQ(HexData("0X1F2e"), "<1f2e>");
  EXPECT_EQ(HexData("0x"), "<ff>");      // too short for a prefix: '0' then a bad digit
  EXPECT_EQ(HexData("abc"), "<ab>");     // an odd last digit is ignored
  EXPECT_EQ(HexData("g1"), "<f1>");      // a bad first digit counts as 15
  EXPECT_EQ(HexData("1g00"), "<ff00>");  // a bad second digit makes the byte 0xFF
  EXPECT_EQ(HexData(""), "<nullptr>");
  EXPECT_EQ(VLDataFromHexString(nullptr), nullptr);
  uint8_t *bytes = VLHexDecode("00ff7");
  EXPECT_EQ(bytes[0], 0x00);
  EXPECT_EQ(bytes[1], 0xff);
  EXPECT_EQ(bytes[2], 0);  // the terminating zero
  free(bytes);
}

TEST(Base64, EncodesDecodesAndStaysLenient) {
  size_t length = 0;
  char *one = VLBase64Encode(reinterpret_cast<const uint8_t *>("M"), 1, &length);
  EXPECT_EQ(length, 4u);
  EXPECT_STREQ(one, "TQ==\n");
  free(one);

  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  for (size_t n = 0; n <= 7; ++n) {
    size_t encoded_length = 0, decoded_length = 0;
    char *encoded = VLBase64Encode(reinterpret_cast<const uint8_t *>(all.data() + 250 - n), n, &encoded_length);
    uint8_t *decoded = VLBase64Decode(encoded, encoded_length, &decoded_length);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(decoded), decoded_length), all.substr(250 - n, n)) << n;
    free(encoded);
    free(decoded);
  }
  size_t decoded_length = 0;
  uint8_t *odd = VLBase64Decode("T!==", 4, &decoded_length);  // '!' counts as 0
  EXPECT_EQ(decoded_length, 1u);
  EXPECT_EQ(odd[0], 0x4C);
  free(odd);
  uint8_t *empty = VLBase64Decode("==", 2, &decoded_length);
  EXPECT_EQ(decoded_length, 0u);
  free(empty);
}

std::vector<uint64_t> g_destroyed;

}  // namespace
