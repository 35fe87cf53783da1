// The device-file layer on the system backend, over ordinary files in a
// temporary directory standing in for the driver's nodes.
#include "board/device_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "board/dma_device.h"
#include "board/pci_address.h"
#include "board_fixture.h"
#include "support/sim_boards.h"

namespace fs = std::filesystem;
using board_test::LogRecorder;

namespace {

class DeviceFileTest : public ::testing::Test {
 protected:
  void SetUp() override { BRYLDMASetFileBackend(nullptr); }
  void Touch(const std::string &name, const std::string &content = "") { std::ofstream(dir_ + "/" + name) << content; }
  // The four nodes of a board; control register 0 holds a memory-mapped
  // design's channel identifier.
  void MakeBoard(const std::string &name) {
    Touch(name + "_control", std::string("\x06\x00\xc0\x1f", 4));
    Touch(name + "_user", std::string(16, '\0'));
    Touch(name + "_h2c_0");
    Touch(name + "_c2h_0");
  }
  miner_testing::ScratchDir scratch_;
  const std::string dir_ = scratch_.Path().string();
};

TEST_F(DeviceFileTest, OpenNamesFilesByTypeAndChannelAndReportsFailures) {
  Touch("xdma0_h2c_3");
  Touch("xdma0_user");
  LogRecorder log;
  BRYLDMAFile *h2c = BRYLDMAFileOpen(dir_ + "/xdma0", BRYLDMAFileH2C, 3);
  ASSERT_NE(h2c, nullptr);
  EXPECT_EQ(BRYLDMAFilePath(h2c), dir_ + "/xdma0_h2c_3");
  EXPECT_EQ(h2c->channel, 3u);
  BRYLDMAFile *user = BRYLDMAFileOpen(dir_ + "/xdma0", BRYLDMAFileUser, 5);
  ASSERT_NE(user, nullptr);
  EXPECT_EQ(user->channel, 0u);  // no channel for control and user
  BRYLDMAFileClose(h2c);
  BRYLDMAFileClose(user);
  BRYLDMAFileClose(nullptr);

  EXPECT_EQ(BRYLDMAFileOpen(dir_ + "/xdma7", BRYLDMAFileUser, 0), nullptr);
  EXPECT_TRUE(log.Has("DMA_FILE", "Failed to create file handle: 2 - " + dir_ + "/xdma7_user"));
  EXPECT_EQ(BRYLDMAFileOpen(dir_ + "/xdma0", static_cast<BRYLDMAFileType>(4), 0), nullptr);
  EXPECT_TRUE(log.Has("DMA_FILE", "Unknown BRYLDMAFileType."));
}

TEST_F(DeviceFileTest, TransfersArePositionedAndDirectionFollowsType) {
  Touch("xdma0_user", "0123456789");
  Touch("xdma0_h2c_0");
  Touch("xdma0_c2h_0", "abcdef");
  LogRecorder log;
  BRYLDMAFile *user = BRYLDMAFileOpen(dir_ + "/xdma0", BRYLDMAFileUser, 0);
  BRYLDMAFile *h2c = BRYLDMAFileOpen(dir_ + "/xdma0", BRYLDMAFileH2C, 0);
  BRYLDMAFile *c2h = BRYLDMAFileOpen(dir_ + "/xdma0", BRYLDMAFileC2H, 0);
  ASSERT_TRUE(user && h2c && c2h);

  char buffer[8] = {};
  EXPECT_EQ(BRYLDMAFileRead(user, 4, buffer, 4), 4u);
  EXPECT_EQ(std::string(buffer, 4), "4567");
  // A short transfer comes back as it is.
  EXPECT_EQ(BRYLDMAFileRead(c2h, 2, buffer, 8), 4u);
  EXPECT_EQ(std::string(buffer, 4), "cdef");

  // A position above 4 GiB reaches the file intact, high half included.
  const uint64_t far = (5ull << 30) + 4;
  EXPECT_EQ(BRYLDMAFileWrite(h2c, far, "wxyz", 4), 4u);
  struct stat st {};
  ASSERT_EQ(stat((dir_ + "/xdma0_h2c_0").c_str(), &st), 0);
  EXPECT_EQ(static_cast<uint64_t>(st.st_size), far + 4);

  // Against the direction: 0 bytes, a log line, and the buffer untouched.
  memcpy(buffer, "UNTOUCHD", 8);  // NOLINT(bugprone-not-null-terminated-result): bytes, not a string
  EXPECT_EQ(BRYLDMAFileRead(h2c, 0, buffer, 4), 0u);
  EXPECT_EQ(std::string(buffer, 8), "UNTOUCHD");
  EXPECT_TRUE(log.Has("DMA_FILE", "failed to Read from device: 9"));
  EXPECT_EQ(BRYLDMAFileWrite(c2h, 0, "zz", 2), 0u);
  EXPECT_TRUE(log.Has("DMA_FILE", "failed to Write To Device: 9"));

  BRYLDMAFileClose(user);
  BRYLDMAFileClose(h2c);
  BRYLDMAFileClose(c2h);
}

// The PCI address comes from sysfs's link for the control node's character
// device; /dev/null (1:3) stands in for a board's node, a scratch tree for sysfs.
TEST_F(DeviceFileTest, PciAddressIsTheFunctionSysfsLinksTheControlNodeTo) {
  fs::create_directories(dir_ + "/sys/dev/char/1:3");
  fs::create_directories(dir_ + "/sys/dev/char/1:5");
  fs::create_symlink("/dev/null", dir_ + "/xdma0_control");
  fs::create_symlink("/dev/zero", dir_ + "/xdma1_control");  // 1:5
  MakeBoard("xdma2");                                        // a plain file, as a simulator serves
  fs::create_symlink("/dev/full", dir_ + "/xdma3_control");  // 1:7, which sysfs here knows nothing of
  const std::string sys = dir_ + "/sys";
  struct Case {
    const char *board;
    const char *link;  // where 1:3's "device" points; null: no link
    const char *address;
  };
  const Case cases[] = {
      {"xdma0", "../../../devices/pci0000:00/0000:00:1c.0/0000:1a:00.0", "0000:1a:00.0"},
      {"xdma0", "../../../devices/platform/serial8250", ""},
      {"xdma0", "../../../devices/pci0000:00/0000:1a:00.9", ""},  // no such function number
      {"xdma0", nullptr, ""},
      {"xdma2", "../../../devices/pci0000:00/0000:03:00.0", ""},
      {"xdma3", "../../../devices/pci0000:00/0000:03:00.0", ""},
  };
  for (const Case &c : cases) {
    fs::remove(sys + "/dev/char/1:3/device");
    if (c.link) fs::create_symlink(c.link, sys + "/dev/char/1:3/device");
    EXPECT_EQ(BRYLDMAPciAddress(dir_ + "/" + c.board, sys), c.address) << c.board << " " << (c.link ? c.link : "-");
  }
  fs::create_symlink("../../../devices/pci0000:00/0000:00:01.0/0000:b3:00.1", sys + "/dev/char/1:5/device");
  EXPECT_EQ(BRYLDMAPciAddress(dir_ + "/xdma1", sys), "0000:b3:00.1");
}

}  // namespace
