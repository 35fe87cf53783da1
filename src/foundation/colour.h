// Colour on the console: escape sequences reach a stream only when it is a
// terminal and NO_COLOR is not set, so pipes, files and the journal get plain
// text and the same lines otherwise. CLICOLOR_FORCE=1 asks for colour into a
// pipe as well.
#pragma once

#include <cstdio>

// True when `stream` (standard output or error) takes colour sequences.
bool VLStreamTakesColour(FILE *stream);

// Forces colour on (1) or off (0) on both streams, or lets each stream decide
// again (-1). For tests that look at the colours of captured output.
void VLForceColour(int mode);

// Writes a colour sequence to standard output when it takes colour.
void VLWriteColour(const char *sequence);

// Removes every "ESC [ ... m" sequence from `text`, in place.
void VLStripColour(char *text);
