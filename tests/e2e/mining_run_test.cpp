// Whole runs of the miner: shares the pool accepts, boards that run hot, sag,
// fall off the bus or hang, the operator's keys, and signals. Every wait is a
// hang guard; what is asserted is what the operator saw and the pool got.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <deque>
#include <fstream>
#include <sstream>

#include "e2e/miner_run.h"

namespace e2e {
namespace {

constexpr const char *kTwoBoards = "xdma0 model=7\nxdma1 model=2\n";
// Low enough for a share every second or so per board at the simulator's speed.
const std::vector<std::string> kEasyPool = {"--difficulty", "0.0005", "--notify-interval", "2"};

std::string ReadFile(const std::filesystem::path &path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(MiningRun, SharesAreAcceptedOnEveryJobAndBothSidesCountThemAlike) {
  MinerRun run(kTwoBoards, kEasyPool);
  ASSERT_TRUE(run.Start());
  ASSERT_TRUE(run.Until([&] { return run.Pool("accepted") >= 6 && run.SubmittedJobs().size() >= 2; }))
      << run.Output();

  // Searches all but stop; once the answers in flight are in, the table and
  // the pool agree.
  ASSERT_TRUE(run.Command("xdma0 ratecap=0.000001"));
  ASSERT_TRUE(run.Command("xdma1 ratecap=0.000001"));
  EXPECT_TRUE(run.Until([&] {
    uint64_t accepted = run.Pool("accepted");
    return run.Count("Share Accepted!") == accepted && run.TableAccepted(2) == accepted;
  })) << "pool " << run.Pool("accepted") << ", table " << run.TableAccepted(2);

  run.Child().Type("q");
  EXPECT_EQ(run.Child().Wait(), 0);
  EXPECT_EQ(run.PoolRejectedNotStale(), 0u) << run.PoolProcess().Stats();
  EXPECT_EQ(run.Count("Share was rejected"), run.Pool("rejected"));
  EXPECT_EQ(run.Pool("submits"), run.Pool("accepted") + run.Pool("rejected"));
  EXPECT_EQ(run.Count("share was invalid"), 0u);
  EXPECT_GE(run.Count("Worker 1 - YAY"), 1u);
  EXPECT_GE(run.Count("Worker 2 - YAY"), 1u);
  EXPECT_EQ(run.Count("I/Worker01     : Stopped"), 1u);
  EXPECT_EQ(run.Count("I/Worker02     : Stopped"), 1u);
}

TEST(MiningRun, HotOrSaggingBoardsThrottleAndRecover) {
  MinerRun run("xdma0 model=7\nxdma1 model=7\nxdma2 model=7\n", {"--difficulty", "1"});
  ASSERT_TRUE(run.Start());
  ASSERT_TRUE(run.Until([&] { return run.LastClock(1).first == 100 && run.LastClock(3).first == 100; }));

  ASSERT_TRUE(run.Command("xdma0 hot=95"));
  ASSERT_TRUE(run.Command("xdma1 sag=0.4"));  // 0.45 V, under the narrow limit
  ASSERT_TRUE(run.Until([&] { return run.Count("I/Worker01     : Warning: Cooking condition detected!") > 0; }));
  ASSERT_TRUE(run.Until([&] {
    auto hot = run.LastClock(1), sagging = run.LastClock(2);
    return hot.first >= 0 && hot.first < 100 && sagging.first >= 0 && sagging.first < 100;
  })) << run.Output();
  EXPECT_EQ(run.LastClock(1).second, 100) << "throttling leaves the target alone";
  EXPECT_EQ(run.LastClock(3).first, 100) << "a healthy board keeps its clock";

  ASSERT_TRUE(run.Command("xdma0 hot=off"));
  ASSERT_TRUE(run.Command("xdma1 sag=0"));
  size_t cooled = run.Output().size();
  EXPECT_TRUE(run.Until([&] { return run.LastClock(1, cooled).first == 100 && run.LastClock(2, cooled).first == 100; }))
      << run.Output().substr(cooled);

  run.Child().Type("q");
  EXPECT_EQ(run.Child().Wait(), 0);
}

// A board off the bus reports all-ones nonces and is disabled after four of
// them; one whose reads come back empty reports nothing and reads 0 V, so it
// is throttled as a cooking board instead, and stays enabled.
TEST(MiningRun, BoardOffTheBusIsDisabledAndOneWithFailingReadsThrottlesWhileTheOtherMinesOn) {
  MinerRun run("xdma0 model=7 ratecap=3\nxdma1 model=7 ratecap=3\nxdma2 model=7 ratecap=3\n", kEasyPool);
  ASSERT_TRUE(run.Start());
  // Both boards mine at their clock before the faults: a fault during the
  // clock bring-up would hang its worker in the wait for the clock instead.
  ASSERT_TRUE(run.Until([&] {
    return run.Count("Worker 2 - YAY") >= 1 && run.Count("Worker 3 - YAY") >= 1 && run.LastClock(2).first == 100 &&
           run.LastClock(3).first == 100;
  })) << run.Output();

  ASSERT_TRUE(run.Command("xdma1 all_ones=1"));
  ASSERT_TRUE(run.Command("xdma2 read_fail=1"));
  size_t faulted = run.Output().size();
  ASSERT_TRUE(run.Until([&] { return run.Count("Worker 2 has crashed, disabling...") == 1; })) << run.Output();
  size_t crashed = run.Output().find("Worker 2 has crashed");
  EXPECT_GE(run.Count("Worker 2 - share was invalid with nonce ffffffff", faulted), 4u);
  EXPECT_TRUE(run.Until([&] { return run.Count("Worker 2: Offline (Disabled)", crashed) > 0; }));

  EXPECT_TRUE(run.Until([&] { return run.Count("I/Worker03     : Warning: Cooking condition detected!", faulted) > 0; }));
  EXPECT_GT(run.Count("read control failed", faulted), 0u);
  EXPECT_TRUE(run.Until([&] {
    auto columns = run.LastRow(3, faulted);
    auto clock = run.LastClock(3, faulted);
    return columns.size() > 4 && columns[4].find("0.00 V") != std::string::npos && clock.first >= 0 &&
           clock.first < 100;
  })) << run.Output().substr(faulted);

  // Worker 1 still mines; the faulted boards send nothing.
  size_t marked = run.Output().size();
  uint64_t before = run.Pool("accepted");
  EXPECT_TRUE(run.Until([&] { return run.Pool("accepted") >= before + 2 && run.Count("Worker 1 - YAY", marked) >= 2; }));
  EXPECT_EQ(run.Count("Worker 2 - YAY", crashed), 0u);
  EXPECT_EQ(run.Count("Worker 3 - YAY", marked), 0u);
  EXPECT_EQ(run.Count("Worker 3 has crashed"), 0u);
  EXPECT_EQ(run.Count("Worker 3: Offline (Disabled)"), 0u);

  // The board off the bus never gets its clock down (the clock load reads
  // busy for ever), so the quit gives up on it; the others stop.
  run.Child().Type("q");
  EXPECT_EQ(run.Child().Wait(), 0);
  EXPECT_EQ(run.Count("Waiting for workers to stop timed out"), 1u);
  EXPECT_EQ(run.Count("I/Worker01     : Stopped"), 1u);
  EXPECT_EQ(run.Count("I/Worker02     : Stopped"), 0u);
  EXPECT_EQ(run.Count("I/Worker03     : Stopped"), 1u);
  EXPECT_EQ(run.PoolRejectedNotStale(), 0u) << run.PoolProcess().Stats();
}

TEST(MiningRun, KeysStopAndRestartABoardAndTuneIt) {
  MinerRun run(kTwoBoards, kEasyPool);
  ASSERT_TRUE(run.Start());
  ASSERT_TRUE(run.Until([&] { return run.Count("Worker 1 - YAY") >= 1; }));

  run.Child().Type("1d");
  EXPECT_TRUE(run.Child().WaitFor("Commands targeting device 1"));
  EXPECT_TRUE(run.Child().WaitFor("Disabling targeted device(s)"));
  ASSERT_TRUE(run.Until([&] { return run.Count("I/Worker01     : Stopped") == 1; })) << run.Output();
  EXPECT_TRUE(run.Until([&] { return run.Count("Worker 1: Offline (Disabled)") > 0; }));
  // The board stops only once its clock is down to 0; the other mines on.
  EXPECT_EQ(run.Count("I/Worker02     : Stopped"), 0u);
  size_t afterStop = run.Output().size();
  uint64_t otherShares = run.Count("Worker 2 - YAY");
  EXPECT_TRUE(run.Until([&] { return run.Count("Worker 2 - YAY") > otherShares; }));
  EXPECT_EQ(run.Count("Worker 1 - YAY", afterStop), 0u);

  size_t enabled = run.Output().size();
  run.Child().Type("e");
  ASSERT_TRUE(run.Until([&] { return run.Count("I/Worker01     : Starting...", enabled) == 1; }));
  EXPECT_TRUE(run.Until([&] { return run.Count("Worker 1 - YAY", enabled) >= 1; })) << run.Output().substr(enabled);

  // Tuning raises the target in small steps: the saved configuration shows it.
  run.Child().Type("t");
  EXPECT_TRUE(run.Child().WaitFor("Tuning targeted device(s)", std::chrono::milliseconds(20000), enabled));
  EXPECT_TRUE(run.Until([&] {
    run.Child().Type("s");
    run.Pump(std::chrono::milliseconds(1000));
    std::string saved = ReadFile(run.WorkDir() / "config.json");
    size_t clock = saved.find("\"clock\":");
    return clock != std::string::npos && std::stod(saved.substr(clock + 8)) > 100.0;
  })) << ReadFile(run.WorkDir() / "config.json");

  run.Child().Type("q");
  EXPECT_EQ(run.Child().Wait(), 0);
  EXPECT_EQ(run.Count("Quitting miner, shutting down devices..."), 1u);
  EXPECT_EQ(run.Count("I/Worker01     : Stopped"), 2u);
  EXPECT_EQ(run.Count("I/Worker02     : Stopped"), 1u);
  EXPECT_EQ(run.Count("Waiting for workers to stop timed out"), 0u);
  EXPECT_TRUE(run.TerminalIsCooked());
}

// A clock load that stays busy holds its worker in the bring-up for ever. The
// main loop still feeds the watchdog, so the run goes on: the table names the
// stuck worker with its growing age, the other board mines, and the quit
// gives up on the stuck one after its wait.
TEST(MiningRun, HungClockLoadShowsItsWorkerStuckInitializingAndQuitGivesUpOnIt) {
  MinerRun run("xdma0 model=7 mmcm_stuck=1\nxdma1 model=7\n", kEasyPool);
  ASSERT_TRUE(run.Start());
  ASSERT_TRUE(run.Until([&] { return run.Count("Worker 1: Started initializing") >= 2; })) << run.Output();
  EXPECT_TRUE(run.Until([&] { return run.Pool("accepted") >= 1; }));
  EXPECT_GE(run.Count("Worker 2 - YAY"), 1u);
  EXPECT_EQ(run.Count("Worker 1 - YAY"), 0u);
  EXPECT_EQ(run.Count("I/Worker01     : Setting MMCM clock"), 1u);
  size_t stuck = run.Output().find("Worker 1: Started initializing");
  EXPECT_EQ(run.LastRow(1, stuck).size(), 0u) << "a stuck worker has no table row";

  run.Child().Type("q");
  EXPECT_EQ(run.Child().Wait(std::chrono::milliseconds(60000)), 0);
  EXPECT_EQ(run.Count("Waiting for workers to stop timed out"), 1u);
  EXPECT_EQ(run.Count("I/Worker02     : Stopped"), 1u);
  EXPECT_EQ(run.Count("I/Worker01     : Stopped"), 0u);
  EXPECT_EQ(run.Count("pull the plug"), 0u);
  EXPECT_TRUE(run.TerminalIsCooked());
}

TEST(PoolFaults, RefusedAndRestartedPoolIsReconnectedAndMiningResumes) {
  MinerRun run(kTwoBoards, kEasyPool);
  ASSERT_TRUE(run.Start());
  ASSERT_TRUE(run.Until([&] { return run.Pool("accepted") >= 1; }));
  const uint16_t port = run.PoolProcess().Port();

  // The pool goes away: the connection is lost, and new ones are refused.
  run.PoolProcess().Stop();
  ASSERT_TRUE(run.Until([&] { return run.Count("Stratum disconnected") >= 2; })) << run.Output();

  std::vector<std::string> options = kEasyPool;
  options.insert(options.end(), {"--port", std::to_string(port)});
  testing_support::TestPool restarted(options);
  ASSERT_EQ(restarted.Port(), port);
  EXPECT_TRUE(run.Until([&] {
    std::string stats = restarted.Stats();
    return stats.find("\"accepted\":0,") == std::string::npos && stats.find("\"accepted\":") != std::string::npos;
  })) << run.Output();
  EXPECT_NE(restarted.Stats().find("\"rejected\":0,"), std::string::npos) << restarted.Stats();
  EXPECT_GE(run.Count("Stratum connected"), 2u);
  EXPECT_GE(run.Count("Stratum state Authorized -> Mining"), 2u);

  run.Child().Type("q");
  EXPECT_EQ(run.Child().Wait(), 0);
}

TEST(PoolFaults, GarbageHugeAndMalformedLinesDoNotStopMining) {
  MinerRun run(kTwoBoards, {"--difficulty", "0.002", "--notify-interval", "1", "--garbage-every", "3",
                            "--huge-line", "300000", "--bad-job", "invalid-hex", "--bad-job-every", "3"});
  ASSERT_TRUE(run.Start());
  EXPECT_TRUE(run.Until([&] { return run.Pool("accepted") >= 4 && run.Pool("jobs") >= 6; })) << run.Output();
  run.Child().Type("q");
  EXPECT_EQ(run.Child().Wait(), 0);
  EXPECT_GE(run.Count("Share Accepted!"), 4u);
  // The session lived through it all on its first connection.
  EXPECT_EQ(run.Pool("connections"), 1u) << run.PoolProcess().Stats();
  EXPECT_EQ(run.Count("Stratum disconnected"), 0u);

  // Hex is decoded leniently (a bad digit pair is a byte 0xFF), so a job with
  // a bad digit in its header is mined on a header the pool doesn't have: its
  // shares, and only its, come back as too weak.
  std::set<std::string> badJobs;
  std::deque<std::string> submitted;
  size_t verdicts = 0;
  for (const std::string &line : run.Transcript()) {
    if (line.find(" > ") != std::string::npos && line.find("\"mining.notify\"") != std::string::npos &&
        line.find(",\"zz") != std::string::npos) {
      size_t id = line.find("\"params\":[\"") + 11;
      badJobs.insert(line.substr(id, line.find('"', id) - id));
    } else if (line.find(" < ") != std::string::npos) {
      std::string job = JobOfSubmit(line);
      if (!job.empty()) submitted.push_back(job);
    } else if (line.find(" > {\"id\":4,") != std::string::npos && !submitted.empty()) {
      // Verdicts come in the order of the shares (they all have id 4).
      bool accepted = line.find("\"error\":null") != std::string::npos;
      if (line.find("Stale job") == std::string::npos) {
        EXPECT_EQ(accepted, badJobs.count(submitted.front()) == 0) << line << " for job " << submitted.front();
      }
      submitted.pop_front();
      verdicts++;
    }
  }
  EXPECT_FALSE(badJobs.empty());
  EXPECT_EQ(verdicts, run.Pool("submits"));
  EXPECT_EQ(run.Pool("rejected"), run.Pool("low-difficulty") + run.Pool("stale")) << run.PoolProcess().Stats();
  EXPECT_EQ(run.Pool("bad_lines_received"), 0u);
  EXPECT_EQ(run.Count("I/Worker01     : Stopped"), 1u);
  EXPECT_EQ(run.Count("I/Worker02     : Stopped"), 1u);
}

// While mining, a message with a numeric id is a share answer or nothing: a
// pool that numbers its notifications is not heard, and the boards get no job.
TEST(PoolFaults, NotificationsWithANumericIdAreDropped) {
  MinerRun run(kTwoBoards, {"--difficulty", "0.002", "--notify-interval", "1", "--notify-id", "7"});
  ASSERT_TRUE(run.Start());
  ASSERT_TRUE(run.Until([&] { return run.Pool("jobs") >= 3 && run.Count("Worker 2: Started waiting for work") > 0; }));
  EXPECT_EQ(run.Count("Stratum state Authorized -> Mining"), 1u);
  run.Child().Type("q");
  EXPECT_EQ(run.Child().Wait(), 0);
  EXPECT_EQ(run.Pool("submits"), 0u);
  EXPECT_EQ(run.Count("YAY"), 0u);
}

// Each read is framed on its own, so a line split across reads never parses:
// the subscribe answer is lost and the session stays where it was, while the
// miner itself keeps answering its keys.
TEST(PoolFaults, LinesSplitAcrossReadsLeaveTheSessionSubscribing) {
  MinerRun run(kTwoBoards, {"--difficulty", "0.002", "--split-lines", "3", "--split-delay", "0.05"});
  ASSERT_TRUE(run.Start());
  EXPECT_TRUE(run.Until([&] { return run.Count("Failed to subscribe - invalid or failed response") >= 1; }));
  EXPECT_TRUE(run.Until([&] { return run.Count("Worker 1: Started waiting for work") >= 1; }));
  EXPECT_EQ(run.Count("Stratum state Subscribing -> Authorizing"), 0u);
  run.Child().Type("q");
  EXPECT_EQ(run.Child().Wait(), 0);
  EXPECT_EQ(run.Pool("submits"), 0u);
}

// A stop signal while mining is a quit: every board ramps down and stops,
// the run ends with 0, and the terminal is given back as it was.
TEST(Signals, TerminationOrInterruptWhileMiningStopsTheBoardsAndRestoresTheTerminal) {
  for (int signal : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(strsignal(signal));
    MinerRun run(kTwoBoards, kEasyPool);
    ASSERT_TRUE(run.Start());
    ASSERT_TRUE(run.Until([&] { return run.Count("Worker 1 - YAY") >= 1 && run.Count("Worker 2 - YAY") >= 1; }));
    // Keys come singly while it runs.
    termios modes{};
    ASSERT_TRUE(run.Child().TerminalModes(&modes));
    EXPECT_EQ(modes.c_lflag & ICANON, 0u);
    EXPECT_EQ(modes.c_lflag & ECHO, 0u);
    run.Child().Signal(signal);
    EXPECT_EQ(run.Child().Wait(), 0);
    EXPECT_TRUE(run.TerminalIsCooked());
    EXPECT_EQ(run.Count("I/Worker01     : Stopped"), 1u);
    EXPECT_EQ(run.Count("I/Worker02     : Stopped"), 1u);
    EXPECT_EQ(run.Count("Waiting for workers to stop timed out"), 0u);
    EXPECT_EQ(run.Count("E/Miner        : Exiting"), 1u);
  }
}

// A stop signal before mining began: during the scan it is taken only once
// the scan is over (a card with further FPGAs that never show up holds it
// for ten probes), and then the run ends without going to the pool; right
// after the start-up the run ends at once. Either way 0 and the terminal back.
TEST(Signals, StopDuringTheScanOrTheStartUpEndsTheRunBeforeMining) {
  // A card whose further FPGAs never answer the probe.
  const std::string kSlowScan = "xdma0 model=9 subdevices=none\n";
  MinerRun terminated(kSlowScan, kEasyPool), interrupted(kSlowScan, kEasyPool);
  ASSERT_TRUE(terminated.Launch());
  ASSERT_TRUE(interrupted.Launch());
  for (MinerRun *run : {&terminated, &interrupted}) {
    ASSERT_TRUE(run->Child().WaitFor("Found 1 BRYLDMA devices:")) << run->Output();
    ASSERT_EQ(run->Count("  Device 1:"), 0u) << "the scan is still probing";
  }
  terminated.Child().Signal(SIGTERM);
  interrupted.Child().Signal(SIGINT);
  for (MinerRun *run : {&terminated, &interrupted}) {
    EXPECT_EQ(run->Child().Wait(std::chrono::milliseconds(kHangGuard)), 0) << run->Output();
    EXPECT_TRUE(run->TerminalIsCooked());
    EXPECT_EQ(run->Count("  Device 1: JC35"), 1u) << run->Output();
    EXPECT_EQ(run->Count("E/Miner        : Exiting"), 1u);
    EXPECT_EQ(run->Count("Stratum connected"), 0u);
    EXPECT_EQ(run->Count("I/Worker01     : Stopped"), 0u);
    EXPECT_EQ(run->Pool("connections"), 0u) << run->PoolProcess().Stats();
  }

  MinerRun startUp(kTwoBoards, kEasyPool);
  ASSERT_TRUE(startUp.Start());
  startUp.Child().Signal(SIGINT);
  EXPECT_EQ(startUp.Child().Wait(), 0);
  EXPECT_TRUE(startUp.TerminalIsCooked());
  EXPECT_EQ(startUp.Count("Waiting for workers to stop timed out"), 0u);
  EXPECT_EQ(startUp.Count("E/Miner        : Exiting"), 1u);
}

}  // namespace
}  // namespace e2e
