// config.json as SaveConfiguration writes it, and the stored-settings merge
// that would read it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "fake_workers.h"
#include "foundation/json.h"
#include "foundation/logger.h"
#include "miner/run_config.h"
#include "support/capture.h"

using miner_testing::MakeWorker;
using testing_support::StreamCapture;

namespace {

// Runs each test in a fresh working directory of its own.
class SaveConfigurationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VLLogEnableConsole();
    previous_ = std::filesystem::current_path();
    dir_ = std::filesystem::temp_directory_path() /
           ("ombry-config-" + std::to_string(getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
    std::filesystem::current_path(dir_);
  }
  void TearDown() override {
    std::filesystem::current_path(previous_);
    std::filesystem::remove_all(dir_);
  }

  Worker &Add(const std::string &modelName, const std::string &dna, uint64_t clockHz, bool enabled) {
    context_.workers.push_back(MakeWorker(modelName, 1, dna));
    Worker &worker = *context_.workers.back();
    worker.targetClockHz = clockHz;
    worker.enabled = enabled;
    return worker;
  }

  std::string Save() {
    StreamCapture capture;
    SaveConfiguration(context_);
    capture.Stop();
    return capture.Out() + capture.Err();
  }

  static std::string ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  MiningContext context_;
  std::filesystem::path previous_;
  std::filesystem::path dir_;
};

TEST_F(SaveConfigurationTest, WritesEveryWorkerInTheFixedLayout) {
  Add("RK35", "0123456789abcdef00c0ffee", 500000000, true);
  Add("215 ", "aaaa0001bbbb0002", 102500000, false);
  std::string log = Save();
  EXPECT_EQ(ReadFile("config.json"),
            "{\n"
            "  \"devices\":  [\n"
            "    {\n"
            "      \"model\":      \"RK35\",\n"
            "      \"dna\":      \"0123456789abcdef00c0ffee\",\n"
            "      \"clock\":      500.000000,\n"
            "      \"disabled\":      false\n"
            "    },\n"
            "    {\n"
            "      \"model\":      \"215 \",\n"
            "      \"dna\":      \"aaaa0001bbbb0002\",\n"
            "      \"clock\":      102.500000,\n"
            "      \"disabled\":      true\n"
            "    }\n"
            "  ]\n"
            "}\n");
  EXPECT_EQ(log,
            "I/Miner        : Saving configuration\n"
            "E/Miner        : Saved active configuration to config.json\n");
}

TEST_F(SaveConfigurationTest, ReplacesAnEarlierFileAndWritesAnEmptyListWithoutBoards) {
  std::ofstream("config.json") << std::string(4096, 'x');
  Save();
  EXPECT_EQ(ReadFile("config.json"), "{\n  \"devices\":  [\n  ]\n}\n");
}

TEST_F(SaveConfigurationTest, AFileThatCannotBeWrittenIsReportedAndTheRunGoesOn) {
  std::filesystem::create_directory("config.json");
  Add("RK35", "dna", 100000000, true);
  std::string log = Save();
  EXPECT_NE(log.find("E/Miner        : Failed to save active configuration to config.json\n"), std::string::npos)
      << log;
  EXPECT_EQ(log.find("Saved active"), std::string::npos);
  EXPECT_TRUE(std::filesystem::is_directory("config.json"));
}

VLRef Json(const std::string &text) { return VLRef(VLJsonRead(text.data(), static_cast<uint32_t>(text.size()))); }

TEST(StoredSettingsTest, DeviceEntriesApplyByDnaAndSkipOtherShapes) {
  auto worker = MakeWorker("RK35", 7, "abc");
  worker->enabled = true;
  worker->targetClockHz = 100000000;
  VLRef devices = Json(R"([
    7, "abc",
    {"dna": "other", "clock": 300, "disabled": true},
    {"dna": "abc", "clock": "250", "disabled": "yes"},
    {"clock": 260},
    {"dna": "abc", "clock": 275.9}
  ])");
  MergeStoredDeviceSettings(*worker, devices.get());
  EXPECT_EQ(worker->targetClockHz, 275000000u);
  EXPECT_TRUE(worker->enabled);

  VLRef disable = Json(R"([{"dna": "abc", "disabled": 1}])");
  MergeStoredDeviceSettings(*worker, disable.get());
  EXPECT_FALSE(worker->enabled);
  EXPECT_EQ(worker->targetClockHz, 275000000u);
}

TEST(StoredSettingsTest, AbsentOrMisshapenDocumentsChangeNothing) {
  auto worker = MakeWorker("RK35", 7, "abc");
  worker->enabled = true;
  worker->targetClockHz = 100000000;
  MergeStoredDeviceSettings(*worker, nullptr);
  VLRef notAList = Json(R"({"dna": "abc", "clock": 300})");
  MergeStoredDeviceSettings(*worker, notAList.get());
  EXPECT_EQ(worker->targetClockHz, 100000000u);
  EXPECT_TRUE(worker->enabled);

  MiningContext context;
  MergeStoredStratumSettings(context, nullptr);
  VLRef wrongTypes = Json(R"({"host": 5, "port": "3333", "wallet": [], "password": null})");
  MergeStoredStratumSettings(context, wrongTypes.get());
  EXPECT_EQ(context.poolHost, nullptr);
  EXPECT_EQ(context.poolPort, 0);
  EXPECT_EQ(context.account, nullptr);
  EXPECT_EQ(context.password, nullptr);
}

TEST(StoredSettingsTest, StratumSectionIsCopiedForTheRun) {
  MiningContext context;
  {
    VLRef stratum = Json(R"({"host": "pool.example.org", "port": 70000, "wallet": "ckb1q", "password": "x"})");
    MergeStoredStratumSettings(context, stratum.get());
  }
  // The document is gone; the texts remain.
  EXPECT_STREQ(context.poolHost, "pool.example.org");
  EXPECT_EQ(context.poolPort, 70000 % 65536);
  EXPECT_STREQ(context.account, "ckb1q");
  EXPECT_STREQ(context.password, "x");
}

TEST_F(SaveConfigurationTest, ASavedFileMergesBackToTheSameSettings) {
  Add("RK35", "first", 215000000, true);
  Add("RK35", "second", 90000000, false);
  Save();
  std::string text = ReadFile("config.json");
  VLRef document = Json(text);
  const VLObject *devices = VLDictionaryGetByName(document.get(), "devices");
  ASSERT_EQ(VLArrayCount(devices), 2u);
  for (const auto &saved : context_.workers) {
    auto fresh = MakeWorker("RK35", 7, saved->dna);
    fresh->enabled = true;
    MergeStoredDeviceSettings(*fresh, devices);
    EXPECT_EQ(fresh->targetClockHz, saved->targetClockHz);
    EXPECT_EQ(fresh->enabled, saved->enabled);
  }
}

}  // namespace
