// The status table that the console prints every few seconds, and the
// banner that follows it when a regulator runs too hot.
#pragma once

#include <cstdint>

#include "console/console_session.h"

// Prints header, rule, one line per worker and the total, as of `nowSeconds`
// on the monotonic clock. Updates each printed worker's shown counters and
// sets session.vrmWarning when a printed row's VRM is above its rating.
void PrintStatusTable(ConsoleSession &session, uint64_t nowSeconds);

void PrintVrmBanner();
