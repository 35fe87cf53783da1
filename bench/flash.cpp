// Reprogramming cost: erase and program a 1 MiB image (no blank pages, so
// every page is programmed) through the flash library, on a simulated board
//   InProcess  the simulator behind the board layer's seam, no system calls
//   Fuse       the same board served as device nodes by ombry-sim-fuse
// Counters: erase_s and program_s (wall time of each step) and
// accesses_per_byte (register reads and writes per image byte, counted at the
// board layer's file seam, so the same for both front ends).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "board/dma_device.h"
#include "flash/flash_device.h"
#include "flash/spi_flash.h"
#include "flash/xil_io.h"
#include "sim/in_process.h"

namespace {

constexpr uint64_t kImageBytes = 1 << 20;
constexpr const char *kBoard = "xdma0 model=7 flash_size=0x800000";

// Forwards to another backend and counts the register transfers.
class CountingBackend final : public BRYLDMAFileBackend {
 public:
  explicit CountingBackend(BRYLDMAFileBackend *inner) : inner_(inner) {}
  bool ListDirectory(const std::string &d, std::vector<std::string> *n, int *e) override {
    return inner_->ListDirectory(d, n, e);
  }
  int64_t Open(const std::string &p, BRYLDMAAccess a, int *e) override { return inner_->Open(p, a, e); }
  void Close(int64_t h) override { inner_->Close(h); }
  int64_t ReadAt(int64_t h, void *b, size_t s, uint64_t p, int *e) override {
    transfers++;
    return inner_->ReadAt(h, b, s, p, e);
  }
  int64_t WriteAt(int64_t h, const void *b, size_t s, uint64_t p, int *e) override {
    transfers++;
    return inner_->WriteAt(h, b, s, p, e);
  }
  bool Seek(int64_t h, uint64_t p, int *e) override { return inner_->Seek(h, p, e); }

  std::atomic<uint64_t> transfers{0};

 private:
  BRYLDMAFileBackend *inner_;
};

std::vector<uint8_t> Image() {
  std::mt19937 random(7);
  std::vector<uint8_t> image(kImageBytes);
  for (uint8_t &byte : image) byte = static_cast<uint8_t>(random() % 255);  // never a blank page
  return image;
}

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Erases and programs the image on the board at `path`, opened through
// whatever backend is installed (wrapped for counting), and fills the
// counters.
void FlashImage(benchmark::State &state, const std::string &path) {
  CountingBackend counting(BRYLDMACurrentFileBackend());
  BRYLDMAFileBackend *previous = BRYLDMASetFileBackend(&counting);
  BRYLDMADevice *device = BRYLDMADeviceOpen(path, 0);
  if (!device || !device->userFile) {
    BRYLDMASetFileBackend(previous);
    state.SkipWithError("cannot open the simulated board");
    return;
  }
  deviceFileToFlash = device->userFile;
  XSpi_Config config{};
  config.BaseAddress = kFlashControllerOffset;
  config.HasFifos = 1;
  config.NumSlaveBits = 1;
  config.DataWidth = 8;
  config.SpiMode = 2;
  config.AxiFullBaseAddress = kFlashControllerOffset;
  config.Use_Startup = 1;
  std::vector<uint8_t> image = Image();

  double erase = 0, program = 0;
  uint64_t transfers = 0;
  for (auto _ : state) {
    SPIFlash flash;
    flash.Init(config, 0);
    uint64_t before = counting.transfers;
    auto start = std::chrono::steady_clock::now();
    flash.Erase(0, image.size());
    erase += Seconds(start);
    start = std::chrono::steady_clock::now();
    flash.Write(0, image.data(), image.size());
    program += Seconds(start);
    transfers += counting.transfers - before;
  }
  double n = static_cast<double>(state.iterations());
  state.counters["erase_s"] = erase / n;
  state.counters["program_s"] = program / n;
  state.counters["accesses_per_byte"] = static_cast<double>(transfers) / n / static_cast<double>(image.size());
  BRYLDMADeviceClose(device);
  deviceFileToFlash = nullptr;
  BRYLDMASetFileBackend(previous);
}

void InProcess(benchmark::State &state) {
  sim::InProcessBoards boards("/ombry-bench-flash");
  std::string error;
  if (!boards.AddList(kBoard, &error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  boards.Install();
  FlashImage(state, boards.DevicePath("xdma0"));
}

std::string SimulatorPath() {
  std::error_code error;
  auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  return (self.parent_path().parent_path() / "sim" / "ombry-sim-fuse").string();
}

void Fuse(benchmark::State &state) {
  std::string daemon = SimulatorPath();
  if (access(daemon.c_str(), X_OK) != 0) {
    state.SkipWithError("ombry-sim-fuse is not built");
    return;
  }
  std::string mount = "/tmp/ombry-bench-flash-" + std::to_string(getpid());
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    execl(daemon.c_str(), daemon.c_str(), "--board", kBoard, mount.c_str(), nullptr);
    _exit(127);
  }
  // Mounted once the board's nodes are listed.
  bool mounted = false;
  for (int i = 0; i < 100 && !mounted; i++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    mounted = access((mount + "/xdma0_user").c_str(), F_OK) == 0;
    int status;
    if (waitpid(pid, &status, WNOHANG) == pid) break;
  }
  if (mounted) {
    FlashImage(state, mount + "/xdma0");
  } else {
    state.SkipWithError("FUSE cannot mount here");
  }
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
  std::filesystem::remove(mount);
}

// The flash flow prints a progress line per page; keep the report readable.
class QuietStdout {
 public:
  QuietStdout() {
    fflush(stdout);
    saved_ = dup(1);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
  }
  ~QuietStdout() {
    fflush(stdout);
    dup2(saved_, 1);
    close(saved_);
  }

 private:
  int saved_;
};

void BM_Flash1MiB_InProcess(benchmark::State &state) {
  QuietStdout quiet;
  InProcess(state);
}
void BM_Flash1MiB_Fuse(benchmark::State &state) {
  QuietStdout quiet;
  Fuse(state);
}

BENCHMARK(BM_Flash1MiB_InProcess)->Iterations(3)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_Flash1MiB_Fuse)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace
