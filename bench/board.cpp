// The cost of one board register read, side by side: through the in-process
// simulator behind the device-file seam, and through real FUSE nodes served
// by the simulator daemon (a system call and a round trip to the daemon).
#include <benchmark/benchmark.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "board/dma_device.h"
#include "board/registers.h"
#include "sim/in_process.h"

namespace {

constexpr const char *kBoard = "xdma0 model=7";

void ReadLoop(benchmark::State &state, BRYLDMADevice *device) {
  uint32_t address = kRegBitstream;
  for (auto _ : state) benchmark::DoNotOptimize(BRYLDMADeviceRead(device, device->userFile, address));
  state.SetItemsProcessed(state.iterations());
}

void BM_RegisterReadInProcess(benchmark::State &state) {
  sim::InProcessBoards boards("/ombry-bench");
  std::string error;
  boards.AddList(kBoard, &error);
  boards.Install();
  BRYLDMADevice *device = BRYLDMADeviceOpen(boards.DevicePath("xdma0"), 0);
  if (!device) {
    state.SkipWithError("the simulated board did not open");
    return;
  }
  ReadLoop(state, device);
  BRYLDMADeviceClose(device);
}
BENCHMARK(BM_RegisterReadInProcess);

// The daemon sits beside this benchmark in the build tree.
std::string DaemonPath() {
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return {};
  std::string path(self, static_cast<size_t>(n));
  return path.substr(0, path.rfind('/')) + "/../sim/ombry-sim-fuse";
}

void BM_RegisterReadFuse(benchmark::State &state) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) {
    state.SkipWithError("FUSE is not available here: no usable /dev/fuse");
    return;
  }
  char pattern[] = "/tmp/ombry-bench-fuse-XXXXXX";
  std::string dir = mkdtemp(pattern);
  std::string daemon = DaemonPath();
  pid_t pid = fork();
  if (pid == 0) {
    freopen("/dev/null", "w", stdout);
    execl(daemon.c_str(), daemon.c_str(), "--board", kBoard, dir.c_str(), static_cast<char *>(nullptr));
    _exit(127);
  }
  struct stat st {};
  bool ready = false;
  for (int i = 0; i < 1000 && !ready; i++) {
    ready = stat((dir + "/xdma0_control").c_str(), &st) == 0;
    if (!ready) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (waitpid(pid, nullptr, WNOHANG) == pid) break;
  }
  BRYLDMAFileBackend *previous = BRYLDMASetFileBackend(nullptr);
  BRYLDMADevice *device = ready ? BRYLDMADeviceOpen(dir + "/xdma0", 0) : nullptr;
  if (device) {
    ReadLoop(state, device);
    BRYLDMADeviceClose(device);
  } else {
    state.SkipWithError("FUSE cannot mount here (the daemon did not serve its nodes)");
  }
  BRYLDMASetFileBackend(previous);
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
  rmdir(dir.c_str());
}
BENCHMARK(BM_RegisterReadFuse)->UseRealTime();

}  // namespace
