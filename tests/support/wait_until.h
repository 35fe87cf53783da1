// A bounded wait for what another thread brings about: the bound guards
// against a hang and is no timing.
#pragma once

#include <chrono>
#include <thread>

namespace testing_support {

template <typename Done>
bool WaitUntil(Done done, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace testing_support
