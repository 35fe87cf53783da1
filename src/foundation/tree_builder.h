// Assembles values from a scanner that reports leaves, container openings and
// ends, keeping open containers on an explicit stack. The text readers use it
// so that nesting depth costs heap, not call stack, and the result is what a
// recursive scan would build: an end closes the innermost container, which
// then counts as a value of its parent, and a dictionary pairs values as key,
// value, key, ... dropping a key whose value never came.
#pragma once

#include <vector>

#include "foundation/object.h"

enum class VLScanFound { kEnd, kValue, kArray, kDictionary };

// `seek(VLObject **value)` returns what it found; with kValue it stores a new
// value. Returns the top-level value, or null.
template <typename Seek>
VLObject *VLBuildTree(Seek seek) {
  struct Frame {
    VLObject *container;
    VLObject *key;
  };
  std::vector<Frame> stack;
  for (;;) {
    VLObject *value = nullptr;
    VLScanFound found = seek(&value);
    if (found == VLScanFound::kArray) {
      stack.push_back({VLArrayCreate(1), nullptr});
      continue;
    }
    if (found == VLScanFound::kDictionary) {
      stack.push_back({VLDictionaryCreate(1), nullptr});
      continue;
    }
    for (;;) {
      if (stack.empty()) return value;
      Frame &frame = stack.back();
      if (!value) {
        VLObjectRelease(frame.key);
        value = frame.container;
        stack.pop_back();
        continue;
      }
      if (frame.container->type == VLTypeArray) {
        VLArrayAppend(frame.container, value);
        VLObjectRelease(value);
      } else if (!frame.key) {
        frame.key = value;
      } else {
        VLDictionarySet(frame.container, value, frame.key);
        VLObjectRelease(value);
        VLObjectRelease(frame.key);
        frame.key = nullptr;
      }
      break;
    }
  }
}
