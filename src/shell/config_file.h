// The settings file of --config: one JSON object whose keys are the option
// names (without the dashes) and the names of the positional words, so that a
// farm can deploy one file for what a command line would say.
#pragma once

#include <map>
#include <string>
#include <vector>

struct ConfigFileSettings {
  // Position (1 to 7) to its word.
  std::map<int, std::string> positional;
  // Option name to its values, in the file's order (one for most options).
  std::vector<std::pair<std::string, std::vector<std::string>>> options;
};

// Reads `path`. Returns false with `error` naming the file and, where it
// applies, the key: unreadable file, bad JSON, a key that is neither an option
// nor a positional name, a value of the wrong kind.
bool ReadConfigFile(const std::string &path, ConfigFileSettings &settings, std::string &error);
// The same on text already read; `path` names the file in `error`.
bool ReadConfigText(const std::string &text, const std::string &path, ConfigFileSettings &settings, std::string &error);
