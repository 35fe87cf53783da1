// What the monitoring side shows of a run: plain copies of the run's
// counters and readings, taken by the miner whenever a client asks, so that
// nothing here reaches into the boards or the pool connection.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

struct BoardSnapshot {
  uint64_t id = 0;  // counted from 1
  std::string model;
  std::string path;
  std::string dna;
  std::string pciAddress;  // empty where the system names none
  bool enabled = false;
  std::string status;  // Alive, Sick, Dead or Disabled
  // NaN where the board gave no reading.
  double temperature = 0;
  double vrmTemperature = 0;
  double vccint = 0;
  double clockMHz = 0;
  double targetMHz = 0;
  double throttleMHz = 0;  // how far the thermal rule holds the clock under the target
  std::string tuning;      // Off, Active or Done
  double nominalMHs = 0;
  double mhs1m = 0;
  double mhs5m = 0;
  double mhs15m = 0;
  uint64_t found = 0;
  uint64_t accepted = 0;
  uint64_t rejected = 0;
  uint64_t hardwareErrors = 0;
  int64_t lastShareTime = 0;  // Unix seconds, 0 for none
  double elapsed = 0;         // seconds since the board started mining
};

struct PoolSnapshot {
  uint32_t priority = 0;  // 0 for the primary
  std::string url;
  std::string user;
  bool alive = false;
  bool active = false;
  double difficulty = 0;
  uint64_t jobs = 0;
  uint64_t accepted = 0;
  uint64_t rejected = 0;
  // The rejected shares split by the reason the pool gave, as far as the
  // miner tells reasons apart; the counts add up to `rejected`.
  std::vector<std::pair<std::string, uint64_t>> rejectedByReason;
  uint64_t reconnects = 0;
  int64_t lastShareTime = 0;
  int64_t lastJobTime = 0;
};

struct RunSnapshot {
  double elapsed = 0;
  double mhsAverage = 0;  // effective, over the whole run
  double mhs5s = 0;
  double mhs1m = 0;
  double mhs5m = 0;
  double mhs15m = 0;
  double nominalMHs = 0;
  uint64_t found = 0;
  uint64_t accepted = 0;
  uint64_t rejected = 0;
  uint64_t hardwareErrors = 0;
  uint64_t droppedWhileDisconnected = 0;
  int64_t lastShareTime = 0;
  std::vector<BoardSnapshot> boards;
  std::vector<PoolSnapshot> pools;
  // The run's settings as the config command shows them.
  std::vector<std::pair<std::string, std::string>> config;
};
