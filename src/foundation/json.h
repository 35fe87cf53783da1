// Values to text and back. One entry reads and picks the format from the
// first bytes of its input; one entry writes in the format it is given.
// JSON is what the program really speaks (pool messages, config.json).
//
// The JSON reader is a forgiving scanner, not a validator: it never reports a
// syntax error, skips bytes it doesn't know (commas and colons included) and
// returns what it has. Its quirks are deliberate and relied upon:
//  - integers go through a double: non-negative ones become VLNumberUInt64,
//    negative ones VLNumberInt32 (cut to 32 bits); a '.' makes a real;
//  - literals are decided by their first byte (t/T, f/F, n/N);
//  - escapes \f and \r decode to the bytes 20 and 19; \uXXXX gives raw bytes,
//    not UTF-8, and \u0000 gives nothing;
//  - truncated input yields the complete part; a number or string cut off by
//    the end of the input is lost.
// Nesting depth is unlimited and costs heap, not stack.
#pragma once

#include <cstdint>

#include "foundation/object.h"

enum : uint32_t {
  VLFormatXmlPlist = 1,  // also any number that isn't one of the others
  VLFormatBinaryPlist = 2,
  VLFormatJson = 3,
};

// Reads a string or data value (not consumed). Input that starts "bplist" goes
// to the binary property-list reader, input of two bytes or more that starts
// with '{', '[' or '"' to the JSON reader, anything else to the XML
// property-list reader. New value, or null when none was found.
VLObject *VLObjectParse(const VLObject *source);

// JSON text (a new string) for VLFormatJson. The property-list writers are not
// part of this program: other formats give null.
VLObject *VLObjectSerialize(const VLObject *obj, uint32_t format);

// The JSON reader on raw bytes, and the writer.
VLObject *VLJsonRead(const char *bytes, uint32_t length);
VLObject *VLJsonWrite(const VLObject *root);
// The same values on one line, with no blanks outside strings and no line end.
VLObject *VLJsonWriteCompact(const VLObject *root);

// Escapes for the writer: bytes 0-31 as \u00XX (upper-case hex), quote and
// backslash with a backslash; every other byte as it is.
VLObject *VLStringJsonEscape(const char *text, uint32_t length);
// Decodes the text between a string's quotes (see the notes above).
VLObject *VLStringJsonUnescape(const char *text, uint32_t length);
