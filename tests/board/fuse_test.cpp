// Real device nodes: the FUSE daemon serves simulated boards in a directory
// and the production file layer opens them as it would the driver's. Skips
// where FUSE cannot mount; the in-process tests cover the rest.
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "board/registers.h"
#include "board_fixture.h"
#include "support/process.h"

using board_test::Device;
using board_test::LogRecorder;
using testing_support::BuiltProgram;
using testing_support::PtyProcess;

namespace {

class FuseBoards {
 public:
  explicit FuseBoards(const std::vector<std::string> &boards) {
    char pattern[] = "/tmp/ombry-fuse-XXXXXX";
    dir_ = mkdtemp(pattern);
    std::vector<std::string> argv{BuiltProgram("bin/ombry-sim-fuse")};
    for (const std::string &board : boards) argv.insert(argv.end(), {"--board", board});
    argv.push_back(dir_);
    daemon_ = std::make_unique<PtyProcess>(argv);
    ready_ = daemon_->WaitFor("serving", std::chrono::seconds(20));
  }
  ~FuseBoards() {
    daemon_->Signal(SIGTERM);
    if (daemon_->Wait(std::chrono::seconds(20)) != 0) umount2(dir_.c_str(), MNT_DETACH);
    std::filesystem::remove(dir_);
  }
  bool Ready() const { return ready_; }
  std::string Output() const { return daemon_->Output(); }
  const std::string &Dir() const { return dir_; }
  void Command(const std::string &line) { std::ofstream(dir_ + "/ombry-sim") << line << "\n"; }

 private:
  std::string dir_;
  std::unique_ptr<PtyProcess> daemon_;
  bool ready_ = false;
};

TEST(FuseFrontEnd, ProductionFileLayerOnServedNodes) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "FUSE is not available here: no usable /dev/fuse";
  FuseBoards fuse({"xdma10 model=7 bitstream=0x000C0005", "xdma2 model=9 subdevices=1 dna=0000abcd,00001234,0",
                   "xdma2.1 bitstream=0x000C0001", "xdma3 model=2 modelbits=7 user=0"});
  if (!fuse.Ready()) {
    if (fuse.Output().find("FUSE cannot mount") != std::string::npos) {
      GTEST_SKIP() << "FUSE cannot mount here: " << fuse.Output();
    }
    FAIL() << "the FUSE daemon did not start: " << fuse.Output();
  }
  BRYLDMASetFileBackend(nullptr);
  setenv("OMBRY_DEVICE_DIR", fuse.Dir().c_str(), 1);
  auto devices = BRYLDMAGetDevices();
  unsetenv("OMBRY_DEVICE_DIR");
  ASSERT_TRUE(devices);
  ASSERT_EQ(*devices, (std::vector<std::string>{fuse.Dir() + "/xdma2", fuse.Dir() + "/xdma3", fuse.Dir() + "/xdma10"}));

  Device primary(BRYLDMADeviceOpen((*devices)[0], 0));
  Device sub(BRYLDMADeviceOpen((*devices)[0], 1));
  Device byDma(BRYLDMADeviceOpen((*devices)[1], 0));
  ASSERT_TRUE(primary && sub && byDma);
  EXPECT_STREQ(GetModelString(primary.get()), "JC35");
  EXPECT_STREQ(GetBoardDNA(primary.get(), true, ReadLayoutVersion(primary.get())), "0000abcd0000123400000000");
  EXPECT_EQ(BRYLDMADeviceRead(sub.get(), sub->userFile, kRegBitstream), 0x000C0001u);
  EXPECT_TRUE(byDma->useDmaForRegisters);
  EXPECT_EQ(ResolveBoardModel(byDma.get(), GetModelString(byDma.get())), 4u);

  // The clock through real nodes: busy polls and all.
  EXPECT_EQ(SetMmcmClockHz(primary.get(), 200000000, kRegMmcmBase, 150000000, 9, true), 150000000u);
  EXPECT_EQ(GetMmcmClockHz(primary.get(), 200000000, kRegMmcmBase), 150000000u);

  // Faults change while the daemon runs.
  LogRecorder log;
  fuse.Command("xdma2 read_error=1");
  EXPECT_EQ(BRYLDMADeviceRead(primary.get(), primary->userFile, kRegBitstream), 0u);
  EXPECT_TRUE(log.Has("DMA_FILE", "failed to Read from device: 5"));
  EXPECT_EQ(BRYLDMADeviceRead(sub.get(), sub->userFile, kRegBitstream), 0x000C0001u);
  fuse.Command("xdma2 faults=none");
  EXPECT_EQ(BRYLDMADeviceRead(primary.get(), primary->userFile, kRegBitstream), 0x000C0004u);
}

}  // namespace
