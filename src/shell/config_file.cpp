#include "shell/config_file.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

#include "shell/options.h"

namespace {

using Json = nlohmann::json;

// Far above any rig's settings, and a bound on what a wrong path (a device
// node, a log) could make the miner read.
constexpr size_t kSettingsFileLimit = size_t{1} << 20;

// A scalar as the word a command line would carry.
bool WordOf(const Json &value, std::string &word) {
  if (value.is_string()) {
    word = value.get<std::string>();
    return true;
  }
  if (value.is_number_integer() || value.is_number_unsigned()) {
    word = value.dump();
    return true;
  }
  if (value.is_number_float()) {
    double number = value.get<double>();
    char text[64];
    snprintf(text, sizeof text, "%.17g", number);
    word = text;
    return std::isfinite(number);
  }
  return false;
}

bool AllDigits(const std::string &word) {
  return !word.empty() && word.size() <= 9 && word.find_first_not_of("0123456789") == std::string::npos;
}

// What a positional word must be, so that a file's mistake is named before
// anything starts; empty when the word will do.
std::string PositionalProblem(const std::string &key, const std::string &word) {
  if (key == "algorithm" && word != "ckb" && word != "recovery" && word != "dump") {
    return "must be ckb, recovery or dump";
  }
  if (key == "port" && (!AllDigits(word) || std::stoul(word) == 0 || std::stoul(word) > 65535)) {
    return "must be a port number from 1 to 65535";
  }
  if (key == "clock" && !AllDigits(word)) return "must be a whole number of MHz";
  if ((key == "host" || key == "wallet") && word.empty()) return "must not be empty";
  return "";
}

}  // namespace

bool ReadConfigFile(const std::string &path, ConfigFileSettings &settings, std::string &error) {
  std::ifstream file(path);
  if (!file) {
    error = "cannot read the settings file " + path;
    return false;
  }
  std::string text(kSettingsFileLimit + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(file.gcount()));
  if (text.size() > kSettingsFileLimit) {
    error = "settings file " + path + " is larger than 1 MiB";
    return false;
  }
  return ReadConfigText(text, path, settings, error);
}

bool ReadConfigText(const std::string &text, const std::string &path, ConfigFileSettings &settings,
                    std::string &error) {
  Json document = Json::parse(text, nullptr, false);
  if (document.is_discarded()) {
    error = "settings file " + path + " is not valid JSON";
    return false;
  }
  if (!document.is_object()) {
    error = "settings file " + path + " must hold one JSON object";
    return false;
  }
  for (const auto &[key, value] : document.items()) {
    std::string where = fmt::format("settings file {}, key '{}'", path, key);
    int position = 0;
    for (int i = 0; i < 7; i++) {
      if (key == kPositionalNames[i]) position = i + 1;
    }
    if (position != 0) {
      std::string word;
      if (!WordOf(value, word)) {
        error = where + ": needs a string or a number";
        return false;
      }
      if (std::string problem = PositionalProblem(key, word); !problem.empty()) {
        error = fmt::format("{} '{}': {}", where, word, problem);
        return false;
      }
      settings.positional[position] = word;
      continue;
    }
    const CommandLineOption *option = FindCommandLineOption(key);
    if (option == nullptr || key == "config" || key == "help" || key == "version") {
      error = where + ": not a setting (--help lists the options)";
      return false;
    }
    if (option->valueName == nullptr) {
      // A flag is true or false; false is the same as leaving it out.
      if (!value.is_boolean()) {
        error = where + ": needs true or false";
        return false;
      }
      if (value.get<bool>()) settings.options.emplace_back(key, std::vector<std::string>{""});
      continue;
    }
    std::vector<std::string> words;
    const Json *items = &value;
    Json single = Json::array({value});
    if (!value.is_array()) items = &single;
    if (value.is_array() && !option->repeatable) {
      error = where + ": takes one value, not a list";
      return false;
    }
    for (const Json &item : *items) {
      std::string word;
      if (!WordOf(item, word)) {
        error = where + ": needs a string or a number";
        return false;
      }
      words.push_back(word);
    }
    settings.options.emplace_back(key, words);
  }
  return true;
}
