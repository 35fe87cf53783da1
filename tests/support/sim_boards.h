// Running the unmodified miner against in-process simulated boards: a board
// list in a temporary file, and the environment that points the miner at it.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/process.h"

namespace miner_testing {

inline std::string SimMiner() { return testing_support::BuiltProgram("bin/ombry-sim-miner"); }

// A scratch directory for one run, removed again at the end of the test.
class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ombry-run-XXXXXX").string();
    if (mkdtemp(pattern.data())) path_ = pattern;
  }
  ~ScratchDir() { std::filesystem::remove_all(path_); }
  ScratchDir(const ScratchDir &) = delete;
  ScratchDir &operator=(const ScratchDir &) = delete;
  const std::filesystem::path &Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// A board list (sim/README.md) written for one run.
class SimBoardList {
 public:
  explicit SimBoardList(const std::string &boards) {
    std::ofstream(dir_.Path() / "boards.txt") << boards;
    // Runs in the work directory find the checkout's image tree there.
    if (const char *source = getenv("OMBRY_SOURCE_DIR")) {
      std::filesystem::create_directory_symlink(std::filesystem::path(source) / "bitstreams",
                                                dir_.Path() / "bitstreams");
    }
  }
  std::vector<std::string> Env() const {
    // The simulated boards appear in /sim, so device paths are known.
    return {"OMBRY_SIM_BOARDS=" + (dir_.Path() / "boards.txt").string(), "OMBRY_DEVICE_DIR=/sim"};
  }
  // A working directory for the run, for files the miner writes.
  const std::filesystem::path &WorkDir() const { return dir_.Path(); }

 private:
  ScratchDir dir_;
};

}  // namespace miner_testing
