#include "miner/run_config.h"

#include <cstdlib>

// Placeholder until the run configuration lands: pool settings from the
// argument vector, every worker enabled, no thread started.
void SetupRun(MiningContext &context, int argc, char **argv) {
  if (argc > 5) {
    context.poolHost = argv[2];
    context.poolPort = static_cast<uint16_t>(atoi(argv[3]));
    context.account = argv[4];
    context.password = argv[5];
  }
  for (size_t i = 0; i < context.workers.size(); i++) {
    context.workers[i]->id = i;
    context.workers[i]->enabled = true;
  }
}
