#include "sim/hash_engine.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>

#include "sim/blocks.h"
#include "sim/eaglesong.h"
#include "sim/fpga.h"

namespace sim {

namespace {

// The core number fills the low six bits of nonce word 2.
constexpr uint32_t kMaxCores = 64;
// Hashes per batch: short enough that a hold or a stop is seen within a few
// milliseconds, long enough that the card's lock is a small cost.
constexpr uint64_t kBatchHashes = 4096;
// How long a runner with nothing to do sleeps before it looks again.
constexpr auto kIdleWait = std::chrono::milliseconds(1);
// A capped core may save up this much time's worth of positions, no more.
constexpr double kBurstSeconds = 0.05;
// A value counts as invalid when none of its readings hashes within
// difficulty one: the top 32 bits of the hash at most 0xFFFF.
constexpr uint32_t kDifficultyOneTop = 0x0000FFFF;
constexpr int kInvalidAttempts = 16;

uint64_t Mix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

double UnitInterval(uint64_t random) { return static_cast<double>(random >> 11) * 0x1.0p-53; }

// One load of a core as the search sees it, copied under the card's lock.
struct Job {
  uint64_t epoch = 0;
  uint64_t position = 0;
  uint32_t midstate[16] = {};
  uint32_t nonce[4] = {};
  uint32_t bound[8] = {};
  uint32_t cores = 0;
  int skew = 0;
  double invalidShare = 0.0;
  bool ones = false;
  double positionsPerSecond = 0.0;
};

// Copies the core's job when it should run now: released, clocked, with
// cores and a search.
bool TakeJob(Fpga *fpga, Job *job) {
  HashCoreBlock *core = fpga ? fpga->HashCore() : nullptr;
  if (!core || core->Held()) return false;
  const FpgaSetup &setup = fpga->Setup();
  double hz = fpga->HashClockHz();
  if (!(hz > 0.0) || setup.cores == 0 || setup.search.engine == SearchEngine::Off) return false;
  job->epoch = core->Epoch();
  job->position = core->Position();
  for (uint32_t i = 0; i < 16; i++) job->midstate[i] = core->Latched(HashCoreBlock::kMidstate + 4 * i);
  for (uint32_t i = 0; i < 4; i++) job->nonce[i] = core->Latched(HashCoreBlock::kNonceBlock + 4 * i);
  // The target as a 256-bit bound: its 64 bits on top, all ones below, so
  // that the top 64 bits of a hash decide.
  std::fill(job->bound, job->bound + 6, 0xFFFFFFFFu);
  job->bound[6] = core->Latched(HashCoreBlock::kTargetLow);
  job->bound[7] = core->Latched(HashCoreBlock::kTargetHigh);
  job->cores = std::min(setup.cores, kMaxCores);
  job->skew = setup.search.skew >= 0 ? setup.search.skew : DefaultSkew(job->cores);
  job->invalidShare = setup.faults.invalidNonces;
  // Above its highest good clock a board errs: a share of its reports that
  // rises to all of them one percent above the limit.
  double limit = fpga->MaxGoodClockHz();
  if (hz > limit) job->invalidShare = std::max(job->invalidShare, std::min(1.0, (hz - limit) / (0.01 * limit)));
  job->ones = setup.faults.onesNonces;
  // One position per clock cycle at most, and the cap shared by the cores.
  job->positionsPerSecond = hz;
  if (setup.search.rateCapMHs > 0.0) {
    job->positionsPerSecond = std::min(hz, setup.search.rateCapMHs * 1e6 / job->cores);
  }
  return true;
}

}  // namespace

int DefaultSkew(uint32_t cores) { return cores >= 2 ? static_cast<int>((cores - 2) / 2) : 0; }

// The computation of one batch, outside any lock, with its own buffers.
class HashEngine::Batch {
 public:
  // The values to report for `positions` counter positions from the job's.
  const std::vector<uint32_t> &Run(const Job &job, uint64_t positions, uint64_t salt) {
    reports_.clear();
    size_t count = static_cast<size_t>(positions) * job.cores;
    tails_.resize(count);
    for (uint64_t p = 0; p < positions; p++) {
      uint32_t counter = static_cast<uint32_t>(job.position + p);
      for (uint32_t c = 0; c < job.cores; c++) tails_[p * job.cores + c] = {job.nonce[2] ^ c, job.nonce[3] ^ counter};
    }
    for (size_t from = 0; from < count;) {
      size_t hit = from + SearchMidstate(job.midstate, job.nonce[0], job.nonce[1], tails_.data() + from, count - from,
                                         job.bound);
      if (hit >= count) break;
      uint64_t position = job.position + hit / job.cores;
      uint64_t random = Mix(salt ^ Mix(position * kMaxCores + hit % job.cores));
      reports_.push_back(ReportedValue(job, position, random));
      from = hit + 1;
    }
    return reports_;
  }

 private:
  uint32_t ReportedValue(const Job &job, uint64_t position, uint64_t random) {
    int span = 2 * job.skew + 1;
    int skew = static_cast<int>(random % static_cast<uint64_t>(span)) - job.skew;
    uint32_t value = static_cast<uint32_t>(position) + kReportDistance + static_cast<uint32_t>(skew);
    if (job.ones) return 0xFFFFFFFFu;
    if (job.invalidShare > 0.0 && UnitInterval(Mix(random)) < job.invalidShare) {
      return InvalidValue(job, value ^ static_cast<uint32_t>(random >> 32));
    }
    return value;
  }

  // A value that no core number from 0 to 63 and no skew the board could
  // have makes valid: every such reading hashes above difficulty one. An
  // easy enough draw is redrawn; after a few the last draw stands.
  uint32_t InvalidValue(const Job &job, uint32_t value) {
    int window = std::max(job.skew, static_cast<int>(job.cores / 2)) + 1;
    uint32_t bound[8];
    std::fill(bound, bound + 8, 0xFFFFFFFFu);
    bound[7] = kDifficultyOneTop;
    std::vector<NonceTail> &tails = invalidTails_;
    for (int attempt = 0; attempt < kInvalidAttempts; attempt++) {
      tails.clear();
      for (int d = -window; d <= window; d++) {
        uint32_t counter = value + static_cast<uint32_t>(d) - kReportDistance;
        for (uint32_t c = 0; c < kMaxCores; c++) tails.push_back({job.nonce[2] ^ c, job.nonce[3] ^ counter});
      }
      if (SearchMidstate(job.midstate, job.nonce[0], job.nonce[1], tails.data(), tails.size(), bound) == tails.size()) {
        break;
      }
      value = static_cast<uint32_t>(Mix(value));
    }
    return value;
  }

  std::vector<NonceTail> tails_;
  std::vector<NonceTail> invalidTails_;
  std::vector<uint32_t> reports_;
};

HashEngine::HashEngine(int niceness) : niceness_(niceness) {}

HashEngine::~HashEngine() { Stop(); }

void HashEngine::Add(Card &card) {
  if (started_) return;
  for (uint32_t index = 0; index < kMaxFpgas; index++) {
    SearchEngine mode = card.WithFpga(
        index, [](Fpga *fpga) { return fpga && fpga->HashCore() ? fpga->Setup().search.engine : SearchEngine::Off; });
    if (mode == SearchEngine::Off) continue;
    uint64_t salt = Mix(reinterpret_cast<uintptr_t>(&card) ^ index);
    Core core{&card, index, salt};
    if (mode == SearchEngine::Shared) {
      if (!shared_) shared_ = runners_.emplace_back(std::make_unique<Runner>()).get();
      shared_->cores.push_back(core);
    } else {
      runners_.emplace_back(std::make_unique<Runner>())->cores.push_back(core);
    }
  }
}

void HashEngine::Start() {
  std::lock_guard<std::mutex> guard(lock_);
  if (started_) return;
  started_ = true;
  stopping_ = false;
  for (auto &runner : runners_) runner->thread = std::thread(&HashEngine::Run, this, runner.get());
}

void HashEngine::Stop() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (!started_) return;
    stopping_ = true;
  }
  wake_.notify_all();
  for (auto &runner : runners_) {
    if (runner->thread.joinable()) runner->thread.join();
  }
  std::lock_guard<std::mutex> guard(lock_);
  started_ = false;
}

void HashEngine::Run(Runner *runner) {
  pthread_setname_np(pthread_self(), runner == shared_ ? "sim-hash-all" : "sim-hash");
  if (niceness_ > 0) setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), niceness_);
  Batch batch;
  std::unique_lock<std::mutex> lock(lock_);
  while (!stopping_) {
    lock.unlock();
    bool worked = false;
    for (Core &core : runner->cores) worked |= Step(core, batch);
    lock.lock();
    if (!worked) wake_.wait_for(lock, kIdleWait, [this] { return stopping_; });
  }
}

bool HashEngine::Step(Core &core, Batch &batch) {
  Job job;
  if (!core.card->WithFpga(core.fpga, [&job](Fpga *fpga) { return TakeJob(fpga, &job); })) {
    core.pacing = false;
    return false;
  }
  double now = SteadySeconds();
  uint64_t batchPositions = std::max<uint64_t>(1, kBatchHashes / job.cores);
  if (!core.pacing) {
    core.pacing = true;
    core.budget = 0.0;
  } else {
    core.budget += (now - core.lastSeconds) * job.positionsPerSecond;
  }
  core.lastSeconds = now;
  core.budget =
      std::min(core.budget, std::max(static_cast<double>(batchPositions), job.positionsPerSecond * kBurstSeconds));
  uint64_t positions = std::min<uint64_t>(batchPositions, static_cast<uint64_t>(std::floor(core.budget)));
  if (positions == 0) return false;
  core.budget -= static_cast<double>(positions);

  const std::vector<uint32_t> &reports = batch.Run(job, positions, core.salt ^ Mix(job.epoch));

  core.card->WithFpga(core.fpga, [&](Fpga *fpga) {
    HashCoreBlock *hashCore = fpga->HashCore();
    // A hold or a new load while the batch ran makes its results stale; a
    // clock stopped meanwhile would have stopped the cores partway, and
    // nothing says how far, so none of it counts.
    if (hashCore->Epoch() != job.epoch || !(fpga->HashClockHz() > 0.0)) return;
    hashCore->Advance(positions, positions * job.cores);
    for (uint32_t value : reports) hashCore->Report(value);
  });
  return true;
}

}  // namespace sim
