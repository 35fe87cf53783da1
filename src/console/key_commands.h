// The operator's single-key commands while mining.
#pragma once

#include "console/console_session.h"

// Acts on one key press; does nothing once the run is stopping.
void HandleKey(ConsoleSession &session, char key);
