#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "foundation/json.h"
#include "foundation/plist.h"
#include "foundation/show.h"

namespace {

TEST(XmlPlist, ReadsTheElements) {
  const char *document =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//x//DTD PLIST 1.0//EN\" \"x\">\n"
      "<plist version=\"1.0\">\n"
      "<dict>\n"
      "  <key>name</key><string>a &amp; b</string>\n"
      "  <key>count</key><integer>-1</integer>\n"
      "  <key>ratio</key><real>2.5</real>\n"
      "  <key>on</key><true/>\n"
      "  <key>off</key><false></false>\n"
      "  <key>blob</key><data>\n    AAH/\n  </data>\n"
      "  <key>list</key><array><string></string><integer>7.9</integer></array>\n"
      "</dict>\n"
      "</plist>\n";
  EXPECT_EQ(ParseShow(document), R"({"name":"a &amp; b","count":u32:4294967295,"ratio":real:2.5,"on":true,"off":false,)"
                                 R"("blob":<0001ff>,"list":["",u32:7]})");
}

// Builds a binary property list: objects in order, one-byte offsets and references.
std::string BinaryPlist(const std::vector<std::string> &objects, uint64_t object_count_override = 0) {
  std::string out = "bplist00";
  std::vector<uint8_t> offsets;
  for (const auto &object : objects) {
    offsets.push_back(static_cast<uint8_t>(out.size()));
    out += object;
  }
  uint64_t table = out.size();
  for (uint8_t offset : offsets) out += static_cast<char>(offset);
  std::string trailer(32, '\0');
  trailer[6] = 1;
  trailer[7] = 1;
  uint64_t count = object_count_override ? object_count_override : objects.size();
  for (int i = 0; i < 8; ++i) {
    trailer[8 + i] = static_cast<char>(count >> (56 - 8 * i));
    trailer[24 + i] = static_cast<char>(table >> (56 - 8 * i));
  }
  return out + trailer;
}

std::string ParseBinary(const std::string &bytes) {
  VLRef data(VLDataCreate(bytes.data(), static_cast<uint32_t>(bytes.size())));
  return Show(VLRef(VLObjectParse(data.get())).get());
}

TEST(BinaryPlist, ReadsObjectsThroughTheOffsetTable) {
  std::string plist = BinaryPlist({
      std::string("\xD3\x01\x02\x03\x04\x05\x06", 7),  // dict of 3: keys 1,2,3, values 4,5,6
      "\x51k",
      std::string("\x61\x00\xE9", 3),      // UTF-16 "é"
      "\x50",                              // empty ASCII string
      std::string("\xA3\x07\x08\x09", 4),  // array of refs 7, 8, 9
      std::string("\x13\x00\x00\x00\x01\x00\x00\x00\x02", 9),
      std::string("\x23\x3F\xF8\x00\x00\x00\x00\x00\x00", 9),
      "\x09",
      std::string("\x11\x01\x02", 3),
      std::string("\x42\xAB\xCD", 3),
  });
  EXPECT_EQ(ParseBinary(plist), R"({"k":[true,u32:258,<abcd>],"\xC3\xA9":u64:4294967298,"":real:1.5})");
}

}  // namespace
