// Parse time of pool traffic through the strict reader the pool link uses:
// one typical mining.notify line, and a full 32 KiB socket read of
// concatenated lines, split and read line by line as the transport does.
#include <benchmark/benchmark.h>

#include <string>
#include <string_view>

#include "foundation/json_bounded.h"
#include "foundation/object.h"

namespace {

const char kNotify[] =
    "{\"id\":null,\"method\":\"mining.notify\",\"params\":[\"17f4\","
    "\"d1bc1f5eab1d8b6c8a2bd7e84e7e2fda0a8c8e0c5a2e7d2a6d5e4c3b2a190807\",1234567,"
    "\"0b1c2d3e4f5a6b7c8d9e0f1a2b3c4d5e6f7a8b9c0d1e2f3a4b5c6d7e8f9a0b1c\",true]}";

void BM_ParseNotifyLine(benchmark::State &state) {
  const std::string_view line(kNotify);
  for (auto _ : state) {
    VLRef parsed(VLJsonReadObject(line.data(), line.size(), VLJsonLimits{}, nullptr));
    benchmark::DoNotOptimize(parsed.get());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(line.size()));
}
BENCHMARK(BM_ParseNotifyLine);

void BM_ParseRead32KiB(benchmark::State &state) {
  // Notify lines with the odd difficulty and share reply between them.
  const std::string lines[] = {
      std::string(kNotify) + "\n",
      "{\"id\":null,\"method\":\"mining.set_difficulty\",\"params\":[1024]}\n",
      "{\"id\":7,\"result\":true,\"error\":null}\n",
  };
  std::string read;
  for (size_t i = 0; read.size() + lines[i % 3].size() <= 32768; ++i) read += lines[i % 3];
  int64_t messages = 0;
  for (auto _ : state) {
    for (size_t start = 0, end; (end = read.find('\n', start)) != std::string::npos; start = end + 1) {
      VLRef parsed(VLJsonReadObject(read.data() + start, end - start, VLJsonLimits{}, nullptr));
      benchmark::DoNotOptimize(parsed.get());
      messages++;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(read.size()));
  state.counters["lines"] = static_cast<double>(messages) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_ParseRead32KiB);

}  // namespace
