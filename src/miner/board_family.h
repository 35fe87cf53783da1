#pragma once
#include "miner/run_records.h"
inline bool IsWideFamily(BoardModel model) { return model >= 2 && model <= 4; }
