#include "loopback_peer.h"

#include "foundation/logger.h"

namespace net_test {

LogLines::LogLines() {
  VLLogSetCallback(Record, this);
  VLLogSetLevel(VLLogLevelTrace);
}

LogLines::~LogLines() { VLLogSetCallback(nullptr, nullptr); }

void LogLines::Record(uint32_t, const char *tag, const char *message, void *context) {
  auto *self = static_cast<LogLines *>(context);
  std::lock_guard<std::mutex> guard(self->lock_);
  self->lines_.push_back(std::string(tag) + ": " + message);
}

bool LogLines::Contains(const std::string &text) {
  std::lock_guard<std::mutex> guard(lock_);
  for (const std::string &line : lines_) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

std::vector<std::string> LogLines::Lines() {
  std::lock_guard<std::mutex> guard(lock_);
  return lines_;
}

}  // namespace net_test
