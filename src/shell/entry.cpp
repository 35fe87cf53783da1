#include "shell/entry.h"

#include <cerrno>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "foundation/compat.h"
#include "foundation/console.h"
#include "foundation/escape.h"
#include "foundation/logger.h"
#include "hash/eaglesong_lanes.h"
#include "shell/command_line.h"
#include "foundation/console_io.h"
#include "foundation/text.h"
#include "flash/flash_catalogue.h"
#include "rig/monitoring.h"
#include "shell/run_config.h"
#include "rig/run_records.h"
#include "rig/scan.h"
#include "console/status_console.h"
#include "rig/watchdog.h"
#include "stratum/session.h"

namespace {

// The run's records when worker threads outlive MinerMain; reachable, so no
// leak is reported for them.
MiningContext *g_abandonedContext = nullptr;

constexpr const char *kTag = "Miner";
constexpr int kStopBudgetMs = 15000;
constexpr int kStopPollMs = 50;

enum class RunMode { Mining, Recovery, Dump, MissingParameters };

RunMode DecideMode(int argc, char **argv) {
  // With six or more entries the mode words have no power: position 1 is an
  // algorithm name then, and the run configuration refuses them.
  if (argc >= 6) return RunMode::Mining;
  if (argc > 1 && strcmp(argv[1], "recovery") == 0) return RunMode::Recovery;
  if (argc > 1 && strcmp(argv[1], "dump") == 0) return RunMode::Dump;
  return RunMode::MissingParameters;
}

bool AnyWorkerActive(const MiningContext &context) {
  for (const auto &worker : context.workers) {
    if (worker->active.LoadAcquire()) return true;
  }
  return false;
}

// Waits a bounded time for every worker to ramp its board down and stop,
// keeping the watchdog fed as MainLoop no longer does.
void WaitForWorkersToStop(MiningContext &context, std::atomic<uint64_t> &watchdogCounter) {
  auto start = std::chrono::steady_clock::now();
  for (;;) {
    auto elapsed = std::chrono::steady_clock::now() - start;
    if (elapsed >= std::chrono::milliseconds(kStopBudgetMs)) {
      VL_LOG(VLLogLevelError, kTag, "Waiting for workers to stop timed out");
      return;
    }
    if (!AnyWorkerActive(context)) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(kStopPollMs));
    watchdogCounter++;
  }
}

}  // namespace

void SystemInit() {
  VLLogEnableConsole();
  // Lines reach a pipe or log file as they are written, not when a block fills.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  if (!VLConsoleSetCtrlHandler(ConsoleCtrlHandler)) {
    LOG_COLOR(ConsoleColorRed, VLLogLevelInfo, kTag, "Failed to set console control handler!");
  }
  srand(static_cast<unsigned>(time(nullptr)));
  setlocale(LC_ALL, "");  // NOLINT(concurrency-mt-unsafe): before any other thread starts
}

bool ConsoleCtrlHandler(uint32_t event) {
  switch (event) {
    case VLConsoleEventInterrupt:
    case VLConsoleEventBreak:
    case VLConsoleEventClose:
    case VLConsoleEventLogoff:
    case VLConsoleEventShutdown:
      g_runState = RunStateStopping;
      while (g_runState != RunStateFinished) std::this_thread::sleep_for(std::chrono::milliseconds(25));
      return true;
    default: return false;
  }
}

int MinerMain(int argc, char **argv) {
  CommandLine commandLine;
  std::string commandLineError;
  bool commandLineRead = ParseCommandLine(argc, argv, commandLine, commandLineError);
  if (commandLineRead && commandLine.showHelp) {
    PrintUsage(stdout);
    return 0;
  }
  if (commandLineRead && commandLine.showVersion) {
    PrintVersion(stdout);
    return 0;
  }

  SystemInit();
  if (!commandLineRead) {
    LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag, "%s", VLEscapeControl(commandLineError).c_str());
    return 1;
  }
  // From here on the run sees the positional words alone, as it always has.
  std::vector<char *> positional;
  for (std::string &word : commandLine.positional) positional.push_back(word.data());
  positional.push_back(nullptr);
  argc = static_cast<int>(commandLine.positional.size());
  argv = positional.data();

  // Kept for the whole run; left inactive, so the system may sleep as usual.
  std::unique_ptr<VLSystemSleepManager, void (*)(VLSystemSleepManager *)> sleepManager(VLSleepManagerCreate(),
                                                                                       VLSleepManagerDestroy);
  VLSleepManagerSetMode(sleepManager.get(), 1);
  VLSleepManagerSetDisabled(sleepManager.get(), false);

  RunMode mode = DecideMode(argc, argv);
  if (mode == RunMode::Dump) return 0;
  if (mode == RunMode::MissingParameters) {
    LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag,
              "Not enough parameters. Please check the provided example file (start.bat / start.sh).");
    return 1;
  }
  bool recovery = mode == RunMode::Recovery;

  VLLogInit(commandLine.options.verbose ? VLLogLevelVerbose : VLLogLevelInfo);
  if (!commandLine.options.logFile.empty() && !VLLogOpenFile(commandLine.options.logFile.c_str())) {
    LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag, "Cannot open the log file %s: %s",
              VLEscapeControl(commandLine.options.logFile).c_str(), VLErrorText(errno).c_str());
    return 1;
  }
  VL_LOG(VLLogLevelInfo, kTag, "Starting miner");
  VL_LOG(VLLogLevelInfo, kTag, "Eaglesong search: %s",
         EaglesongLanePathName(EaglesongLanePathResolve(EaglesongLanePath::Auto)));
  VLConsoleBeginKeys();
  if (!VLConsoleHasKeys()) VL_LOG(VLLogLevelInfo, kTag, "Standard input is not a terminal: keys are off");

  // On the heap so that it can outlive this function: see the end of the run.
  auto ownedContext = std::make_unique<MiningContext>();
  MiningContext &context = *ownedContext;
  context.options = commandLine.options;
  std::string whitelist;
  if (argc > 7) whitelist = argv[7];

  try {
    if (!LoadFlashCatalogue(context.flashCatalogue)) return 1;
  } catch (const std::filesystem::filesystem_error &error) {
    // A model's folder is missing: the run ends, with the reason, not a crash.
    LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag, "%s", error.what());
    return 1;
  }
  ScanDevices(context, recovery, whitelist);

  // A recovery run ends here, and so does a run stopped during the scan.
  if (recovery || g_runState != RunStateRunning) {
    LOG_COLOR(ConsoleColorGreen, VLLogLevelError, kTag, "Exiting");
    g_runState = RunStateFinished;
    return 0;
  }
  if (context.workers.empty()) {
    LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag, "No device is ready for mining, exiting");
    return 1;
  }
  for (size_t i = 0; i < context.workers.size(); i++) {
    VL_LOG(VLLogLevelError, kTag, "Device %llu: Assigned to worker %llu",
           static_cast<unsigned long long>(context.workers[i]->deviceIndex + 1),
           static_cast<unsigned long long>(i + 1));
  }
  LOG_COLOR(ConsoleColorGreen, VLLogLevelInfo, kTag, "%llu devices are ready for mining",
            static_cast<unsigned long long>(context.workers.size()));

  std::atomic<uint64_t> watchdogCounter{0};
  std::thread watchdog(WatchdogThread, &watchdogCounter);

  SetupRun(context, argc, argv);

  SetConsoleColor(ConsoleColorBlue);
  VL_LOG(VLLogLevelInfo, kTag, "Starting Stratum Connection to %s on port %i",
         VLEscapeControl(context.poolHost).c_str(), static_cast<int>(context.poolPort));
  VL_LOG(VLLogLevelInfo, kTag, "Using Account: %s", VLEscapeControl(context.account).c_str());
  SetConsoleColor(ConsoleColorNormal);

  RunMonitoring monitoring(context);
  monitoring.Start();
  StratumSetState(context, Idle);
  VLServiceNotifyReady();
  MainLoop(context, watchdogCounter, [&monitoring] { monitoring.Pass(); });
  VLServiceNotifyStopping();

  for (auto &worker : context.workers) worker->enabled = false;
  WaitForWorkersToStop(context, watchdogCounter);
  StratumShutdown(context);

  LOG_COLOR(ConsoleColorGreen, VLLogLevelError, kTag, "Exiting");
  g_runState = RunStateFinished;
  watchdog.join();
  if (context.workerThreads.load(std::memory_order_acquire) != 0) {
    // A worker thread still runs: it never got a job, or didn't stop in time.
    // Its records stay until the process ends rather than go from under it.
    g_abandonedContext = ownedContext.release();
  }
  return 0;
}
