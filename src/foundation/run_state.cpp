#include "foundation/run_state.h"

Relaxed<uint32_t> g_runState{RunStateRunning};
