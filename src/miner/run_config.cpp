#include "miner/run_config.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "foundation/logger.h"
#include "board/registers.h"
#include "miner/console_io.h"
#include "miner/worker.h"

namespace {

constexpr const char *kTag = "Miner";
constexpr uint64_t kForcedClockRangeMHz = 1000;
constexpr uint64_t kWideFamilyClockLimitHz = 350000000;
// Wide boards asked for more than they can take fall back to a clock they
// surely run, not to the limit itself.
constexpr uint64_t kWideFamilyFallbackHz = 250000000;

struct AlgorithmEntry {
  const char *name;
  uint32_t algorithm;
};
constexpr AlgorithmEntry kAlgorithms[] = {{"ckb", 0}};

const AlgorithmEntry *FindAlgorithm(const char *name) {
  for (const AlgorithmEntry &entry : kAlgorithms) {
    if (strcmp(entry.name, name) == 0) return &entry;
  }
  return nullptr;
}

// Position 6: decimal MHz, read as a signed int and then taken as unsigned,
// so "-1" wraps. The range message only informs; the value stands.
uint64_t ForcedClockHz(int argc, char **argv) {
  if (argc <= 6) return 0;
  auto mhz = static_cast<uint64_t>(static_cast<int64_t>(atoi(argv[6])));
  if (mhz >= kForcedClockRangeMHz) {
    VL_LOG(VLLogLevelInfo, kTag, "Forced clock %u MHz was out of range", static_cast<unsigned>(mhz));
  } else {
    VL_LOG(VLLogLevelInfo, kTag, "Forcing clock to %i MHz", static_cast<int>(mhz));
  }
  return mhz * 1000000;
}

}  // namespace

void SetupRun(MiningContext &context, int argc, char **argv) {
  uint64_t forcedClockHz = ForcedClockHz(argc, argv);

  for (size_t i = 0; i < context.workers.size(); i++) {
    Worker &worker = *context.workers[i];
    worker.id = i;
    worker.enabled = true;
    worker.targetClockHz = kDefaultClockHz;
    if (forcedClockHz != 0) {
      uint64_t clock = forcedClockHz;
      if (IsWideFamily(worker.model) && clock > kWideFamilyClockLimitHz) clock = kWideFamilyFallbackHz;
      worker.targetClockHz = clock;
    }
    if (worker.enabled) StartWorkerThread(context, i);
  }

  if (argc > 5) {
    const AlgorithmEntry *algorithm = FindAlgorithm(argv[1]);
    if (algorithm == nullptr) {
      LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag, "Algorithm '%s' is not known", argv[1]);
      exit(1);
    }
    context.algorithm = algorithm->algorithm;
    context.poolHost = argv[2];
    context.poolPort = static_cast<uint16_t>(atoi(argv[3]));
    context.account = argv[4];
    context.password = argv[5];
    VL_LOG(VLLogLevelInfo, kTag, "Stratum Config: stratum-tcp://%s:%i %s", context.poolHost,
           static_cast<int>(context.poolPort), context.account);
  }
}

void SaveConfiguration(MiningContext &) {}
