// A field that one thread writes and others poll without a lock. Relaxed
// atomic access keeps such reads defined without adding any ordering: the
// design stays lock-free polling, and a torn view across fields is accepted.
#pragma once

#include <atomic>

template <typename T>
class Relaxed {
 public:
  constexpr Relaxed() : value_{} {}
  constexpr Relaxed(T value) : value_(value) {}  // NOLINT: implicit by design
  Relaxed(const Relaxed &other) : value_(other.load()) {}
  Relaxed &operator=(const Relaxed &other) {
    store(other.load());
    return *this;
  }

  T load() const { return value_.load(std::memory_order_relaxed); }
  void store(T value) { value_.store(value, std::memory_order_relaxed); }
  operator T() const { return load(); }  // NOLINT: implicit by design
  // For the one hand-over that must carry what the writer did before it: the
  // writer's last store releases, the reader that sees it acquires.
  void StoreRelease(T value) { value_.store(value, std::memory_order_release); }
  T LoadAcquire() const { return value_.load(std::memory_order_acquire); }
  Relaxed &operator=(T value) {
    store(value);
    return *this;
  }

  // Read-modify-write for counters that only one thread writes: a load and a
  // store, not an atomic increment, exactly as a plain field would behave.
  Relaxed &operator+=(T amount) {
    store(load() + amount);
    return *this;
  }
  Relaxed &operator-=(T amount) {
    store(load() - amount);
    return *this;
  }
  Relaxed &operator++() { return *this += T(1); }

 private:
  std::atomic<T> value_;
};
