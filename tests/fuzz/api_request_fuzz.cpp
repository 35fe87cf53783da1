// Whatever a client sends the API or the metrics endpoint: the API answers
// with one JSON object that has a STATUS, never runs a privileged command for
// a client without the right, and a privileged client gets a STATUS too. The
// metrics port answers 200 to GETs alone.
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "fuzz_check.h"
#include "monitor/api.h"
#include "monitor/http_pages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string text(reinterpret_cast<const char *>(data), size);
  RunSnapshot run;
  run.boards.resize(2);
  run.pools.resize(1);

  ApiActions refuse;
  refuse.enable = [](uint64_t) -> std::string { abort(); };
  refuse.disable = refuse.enable;
  refuse.switchPool = [](uint32_t) -> std::string { abort(); };
  refuse.quit = [] { abort(); };
  nlohmann::json reply =
      nlohmann::json::parse(ApiReply(text, false, run, refuse, "ombry-miner fuzz", 0), nullptr, false);
  Check(reply.is_object() && reply.contains("STATUS") && reply["STATUS"].size() == 1);

  ApiRequest request;
  bool parsed = ParseApiRequest(text, request);
  Check(!parsed || (!request.command.empty() && request.command.size() <= 64));
  ApiActions record;
  record.enable = [](uint64_t board) { return board == 0 ? std::string("none") : std::string(); };
  record.disable = record.enable;
  record.switchPool = [](uint32_t) { return std::string(); };
  record.quit = [] {};
  reply = nlohmann::json::parse(ApiReply(text, true, run, record, "ombry-miner fuzz", 0), nullptr, false);
  Check(reply.is_object() && reply.contains("STATUS"));

  HttpContent content;
  content.metrics = [] { return std::string("ombry_up 1\n"); };
  content.status = [&run] { return StatusJson(run, "ombry-miner fuzz", 0); };
  std::string answer = HttpAnswer(text, content);
  if (answer.rfind("HTTP/1.1 200 ", 0) == 0) Check(text.rfind("GET /", 0) == 0);
  Check(answer.find("\r\n\r\n") != std::string::npos);
  return 0;
}
