// The search behind each simulated hash core. While a core is released and
// its clock runs, the engine walks the core's counter: at each position every
// one of the board's cores hashes the 48-byte message made of the latched
// midstate and the latched nonce block, with its core number XORed into
// word 2 and the counter into word 3. A hash whose top 64 bits are at most
// the board target (0x80 high, 0x84 low) is reported through the result
// slots, as the counter value 43 positions on from the one hashed plus a
// small skew.
//
// The rate is what the machine gives, held below the clock (one position per
// cycle) and below the board's rate cap. Boards with `engine=own` get a
// thread each, those with `engine=shared` share one; all register state is
// touched only under the card's lock.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "sim/card.h"

namespace sim {

// The pipeline distance between the counter value hashed and the one reported.
constexpr uint32_t kReportDistance = 43;

// The largest skew either way that a board with `cores` cores shows when its
// board list leaves `skew` at its default.
int DefaultSkew(uint32_t cores);

class HashEngine {
 public:
  // `niceness` above 0 lowers the search threads' priority, so that a host
  // program in the same machine keeps its share of the processor.
  explicit HashEngine(int niceness = 0);
  ~HashEngine();
  HashEngine(const HashEngine &) = delete;
  HashEngine &operator=(const HashEngine &) = delete;

  // Takes on every FPGA of `card` whose search isn't off. Before Start() only;
  // the card must outlive the engine.
  void Add(Card &card);
  void Start();
  // Ends and joins every thread; a batch under way is finished first.
  void Stop();
  size_t ThreadCount() const { return runners_.size(); }

 private:
  struct Core {
    Card *card;
    uint32_t fpga;
    uint64_t salt;
    bool pacing = false;  // released and clocked at the last look
    double lastSeconds = 0.0;
    double budget = 0.0;  // counter positions the rate limits still allow
  };
  struct Runner {
    std::vector<Core> cores;
    std::thread thread;
  };
  class Batch;

  void Run(Runner *runner);
  bool Step(Core &core, Batch &batch);

  int niceness_;
  std::vector<std::unique_ptr<Runner>> runners_;
  Runner *shared_ = nullptr;
  std::mutex lock_;
  std::condition_variable wake_;
  bool stopping_ = false;
  bool started_ = false;
};

}  // namespace sim
