// The DMA device against simulated boards: what open accepts, where register
// and DMA transfers land on the wire, and how a failing board reads.
#include "board/dma_device.h"

#include <numeric>
#include <thread>

#include "board_fixture.h"
#include "foundation/vltime.h"

using board_test::Boards;
using board_test::Filter;
using board_test::LogRecorder;
using board_test::Positions;
using sim::Node;

namespace {

constexpr uint64_t kDmaMemory = 0x100000000ull;  // card memory, above the register windows

TEST(DmaDeviceRegisters, SubDeviceShiftsOnTheWireByFileAndByDma) {
  Boards boards(
      "xdma0 model=9 subdevices=1,2,3\n"
      "xdma0.1 bitstream=0x000C0001\n"
      "xdma0.3 bitstream=0x000C0003\n"
      "xdma1 model=9 user=0 subdevices=2\n"
      "xdma1.2 bitstream=0x000C0002\n");
  sim::Card &card = boards.Card("xdma0");
  card.SetTracing(true);
  auto sub1 = boards.Open("xdma0", 1);
  auto sub3 = boards.Open("xdma0", 3);
  ASSERT_TRUE(sub1 && sub3);
  // The control word at open is read unshifted, for every sub-device.
  EXPECT_EQ(Positions(Filter(card.TakeTrace(), Node::Control, false)), (std::vector<uint64_t>{0, 0}));

  EXPECT_EQ(BRYLDMADeviceRead(sub1.get(), sub1->userFile, 8), 0x000C0001u);
  EXPECT_EQ(BRYLDMADeviceRead(sub3.get(), sub3->userFile, 8), 0x000C0003u);
  EXPECT_EQ(BRYLDMADeviceRead(sub1.get(), sub1->controlFile, 0) & 0xFFFF0000u, 0x1FC00000u);
  EXPECT_EQ(Positions(Filter(card.TakeTrace(), Node::User, false)), (std::vector<uint64_t>{0x20008, 0x60008}));

  // Without a user node registers go by DMA, where both shifts apply: 2 << 36
  // for the FPGA, 2 << 17 for its window.
  sim::Card &dmaCard = boards.Card("xdma1");
  LogRecorder log;
  auto sub2 = boards.Open("xdma1", 2);
  ASSERT_TRUE(sub2);
  EXPECT_TRUE(sub2->useDmaForRegisters);
  EXPECT_TRUE(log.Has("DMA_DEVICE", "User file not available, will use DMA instead", VLLogLevelInfo));
  EXPECT_TRUE(log.Has("DMA_FILE", "Failed to create file handle: 2 - /ombry-test/xdma1_user"));
  dmaCard.SetTracing(true);
  EXPECT_EQ(BRYLDMADeviceRead(sub2.get(), sub2->userFile, 8), 0x000C0002u);
  EXPECT_TRUE(BRYLDMADeviceWrite(sub2.get(), sub2->userFile, 0x4C, 3));
  EXPECT_EQ(BRYLDMADeviceRead(sub2.get(), sub2->userFile, 0x4C), 3u);
  auto trace = dmaCard.TakeTrace();
  const uint64_t window = (2ull << 36) + (2ull << 17);
  ASSERT_EQ(Positions(Filter(trace, Node::C2H, false)), (std::vector<uint64_t>{window + 8, window + 0x4C}));
  EXPECT_EQ(Filter(trace, Node::C2H, false)[0].size, 4u);
  EXPECT_EQ(Positions(Filter(trace, Node::H2C, true)), std::vector<uint64_t>{window + 0x4C});
}

TEST(DmaDeviceTransfers, ChunksOfEightMebibytesAndDataRoundTrip) {
  Boards boards("xdma0");
  sim::Card &card = boards.Card("xdma0");
  auto device = boards.Open("xdma0");
  ASSERT_TRUE(device);
  card.SetTracing(true);

  std::vector<uint8_t> out(kDmaChunkBytes + 1);
  std::iota(out.begin(), out.end(), 7);
  std::vector<uint8_t> exact(kDmaChunkBytes);
  EXPECT_EQ(BRYLDMADeviceDmaRead(device.get(), 0, kDmaMemory, exact.data(), exact.size()), kDmaChunkBytes);
  EXPECT_EQ(card.TakeTrace().size(), 1u);

  EXPECT_EQ(BRYLDMADeviceDmaWrite(device.get(), 0, kDmaMemory, out.data(), out.size()), out.size());
  auto writes = Filter(card.TakeTrace(), Node::H2C, true);
  ASSERT_EQ(writes.size(), 2u);
  EXPECT_EQ(writes[0].size, kDmaChunkBytes);
  EXPECT_EQ(writes[1].position, kDmaMemory + kDmaChunkBytes);
  EXPECT_EQ(writes[1].size, 1u);

  std::vector<uint8_t> in(out.size());
  EXPECT_EQ(BRYLDMADeviceDmaRead(device.get(), 0, kDmaMemory, in.data(), in.size()), in.size());
  EXPECT_EQ(in, out);
}

TEST(DmaDeviceRegisters, FailingBoardReadsAsZeroAndOthersCarryOn) {
  Boards boards("xdma0 model=9 subdevices=1\nxdma1 model=7 bitstream=0x000C0004");
  auto primary = boards.Open("xdma0");
  auto sub = boards.Open("xdma0", 1);
  auto other = boards.Open("xdma1");
  ASSERT_TRUE(primary && sub && other);
  LogRecorder log;

  boards.Run("xdma0.1 read_fail=1");
  EXPECT_EQ(BRYLDMADeviceRead(sub.get(), sub->userFile, 8), 0u);
  EXPECT_TRUE(log.Has("DMA_DEVICE", "read control failed. 00020008", VLLogLevelInfo));
  EXPECT_EQ(BRYLDMADeviceRead(primary.get(), primary->userFile, 8), 0x000C0004u);

  boards.Run("xdma0 read_error=1");
  EXPECT_EQ(BRYLDMADeviceRead(primary.get(), primary->userFile, 0), 0u);
  EXPECT_TRUE(log.Has("DMA_FILE", "failed to Read from device: 5"));
  EXPECT_TRUE(log.Has("DMA_DEVICE", "read control failed. 00000000"));
  EXPECT_EQ(BRYLDMADeviceRead(other.get(), other->userFile, 8), 0x000C0004u);

  boards.Run("xdma0 faults=none");
  EXPECT_EQ(BRYLDMADeviceRead(primary.get(), primary->userFile, 8), 0x000C0004u);
}

// A failing read is told at once, then counted and told at most every 10 s,
// by the device and by its file alike. The steps below take milliseconds and
// start right after a second begins, so no second passes between them.
TEST(DmaDeviceRegisters, FailedReadsAreToldOnceAndThenAtMostEvery10Seconds) {
  Boards boards("xdma0 model=7");
  auto device = boards.Open("xdma0");
  ASSERT_TRUE(device);
  boards.Run("xdma0 read_error=1");
  LogRecorder log;
  for (uint64_t start = VLTimeSeconds(); VLTimeSeconds() == start;) std::this_thread::yield();
  auto failAfter = [&](int64_t secondsSinceTold) {
    if (secondsSinceTold >= 0) {
      device->failuresToldAt = device->userFile->failuresToldAt =
          static_cast<int64_t>(VLTimeSeconds()) - secondsSinceTold;
    }
    EXPECT_EQ(BRYLDMADeviceRead(device.get(), device->userFile, 8), 0u);
    return log.Count("failed");
  };
  EXPECT_EQ(failAfter(-1), 2u);  // the first failure
  EXPECT_TRUE(log.Has("DMA_DEVICE", "read control failed. 00000008"));
  EXPECT_EQ(failAfter(-1), 2u);
  EXPECT_EQ(failAfter(9), 2u);
  EXPECT_EQ(failAfter(10), 4u);
  EXPECT_TRUE(log.Has("DMA_DEVICE", "read control failed at 0x8, 3 times in the last 10 s"));
  EXPECT_TRUE(log.Has("DMA_FILE", "failed to Read from device: 5, 3 times in the last 10 s"));
  EXPECT_EQ(failAfter(-1), 4u);
}

}  // namespace
