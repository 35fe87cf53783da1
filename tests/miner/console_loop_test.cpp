// The console loop on a real terminal, in a forked child: keys typed on the
// pseudo-terminal reach the loop, the table follows them, and the watchdog
// ends a loop that hangs.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "fake_workers.h"
#include "foundation/console.h"
#include "foundation/logger.h"
#include "foundation/vltime.h"
#include "miner/run_config.h"
#include "miner/status_console.h"
#include "miner/watchdog.h"
#include "stratum/session.h"
#include "support/process.h"

using miner_testing::AddWorkers;
using testing_support::PtyProcess;

namespace {

std::atomic<uint64_t> *g_passCounter = nullptr;

// Marks each table with the pass that prints it: the loop feeds the watchdog
// counter at the end of each pass, so during pass N it stands at N - 1.
void MarkTables(uint32_t, const char *, const char *message, void *) {
  if (strstr(message, "Id | Model |") != nullptr) {
    printf("[table at pass %llu]\n", static_cast<unsigned long long>(g_passCounter->load() + 1));
  }
}

// A log write that never returns, as a blocked terminal would do it.
void HangOnClockKeys(uint32_t, const char *, const char *message, void *) {
  if (strstr(message, "Increasing clocks") != nullptr) {
    for (;;) pause();
  }
}

// Two boardless workers, kept looking alive by a helper thread as a mining
// worker would, then the loop until 'q'. The workers' own threads wait for
// a first job that never comes, so the context is left to the end of the
// child process rather than destroyed under them.
int RunConsole(bool withWatchdog, VLLogCallback hook) {
  // The child inherits the test's stdout buffering, made for a pipe; a
  // terminal wants lines as they come, as the miner sets it up too.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  VLLogEnableConsole();
  VLConsoleBeginKeys();
  auto &context = *new MiningContext;
  AddWorkers(context, 2);
  auto &counter = *new std::atomic<uint64_t>(0);
  g_passCounter = &counter;
  std::thread watchdog;
  if (withWatchdog) watchdog = std::thread(WatchdogThread, &counter);
  char program[] = "miner";
  char *argv[] = {program, nullptr};
  SetupRun(context, 1, argv);
  std::thread([&context] {
    for (;;) {
      for (auto &worker : context.workers) worker->heartbeat.store(VLTimeSeconds());
      usleep(100000);
    }
  }).detach();
  VLLogSetCallback(hook, nullptr);
  printf("ready\n");
  fflush(stdout);
  MainLoop(context, counter);
  StratumShutdown(context);
  g_runState = RunStateFinished;
  if (watchdog.joinable()) watchdog.join();
  return 0;
}

// The pass numbers of the tables printed after `from` in `text`.
std::vector<unsigned long> TablesAfter(const std::string &text, size_t from) {
  static const std::string kMarker = "[table at pass ";
  std::vector<unsigned long> passes;
  for (size_t at = text.find(kMarker, from); at != std::string::npos; at = text.find(kMarker, at + 1)) {
    passes.push_back(std::stoul(text.substr(at + kMarker.size())));
  }
  return passes;
}

TEST(ConsoleLoopTest, TypedKeysSteerTheWorkersAndBringTheTableEarly) {
  PtyProcess child({}, {}, [] { return RunConsole(false, MarkTables); });
  ASSERT_TRUE(child.WaitFor("ready"));

  child.Type("2d+");
  ASSERT_TRUE(child.WaitFor("Worker 2: Offline (Disabled)"));
  ASSERT_TRUE(child.WaitFor("Total Hashrate"));
  std::string firstTable = child.Output();
  EXPECT_NE(firstTable.find("Commands targeting device 2"), std::string::npos);
  EXPECT_NE(firstTable.find("Disabling targeted device(s)"), std::string::npos);
  // Worker 1 was not targeted: its clock target is the default.
  EXPECT_NE(firstTable.find(" 1 |  1525 |"), std::string::npos);
  EXPECT_NE(firstTable.find("|    0 / 100  |"), std::string::npos) << firstTable;
  // '+' asked for a quick table: it comes at a multiple of 20 passes.
  auto quick = TablesAfter(firstTable, firstTable.find("Increasing clocks"));
  ASSERT_EQ(quick.size(), 1u) << firstTable;
  EXPECT_EQ(quick[0] % 20, 0u) << firstTable;

  size_t mark = child.Output().size();
  child.Type("e+");
  ASSERT_TRUE(child.WaitFor("I/Worker02     : Starting...", std::chrono::milliseconds(20000), mark));
  // The table after the '+' line: one in print when the keys came would be
  // cut in two at the mark.
  ASSERT_TRUE(child.WaitFor("Increasing clocks", std::chrono::milliseconds(20000), mark));
  size_t keyLine = child.Output().find("Increasing clocks", mark);
  ASSERT_TRUE(child.WaitFor("Total Hashrate", std::chrono::milliseconds(20000), keyLine));
  std::string rest = child.Output().substr(mark);
  EXPECT_NE(rest.find(" 2 |  1525 |"), std::string::npos) << rest;
  EXPECT_NE(rest.find("Enabling targeted device(s)"), std::string::npos);
  EXPECT_NE(rest.find("|    0 / 110  |"), std::string::npos) << rest;

  child.Type("q");
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_NE(child.Output().find("Quitting miner, shutting down devices..."), std::string::npos);
}

TEST(ConsoleLoopTest, WatchdogEndsAHungLoopWithCodeOne) {
  PtyProcess child({}, {}, [] { return RunConsole(true, HangOnClockKeys); });
  ASSERT_TRUE(child.WaitFor("ready"));
  child.Type("+");
  EXPECT_EQ(child.Wait(std::chrono::milliseconds(30000)), 1);
  const std::string &out = child.Output();
  EXPECT_NE(out.find("I/Watchdog     : Starting"), std::string::npos);
  size_t misses = 0;
  for (size_t at = out.find("Missed update"); at != std::string::npos; at = out.find("Missed update", at + 1)) {
    misses++;
  }
  EXPECT_EQ(misses, 5u) << out;
  EXPECT_NE(out.find("I/Watchdog     : Asking Windows to pull the plug"), std::string::npos);
  EXPECT_EQ(out.find("Aborting"), std::string::npos);
}

}  // namespace
