// One run of the unmodified miner on a terminal, with in-process simulated
// boards and the test pool over TCP: keys in, faults into the boards through
// the simulator's command pipe, and what both sides recorded out.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/sim_boards.h"
#include "support/test_pool.h"

namespace e2e {

using namespace std::chrono_literals;

// A narrow board without a regulator sensor and a wide one with it.
constexpr const char *kTwoBoards = "xdma0 model=7\nxdma1 model=2\n";

// A count from a pool's statistics file; a reason of rejection counts too.
inline uint64_t PoolCount(const testing_support::TestPool &pool, const std::string &name) {
  std::string stats = pool.Stats();
  size_t at = stats.find("\"" + name + "\":");
  return at == std::string::npos ? 0 : std::strtoull(stats.c_str() + at + name.size() + 3, nullptr, 10);
}

// Rejections that say the miner got something wrong. A share that crosses a
// new job on the way is "stale", which no miner can avoid.
inline uint64_t WrongfullyRejected(const testing_support::TestPool &pool) {
  return PoolCount(pool, "rejected") - PoolCount(pool, "stale");
}

// The job ids of every share a pool was sent: the second parameter.
inline std::set<std::string> SubmittedJobIds(const testing_support::TestPool &pool) {
  std::set<std::string> jobs;
  for (const std::string &line : pool.ClientLines()) {
    nlohmann::json message = nlohmann::json::parse(line, nullptr, false);
    if (message.is_object() && message.value("method", "") == "mining.submit" && message["params"][1].is_string()) {
      jobs.insert(message["params"][1].get<std::string>());
    }
  }
  return jobs;
}

// A status table: its rows' columns by worker number.
using Table = std::map<unsigned, std::vector<std::string>>;

// Each status table in `output`, from its header row on.
inline std::vector<Table> Tables(const std::string &output) {
  const std::string prefix = "I/Miner        : ";
  std::vector<Table> tables;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (line.find("Id | Model |") != std::string::npos) tables.emplace_back();
    unsigned number = 0;
    if (tables.empty() || line.rfind(prefix, 0) != 0 || line.compare(prefix.size() + 2, 2, " |") != 0 ||
        sscanf(line.c_str() + prefix.size(), "%2u |", &number) != 1) {
      continue;
    }
    std::stringstream row(line.substr(prefix.size()));
    for (std::string column; std::getline(row, column, '|');) tables.back()[number].push_back(column);
  }
  return tables;
}

inline std::string ReadFile(const std::filesystem::path &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class MinerRun {
 public:
  MinerRun(const std::string &boardList, std::vector<std::string> poolOptions)
      : pool_(std::move(poolOptions)), boards_(boardList) {}

  // Starts the miner against the pool, with `options` after the positional
  // words; true once it has said whom it mines for. `scheme` makes the pool
  // word a URL, e.g. "stratum+ssl", with `hostName` as its host.
  bool Start(const std::vector<std::string> &options = {}, const std::string &scheme = "",
             const std::string &hostName = "127.0.0.1") {
    if (pool_.Port() == 0) return false;
    control_ = (boards_.WorkDir() / "control").string();
    std::string port = std::to_string(pool_.Port());
    std::string host = scheme.empty() ? "127.0.0.1" : scheme + "://" + hostName + ":" + port;
    std::vector<std::string> args = {miner_testing::SimMiner(), "ckb", host, port, "wallet.rig", password};
    args.insert(args.end(), options.begin(), options.end());
    std::vector<std::string> env = boards_.Env();
    env.insert(env.end(), environment.begin(), environment.end());
    env.push_back("OMBRY_SIM_CONTROL=" + control_);
    child_ = std::make_unique<testing_support::PtyProcess>(args, env, nullptr, WorkDir().string());
    return child_->WaitFor("Using Account: wallet.rig");
  }

  // A board command such as "xdma0 hot=95", as an operator's test rig would
  // send it while the miner runs.
  bool Command(const std::string &line) {
    for (int i = 0; i < 1000 && access(control_.c_str(), F_OK) != 0; i++) std::this_thread::sleep_for(10ms);
    int fd = open(control_.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    std::string text = line + "\n";
    bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return written;
  }

  // Waits, reading the miner's output all the while so that it never blocks
  // on a full terminal, until `done` holds or the hang guard runs out: a run
  // longer than any row should take ends in a failure, not a hung suite.
  template <typename Predicate>
  bool Until(Predicate done, std::chrono::seconds limit = 180s) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      Pump(100ms);
    }
    return true;
  }

  // The operator's q; the miner's exit code once it has ended.
  int Quit() {
    child_->Type("q");
    return child_->Wait();
  }

  void Pump(std::chrono::milliseconds time) { child_->WaitFor("\x01 never printed", time, Output().size()); }

  // A count from the pool's statistics file.
  uint64_t Pool(const std::string &name) const { return PoolCount(pool_, name); }

  size_t Count(const std::string &text, size_t from = 0) const {
    size_t count = 0;
    for (size_t at = Output().find(text, from); at != std::string::npos; at = Output().find(text, at + 1)) count++;
    return count;
  }

  // The columns of worker `number`'s last row printed after `from`; empty
  // when there is none.
  std::vector<std::string> LastRow(unsigned number, size_t from = 0) const {
    std::string lines = Lines();
    std::vector<Table> tables = Tables(from < lines.size() ? lines.substr(from) : "");
    for (auto table = tables.rbegin(); table != tables.rend(); ++table) {
      if (table->count(number) != 0) return table->at(number);
    }
    return {};
  }

  // Current and target clock in MHz of a worker's last row; {-1, -1} without one.
  std::pair<int, int> LastClock(unsigned number, size_t from = 0) const {
    auto columns = LastRow(number, from);
    int current = -1, target = -1;
    if (columns.size() > 5) sscanf(columns[5].c_str(), "%d / %d", &current, &target);
    return {current, target};
  }

  // The sum of the Accepted column over the last table's rows.
  uint64_t TableAccepted(unsigned workers) const {
    uint64_t sum = 0;
    for (unsigned number = 1; number <= workers; number++) {
      auto columns = LastRow(number);
      if (columns.size() > 9) sum += std::stoull(columns[9]);
    }
    return sum;
  }

  // The clock of the first board in the settings the 's' key saved; -1 before.
  double SavedClock() const {
    std::string saved = ReadFile(WorkDir() / "config.json");
    size_t clock = saved.find("\"clock\":");
    return clock == std::string::npos ? -1 : std::stod(saved.substr(clock + 8));
  }

  testing_support::PtyProcess &Child() { return *child_; }
  testing_support::TestPool &PoolProcess() { return pool_; }
  const std::string &Output() const { return child_->Output(); }
  // The output up to its last whole line: a read from the terminal can end
  // in the middle of a table row.
  std::string Lines() const { return Output().substr(0, Output().rfind('\n') + 1); }
  const std::filesystem::path &WorkDir() const { return boards_.WorkDir(); }

  // Set before Start(): the pool password on the command line, and entries
  // ("NAME=value") for the miner's environment.
  std::string password = "x";
  std::vector<std::string> environment;

 private:
  testing_support::TestPool pool_;
  miner_testing::SimBoardList boards_;
  std::string control_;
  std::unique_ptr<testing_support::PtyProcess> child_;
};

// Sends `request` from `source` to a monitoring server of the miner on
// 127.0.0.1 and reads the answer until the server closes.
inline std::string Ask(uint16_t port, const std::string &request, const char *source = "127.0.0.1") {
  auto ipv4 = [](const char *host, uint16_t hostPort) {
    sockaddr_in address{AF_INET, htons(hostPort), {}, {}};
    inet_pton(AF_INET, host, &address.sin_addr);
    return address;
  };
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in local = ipv4(source, 0), address = ipv4("127.0.0.1", port);
  EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local), 0) << source;
  timeval limit{10, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  std::string answer;
  if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
    (void)!write(fd, request.data(), request.size());
    char buffer[4096];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) answer.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  return answer;
}

inline nlohmann::json Api(uint16_t port, const std::string &request, const char *source = "127.0.0.1") {
  nlohmann::json reply = nlohmann::json::parse(Ask(port, request, source), nullptr, false);
  return reply.is_discarded() ? nlohmann::json::object() : reply;
}

inline uint16_t PortAfter(const MinerRun &run, const std::string &text) {
  std::string lines = run.Lines();
  size_t at = lines.find(text);
  return at == std::string::npos ? 0 : static_cast<uint16_t>(std::stoul(lines.substr(at + text.size())));
}

}  // namespace e2e
