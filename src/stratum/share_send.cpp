#include "stratum/share.h"

// Placeholder until the pool connection lands: nothing is sent.
void SendShare(StratumContext &, const StratumJob &, const char *) {}
