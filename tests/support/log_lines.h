// Every log line while it lives, from `level` up, for tests that check what
// the code told the operator.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "foundation/logger.h"

namespace testing_support {

struct LogLine {
  uint32_t level;
  std::string tag;
  std::string message;
};

class LogLines {
 public:
  explicit LogLines(uint32_t level = VLLogLevelTrace) {
    VLLogSetLevel(level);
    VLLogSetCallback(Record, this);
  }
  ~LogLines() {
    VLLogSetCallback(nullptr, nullptr);
    VLLogSetLevel(VLLogLevelInfo);
  }
  LogLines(const LogLines &) = delete;
  LogLines &operator=(const LogLines &) = delete;

  // Whether a line of `tag` says exactly `message`, at `level` when given.
  bool Has(const std::string &tag, const std::string &message, uint32_t level = 0) const {
    for (const LogLine &line : All()) {
      if (line.tag == tag && line.message == message && (level == 0 || line.level == level)) return true;
    }
    return false;
  }
  // How many lines say `part` somewhere.
  size_t Count(const std::string &part) const {
    size_t count = 0;
    for (const LogLine &line : All()) count += line.message.find(part) != std::string::npos;
    return count;
  }
  std::vector<LogLine> All() const {
    std::lock_guard<std::mutex> guard(lock_);
    return lines_;
  }

 private:
  static void Record(uint32_t level, const char *tag, const char *message, void *self) {
    auto *lines = static_cast<LogLines *>(self);
    std::lock_guard<std::mutex> guard(lines->lock_);
    lines->lines_.push_back({level, tag, message});
  }
  mutable std::mutex lock_;
  std::vector<LogLine> lines_;
};

}  // namespace testing_support
