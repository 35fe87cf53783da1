// Options beside the seven positional words: where they may stand, how their
// values are taken, and what is refused.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "miner/command_line.h"

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
  EXPECT_EQ(parsed.line.positional,
            (std::vector<std::string>{"ombry-miner", "ckb", "pool", "3333", "w", "x", "200"}));
  EXPECT_EQ(parsed.line.options.poolSilenceSeconds, 45);
  EXPECT_EQ(parsed.line.options.shareTimeoutSeconds, 12.5);

  Parsed plain = Parse({"ckb", "pool", "3333", "w", "x"});
  ASSERT_TRUE(plain.ok);
  EXPECT_EQ(plain.line.positional.size(), 6u);
  EXPECT_EQ(plain.line.options.poolSilenceSeconds, RunOptions{}.poolSilenceSeconds);
  EXPECT_FALSE(plain.line.showHelp || plain.line.showVersion);
}

TEST(CommandLineTest, RefusesWhatItCannotTakeAndNamesTheWord) {
  struct Case {
    std::vector<std::string> words;
    const char *errorPart;
  };
  const Case cases[] = {
      {{"ckb", "--bogus", "1"}, "unknown option --bogus"},
      {{"ckb", "--pool-silence"}, "--pool-silence needs a value"},
      {{"--pool-silence", "-5"}, "--pool-silence '-5'"},
      {{"--pool-silence", "0"}, "--pool-silence '0'"},
      {{"--share-timeout", "1e3"}, "--share-timeout '1e3'"},
      {{"--share-timeout", "30s"}, "--share-timeout '30s'"},
      {{"--help=yes"}, "--help takes no value"},
  };
  for (const Case &c : cases) {
    Parsed parsed = Parse(c.words);
    EXPECT_FALSE(parsed.ok) << c.words[0];
    EXPECT_NE(parsed.error.find(c.errorPart), std::string::npos) << parsed.error;
  }
}

TEST(CommandLineTest, HelpNamesEveryOption) {
  char *text = nullptr;
  size_t size = 0;
  FILE *out = open_memstream(&text, &size);
  PrintUsage(out);
  fclose(out);
  std::string usage(text, size);
  free(text);
  for (const OptionSpec &option : CommandLineOptions()) {
    EXPECT_NE(usage.find(std::string("--") + option.name), std::string::npos) << option.name;
  }
  EXPECT_TRUE(Parse({"ckb", "--help"}).line.showHelp);
  EXPECT_TRUE(Parse({"--version"}).line.showVersion);
}

}  // namespace
