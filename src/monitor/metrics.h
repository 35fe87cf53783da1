// Prometheus metrics of a run over plain HTTP: GET /metrics answers the text
// exposition format, every other request 404.
#pragma once

#include <functional>
#include <string>

#include "monitor/snapshot.h"

std::string MetricsText(const RunSnapshot &run, const std::string &version);

// Whether the bytes so far hold a whole request head (up to the blank line).
bool HttpRequestComplete(const std::string &request);

// The HTTP answer to `request`; `metrics` is asked only for GET /metrics.
std::string MetricsHttpAnswer(const std::string &request, const std::function<std::string()> &metrics);
