// Values to JSON text, in the exact layout the saved configuration and the
// pool link use. Reading JSON is json_bounded.h's: strict, within limits.
#pragma once

#include <cstdint>

#include "foundation/object.h"

enum : uint32_t {
  VLFormatJson = 3,  // the one format this program writes
};

// JSON text (a new string) for VLFormatJson; any other format gives null.
VLObject *VLObjectSerialize(const VLObject *obj, uint32_t format);

// The writer: the saved configuration's layout.
VLObject *VLJsonWrite(const VLObject *root);
// The same values on one line, with no blanks outside strings and no line end.
VLObject *VLJsonWriteCompact(const VLObject *root);

// Escapes for the writer: bytes 0-31 as \u00XX (upper-case hex), quote and
// backslash with a backslash; every other byte as it is.
VLObject *VLStringJsonEscape(const char *text, uint32_t length);
