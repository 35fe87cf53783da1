// The published Eaglesong vectors for messages of any length (hex input and
// digest), from tests/hash/eaglesong_vectors.txt, which the pool's tests read
// too.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {

inline std::vector<std::pair<std::string, std::string>> PublishedEaglesongVectors() {
  const char *source = getenv("OMBRY_SOURCE_DIR");
  std::ifstream in(std::string(source ? source : ".") + "/tests/hash/eaglesong_vectors.txt");
  std::vector<std::pair<std::string, std::string>> vectors;
  std::string line, input;
  while (std::getline(in, line)) {
    std::string value = line.substr(line.find('=') + 1);
    value.erase(0, value.find_first_not_of(' '));
    if (line.rfind("Input", 0) == 0) input = value;
    if (line.rfind("Output", 0) == 0) vectors.emplace_back(input, value);
  }
  return vectors;
}

inline std::vector<uint8_t> BytesOfHex(const std::string &hex) {
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  return bytes;
}

}  // namespace testing_support
