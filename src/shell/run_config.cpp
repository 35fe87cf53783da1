#include "shell/run_config.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>

#include "foundation/json.h"
#include "foundation/escape.h"
#include "foundation/logger.h"
#include "board/registers.h"
#include "foundation/console_io.h"
#include "rig/worker.h"
#include "stratum/failover.h"
#include "stratum/pool_endpoint.h"

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

bool IsNumber(const VLObject *value) { return VLObjectType(value) == VLTypeNumber; }
bool IsString(const VLObject *value) { return VLObjectType(value) == VLTypeString; }

// Texts merged from a stored document, kept for the whole run as the
// context holds plain pointers to them.
const char *KeepForRun(const char *text) {
  static std::deque<std::string> kept;
  return kept.emplace_back(text).c_str();
}

// The pin for `pool` among "HEX" and "HOST=HEX" entries: its host's own, else
// one for every host.
std::string PinFor(const PoolEndpoint &pool, const std::vector<std::string> &fingerprints) {
  std::string general;
  for (const std::string &entry : fingerprints) {
    size_t equals = entry.find('=');
    if (equals == std::string::npos) {
      general = entry;
    } else if (entry.compare(0, equals, pool.host) == 0 && equals == pool.host.size()) {
      return entry.substr(equals + 1);
    }
  }
  return general;
}

// The run's pools: the primary of the positional words, then the backups of
// --pool, whose login defaults to the primary's. The command line was checked
// before the run started, so the URLs read.
void SetupPools(MiningContext &context) {
  const RunOptions &options = context.options;
  std::string error;
  PoolEndpoint primary;
  primary.port = context.poolPort;
  primary.user = context.account;
  primary.password = context.password;
  if (LooksLikePoolUrl(context.poolHost)) {
    ParsePoolUrl(context.poolHost, primary, error);
  } else {
    primary.host = context.poolHost;
  }
  context.pools.push_back(primary);
  for (const std::string &url : options.backupPools) {
    PoolEndpoint backup;
    backup.user = primary.user;
    backup.password = primary.password;
    if (ParsePoolUrl(url, backup, error)) context.pools.push_back(backup);
  }
  for (PoolEndpoint &pool : context.pools) {
    if (!pool.tls) continue;
    pool.caFile = options.tlsCaFile;
    pool.pinnedSha256 = PinFor(pool, options.tlsFingerprints);
  }
  for (size_t i = 1; i < context.pools.size(); i++) {
    VL_LOG(VLLogLevelInfo, kTag, "Backup pool %zu: %s %s", i, VLEscapeControl(context.pools[i].Name()).c_str(),
           VLEscapeControl(context.pools[i].user).c_str());
  }
  context.failbackDelay = options.failbackDelaySeconds;
  context.primaryRetryInterval = options.primaryRetrySeconds;
  StratumUsePool(context, 0);
}

}  // namespace

void MergeStoredStratumSettings(MiningContext &context, const VLObject *stratum) {
  if (VLObjectType(stratum) != VLTypeDictionary) return;
  const VLObject *host = VLDictionaryGetByName(stratum, "host");
  if (IsString(host)) context.poolHost = KeepForRun(VLStringChars(host));
  const VLObject *port = VLDictionaryGetByName(stratum, "port");
  if (IsNumber(port)) context.poolPort = static_cast<uint16_t>(VLNumberGetInt64(port));
  const VLObject *wallet = VLDictionaryGetByName(stratum, "wallet");
  if (IsString(wallet)) context.account = KeepForRun(VLStringChars(wallet));
  const VLObject *password = VLDictionaryGetByName(stratum, "password");
  if (IsString(password)) context.password = KeepForRun(VLStringChars(password));
}

void SetupRun(MiningContext &context, int argc, char **argv) {
  uint64_t forcedClockHz = ForcedClockHz(argc, argv);
  context.link.silenceLimit = context.options.poolSilenceSeconds;
  context.link.shareLimit = context.options.shareTimeoutSeconds;
  StoredRunSettings stored;  // config.json is never read back

  for (size_t i = 0; i < context.workers.size(); i++) {
    Worker &worker = *context.workers[i];
    worker.id = i;
    worker.enabled = true;
    worker.targetClockHz = kDefaultClockHz;
    MergeStoredDeviceSettings(worker, stored.devices);
    if (forcedClockHz != 0) {
      uint64_t clock = forcedClockHz;
      if (IsWideFamily(worker.model) && clock > kWideFamilyClockLimitHz) clock = kWideFamilyFallbackHz;
      worker.targetClockHz = clock;
    }
    if (worker.enabled) StartWorkerThread(context, i);
  }
  MergeStoredStratumSettings(context, stored.stratum);

  if (argc > 5) {
    const AlgorithmEntry *algorithm = FindAlgorithm(argv[1]);
    if (algorithm == nullptr) {
      LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag, "Algorithm '%s' is not known",
                VLEscapeControl(argv[1]).c_str());
      // The workers have started; the process ends under them, as it always has.
      exit(1);  // NOLINT(concurrency-mt-unsafe)
    }
    context.algorithm = algorithm->algorithm;
    context.poolHost = argv[2];
    context.poolPort = static_cast<uint16_t>(atoi(argv[3]));
    context.account = argv[4];
    context.password = argv[5];
    SetupPools(context);
    VL_LOG(VLLogLevelInfo, kTag, "Stratum Config: %s://%s:%i %s", context.pools[0].tls ? "stratum-ssl" : "stratum-tcp",
           VLEscapeControl(context.poolHost).c_str(), static_cast<int>(context.poolPort),
           VLEscapeControl(context.account).c_str());
  }
}
