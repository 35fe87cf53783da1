// Options beside the seven positional words: where they may stand, how their
// values are taken, and what is refused.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "shell/command_line.h"
#include "support/sim_boards.h"

namespace {

struct Parsed {
  bool ok;
  CommandLine line;
  std::string error;
};

Parsed Parse(std::vector<std::string> words) {
  words.insert(words.begin(), "ombry-miner");
  std::vector<char *> argv;
  for (std::string &word : words) argv.push_back(word.data());
  Parsed parsed;
  parsed.ok = ParseCommandLine(static_cast<int>(argv.size()), argv.data(), parsed.line, parsed.error);
  return parsed;
}

TEST(CommandLineTest, OptionsStandAnywhereAndLeaveThePositionalWordsInOrder) {
  Parsed parsed = Parse({"--pool-silence", "45", "ckb", "pool", "--share-timeout=12.5", "3333", "w", "x", "200"});
  ASSERT_TRUE(parsed.ok) << parsed.error;
  EXPECT_EQ(parsed.line.positional, (std::vector<std::string>{"ombry-miner", "ckb", "pool", "3333", "w", "x", "200"}));
  EXPECT_EQ(parsed.line.options.poolSilenceSeconds, 45);
  EXPECT_EQ(parsed.line.options.shareTimeoutSeconds, 12.5);
  EXPECT_FALSE(parsed.line.options.verbose);
  EXPECT_TRUE(Parse({"ckb", "--verbose"}).line.options.verbose);

  Parsed plain = Parse({"ckb", "pool", "3333", "w", "x"});
  ASSERT_TRUE(plain.ok);
  EXPECT_EQ(plain.line.positional.size(), 6u);
  EXPECT_EQ(plain.line.options.poolSilenceSeconds, RunOptions{}.poolSilenceSeconds);
  EXPECT_FALSE(plain.line.showHelp || plain.line.showVersion);
}

TEST(CommandLineTest, RefusesWhatItCannotTakeAndNamesTheWord) {
  const std::pair<std::vector<std::string>, const char *> cases[] = {
      {{"ckb", "--bogus", "1"}, "unknown option --bogus"},
      {{"ckb", "--pool-silence"}, "--pool-silence needs a value"},
      {{"--pool-silence", "-5"}, "--pool-silence '-5'"},
      {{"--pool-silence", "0"}, "--pool-silence '0'"},
      {{"--share-timeout", "1e3"}, "--share-timeout '1e3'"},
      {{"--help=yes"}, "--help takes no value"},
      {{"--api-allow", "pool.example.org"}, "--api-allow 'pool.example.org'"},
      {{"--api-allow", "127.0.0.256"}, "--api-allow '127.0.0.256'"},
  };
  for (const auto &[words, errorPart] : cases) {
    Parsed parsed = Parse(words);
    EXPECT_FALSE(parsed.ok) << words[0];
    EXPECT_NE(parsed.error.find(errorPart), std::string::npos) << parsed.error;
  }
}

// A settings file of its own in `dir`, holding `text`.
std::string WriteSettings(const miner_testing::ScratchDir &dir, const std::string &text) {
  static int count = 0;
  std::string path = dir.Path() / ("settings-" + std::to_string(count++) + ".json");
  std::ofstream(path) << text;
  return path;
}

TEST(SettingsFileTest, FillsInWhatTheCommandLineLeavesOut) {
  miner_testing::ScratchDir dir;
  std::string path =
      WriteSettings(dir, R"({"algorithm":"ckb","host":"pool.example","port":3333,"wallet":"w.rig","password":"x",)"
                         R"("device":"/dev/xdma0","pool-silence":120,"share-timeout":"20","verbose":true})");
  Parsed fromFile = Parse({"--config", path});
  ASSERT_TRUE(fromFile.ok) << fromFile.error;
  // A device without a clock: the clock's place holds "no forced clock".
  EXPECT_EQ(fromFile.line.positional,
            (std::vector<std::string>{"ombry-miner", "ckb", "pool.example", "3333", "w.rig", "x", "0", "/dev/xdma0"}));
  EXPECT_EQ(fromFile.line.options.poolSilenceSeconds, 120);
  EXPECT_EQ(fromFile.line.options.shareTimeoutSeconds, 20);
  EXPECT_TRUE(fromFile.line.options.verbose);

  Parsed overridden = Parse({"ckb", "other.pool", "--pool-silence", "60", "--config=" + path});
  ASSERT_TRUE(overridden.ok) << overridden.error;
  EXPECT_EQ(overridden.line.positional[2], "other.pool");
  EXPECT_EQ(overridden.line.positional[3], "3333");
  EXPECT_EQ(overridden.line.options.poolSilenceSeconds, 60);
  EXPECT_EQ(overridden.line.options.shareTimeoutSeconds, 20);

  std::string quiet = WriteSettings(dir, R"({"verbose":false})");
  Parsed notVerbose = Parse({"ckb", "pool", "3333", "w", "x", "--config", quiet});
  ASSERT_TRUE(notVerbose.ok) << notVerbose.error;
  EXPECT_FALSE(notVerbose.line.options.verbose);
}

TEST(SettingsFileTest, RefusesBadFilesBeforeAnythingStartsAndNamesTheKey) {
  miner_testing::ScratchDir dir;
  const std::pair<const char *, const char *> cases[] = {
      {R"({"pool-silence":90,})", "is not valid JSON"},
      {R"(["ckb"])", "one JSON object"},
      {R"({"pool-silnce":90})", "key 'pool-silnce': not a setting"},
      {R"({"help":true})", "key 'help': not a setting"},
      {R"({"verbose":"yes"})", "key 'verbose': needs true or false"},
      {R"({"pool-silence":-3})", "key 'pool-silence' '-3'"},
      {R"({"share-timeout":[1,2]})", "key 'share-timeout': takes one value"},
      {R"({"port":{"n":1}})", "key 'port': needs a string or a number"},
      {R"({"port":"33x3"})", "key 'port' '33x3': must be a port number"},
      {R"({"port":70000})", "key 'port' '70000': must be a port number"},
      {R"({"algorithm":"sha256"})", "key 'algorithm' 'sha256': must be ckb"},
      {R"({"clock":"fast"})", "key 'clock' 'fast': must be a whole number"},
  };
  for (const auto &[text, errorPart] : cases) {
    Parsed parsed = Parse({"--config", WriteSettings(dir, text)});
    EXPECT_FALSE(parsed.ok) << text;
    EXPECT_NE(parsed.error.find(errorPart), std::string::npos) << parsed.error;
  }
  // A file of 1 MiB is read; one byte more is refused unread.
  std::string padded = R"({"algorithm":"ckb","host":"pool.example","port":3333,"wallet":"w.rig","password":"x"})";
  padded.resize(size_t{1} << 20, ' ');
  for (bool over : {false, true}) {
    Parsed parsed = Parse({"--config", WriteSettings(dir, over ? padded + " " : padded)});
    EXPECT_EQ(parsed.ok, !over) << parsed.error;
    EXPECT_EQ(parsed.error.find("larger than 1 MiB") != std::string::npos, over) << parsed.error;
  }
  Parsed missing = Parse({"--config", "/nonexistent/ombry.json"});
  EXPECT_FALSE(missing.ok);
  EXPECT_NE(missing.error.find("cannot read the settings file /nonexistent/ombry.json"), std::string::npos);
}

}  // namespace
