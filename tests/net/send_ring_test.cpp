#include "net/send_ring.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <vector>

#include "loopback_peer.h"
#include "net/descriptor_list.h"

namespace {

class SendRingTest : public ::testing::Test {
 protected:
  void TearDown() override { TRPSendRingFree(&ring); }
  TRPSendRing ring;
};

TEST_F(SendRingTest, FirstAllocationFollowsTheLengthOfTheFirstSend) {
  ASSERT_TRUE(TRPSendRingReserve(&ring, 10));
  EXPECT_EQ(ring.sendCapacity, 32768u);
  TRPSendRingFree(&ring);
  ASSERT_TRUE(TRPSendRingReserve(&ring, 32768));
  EXPECT_EQ(ring.sendCapacity, 32768u);
  TRPSendRingFree(&ring);
  ASSERT_TRUE(TRPSendRingReserve(&ring, 32769));
  EXPECT_EQ(ring.sendCapacity, 32769u + 32768u);
}

TEST_F(SendRingTest, HardMaximumAppliesDifferentlyToFirstAllocationAndGrowth) {
  net_test::LogLines log;
  EXPECT_FALSE(TRPSendRingReserve(&ring, 41943041));
  EXPECT_EQ(ring.sendBuffer, nullptr);
  EXPECT_TRUE(log.Contains(
      "Failed to expand existing buffer of size 0 to at least size 41943041 (Would exceed hardmax of 41943040)"));

  // Exactly the maximum passes as a first allocation...
  ASSERT_TRUE(TRPSendRingReserve(&ring, 41943040));
  EXPECT_EQ(ring.sendCapacity, 41943040u + 32768u);
  TRPSendRingFree(&ring);

  // ...and is refused as growth, leaving what is queued untouched.
  ASSERT_TRUE(TRPSendRingReserve(&ring, 5));
  TRPSendRingPut(&ring, "abcde", 5);
  EXPECT_FALSE(TRPSendRingReserve(&ring, 41943040));
  EXPECT_TRUE(log.Contains(
      "Failed to expand existing buffer of size 32768 to at least size 41943045 (Would exceed hardmax of 41943040)"));
  EXPECT_EQ(ring.sendCapacity, 32768u);
  char out[8];
  ASSERT_EQ(TRPSendRingPeek(&ring, out, sizeof out), 5u);
  EXPECT_EQ(std::string(out, 5), "abcde");
}

TEST_F(SendRingTest, GrowthKeepsWrappedBytesInOrder) {
  // Random puts and sends against a plain queue: every byte that comes out of
  // the ring must be the next one that went in, through wraps and growth.
  std::mt19937 random(7);
  std::deque<uint8_t> model;
  uint8_t next = 0;
  std::vector<uint8_t> chunk(70000);
  for (int round = 0; round < 3000; round++) {
    uint64_t length = random() % (round % 50 == 0 ? 60000 : 9000);
    std::vector<uint8_t> bytes(length);
    for (uint8_t &byte : bytes) byte = next++;
    if (TRPSendRingReserve(&ring, length)) {
      TRPSendRingPut(&ring, bytes.data(), length);
      model.insert(model.end(), bytes.begin(), bytes.end());
    } else {
      next = static_cast<uint8_t>(next - length);
    }
    ASSERT_EQ(ring.sendUsed, model.size());
    uint64_t limit = random() % 12000;
    uint64_t count = TRPSendRingPeek(&ring, chunk.data(), limit);
    ASSERT_LE(count, limit);
    uint64_t sent = random() % 3 == 0 ? random() % (count + 1) : count;
    for (uint64_t i = 0; i < sent; i++) {
      ASSERT_EQ(chunk[i], model.front()) << "round " << round;
      model.pop_front();
    }
    TRPSendRingConsume(&ring, sent);
  }
  EXPECT_GT(ring.sendCapacity, 32768u);
}

TEST(DescriptorListTest, HoldsSixtyFourDistinctDescriptorsAndTracksBounds) {
  TRPDescriptorList list;
  for (int fd = 100; fd < 164; fd++) EXPECT_TRUE(TRPDescriptorListAdd(&list, fd));
  EXPECT_FALSE(TRPDescriptorListAdd(&list, 200));
  EXPECT_FALSE(TRPDescriptorListContains(&list, 200));
  EXPECT_EQ(list.lowest, 100);
  EXPECT_EQ(list.highest, 163);
  EXPECT_TRUE(TRPDescriptorListRemove(&list, 100));
  EXPECT_TRUE(TRPDescriptorListRemove(&list, 163));
  EXPECT_EQ(list.lowest, 101);
  EXPECT_EQ(list.highest, 162);
  EXPECT_FALSE(TRPDescriptorListAdd(&list, 101));  // already listed
  EXPECT_FALSE(TRPDescriptorListAdd(&list, FD_SETSIZE));
  EXPECT_TRUE(TRPDescriptorListAdd(&list, 5));
  EXPECT_EQ(list.lowest, 5);
}

}  // namespace
