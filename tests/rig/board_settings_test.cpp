// config.json as SaveConfiguration writes it, and the stored-settings merge
// that would read it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/fake_workers.h"
#include "foundation/json_bounded.h"
#include "foundation/logger.h"
#include "rig/board_settings.h"
#include "support/capture.h"
#include "support/sim_boards.h"

using miner_testing::MakeWorker;
using testing_support::StreamCapture;

namespace {

// Runs each test in a fresh working directory of its own.
class SaveConfigurationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VLLogEnableConsole();
    std::filesystem::current_path(dir_.Path());
  }
  void TearDown() override { std::filesystem::current_path(previous_); }

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
  std::filesystem::path previous_ = std::filesystem::current_path();
  miner_testing::ScratchDir dir_;
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

// Any JSON value, read as the member of an object the strict reader takes.
VLRef Json(const std::string &text) {
  std::string wrapped = "{\"value\":" + text + "}";
  VLRef object(VLJsonReadObject(wrapped.data(), wrapped.size(), VLJsonLimits{}, nullptr));
  return VLRef::Retain(VLDictionaryGetByName(object.get(), "value"));
}

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

}  // namespace
