// Prometheus metrics of a run, in the text exposition format (served at
// /metrics, see monitor/http_pages.h).
#pragma once

#include <string>

#include "monitor/snapshot.h"

std::string MetricsText(const RunSnapshot &run, const std::string &version);
