// The two entries that turn values into text and back.
#include <cstring>

#include "foundation/json.h"
#include "foundation/object_internal.h"
#include "foundation/plist.h"

VLObject *VLObjectParse(const VLObject *source) {
  const char *bytes;
  uint32_t length;
  if (VLIsType(source, VLTypeString)) {
    bytes = source->string.chars;
    length = source->string.length;
  } else if (VLIsType(source, VLTypeData)) {
    bytes = reinterpret_cast<const char *>(source->data.bytes);
    length = source->data.length;
  } else {
    return nullptr;
  }
  // The format is chosen on the first bytes alone; leading blanks are not
  // skipped, so such text goes to the XML reader and gives null.
  if (length > 5 && memcmp(bytes, "bplist", 6) == 0) {
    return VLPlistBinaryRead(reinterpret_cast<const uint8_t *>(bytes), length);
  }
  if (length > 1 && (bytes[0] == '{' || bytes[0] == '[' || bytes[0] == '"')) return VLJsonRead(bytes, length);
  return VLPlistXmlRead(bytes, length);
}

VLObject *VLObjectSerialize(const VLObject *obj, uint32_t format) {
  if (!obj || format != VLFormatJson) return nullptr;
  return VLJsonWrite(obj);
}
