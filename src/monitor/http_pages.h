// The metrics port over plain HTTP, one request per connection: GET / is the
// status page, GET /status.json what the page shows (refetched every few
// seconds), GET /metrics the Prometheus text; every other request 404. All of
// it is read-only: nothing here changes the run.
#pragma once

#include <functional>
#include <string>

// Whether the bytes so far hold a whole request head (up to the blank line).
bool HttpRequestComplete(const std::string &request);

// Bodies made on demand: each is asked for only when its path is requested.
struct HttpContent {
  std::function<std::string()> metrics;
  std::function<std::string()> status;
};

// The HTTP answer to `request`.
std::string HttpAnswer(const std::string &request, const HttpContent &content);

// The status page: one self-contained document (no external scripts, fonts
// or styles), for a farm LAN without internet.
const std::string &StatusPage();
