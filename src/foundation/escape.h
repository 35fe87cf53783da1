// Text from outside (a pool's lines, an API request, a settings file, a
// board's name) made fit for a log line or a screen: nothing in it can move
// the cursor, clear the screen, set a window title or start a line of its own.
//
// Control characters (bytes 0-31, DEL, and U+0080-U+009F), the marks that
// reorder displayed text (U+202A-U+202E, U+2066-U+2069) are written as
// \u001b-style escapes, bytes that are no part of valid UTF-8 as \xff-style
// ones; everything else stays as it is.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "foundation/object.h"

// The input bytes shown by default; a longer text is cut there.
constexpr size_t kVLEscapeLimit = 1024;

// The escaped text of at most `limit` input bytes; a longer text ends in
// "... (N bytes)" with its whole length.
std::string VLEscapeControl(std::string_view text, size_t limit = kVLEscapeLimit);
// The same for C text and for a string value; "(null)" for a null pointer or
// a value that is no string.
std::string VLEscapeControl(const char *text, size_t limit = kVLEscapeLimit);
std::string VLEscapeControl(const VLObject *string, size_t limit = kVLEscapeLimit);

// Escapes `text` into `out` (`size` bytes, terminator included), cutting
// before an escape that would not fit. With `keepColour` a colour sequence
// (ESC [ digits and semicolons m) stays whole: the logger's own colours.
// Returns the length written.
size_t VLEscapeInto(char *out, size_t size, const char *text, size_t length, bool keepColour);
