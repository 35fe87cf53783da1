// config.json as SaveConfiguration writes it, and the stored-settings merge
// that would read it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

#include "support/fake_workers.h"
#include "foundation/json_bounded.h"
#include "foundation/logger.h"
#include "rig/board_settings.h"
#include "support/capture.h"
#include "support/sim_boards.h"

using miner_testing::MakeWorker;
using testing_support::StreamCapture;

namespace {

TEST(SaveConfigurationTest, WritesEveryWorkerInTheFixedLayout) {
  VLLogEnableConsole();
  MiningContext context;
  for (auto [model, dna, clockHz, enabled] : {std::tuple{"RK35", "0123456789abcdef00c0ffee", 500000000u, true},
                                              {"215 ", "aaaa0001bbbb0002", 102500000u, false}}) {
    context.workers.push_back(MakeWorker(model, 1, dna));
    context.workers.back()->targetClockHz = clockHz;
    context.workers.back()->enabled = enabled;
  }
  // Saved in a fresh working directory of its own.
  miner_testing::ScratchDir dir;
  const std::filesystem::path previous = std::filesystem::current_path();
  std::filesystem::current_path(dir.Path());
  StreamCapture capture;
  SaveConfiguration(context);
  capture.Stop();
  std::stringstream saved;
  saved << std::ifstream("config.json").rdbuf();
  std::filesystem::current_path(previous);
  EXPECT_EQ(saved.str(),
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
  EXPECT_EQ(capture.Out() + capture.Err(),
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
