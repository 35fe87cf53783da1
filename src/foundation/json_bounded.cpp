// The strict reader on nlohmann-json's event (SAX) parser, which keeps its
// own nesting on a heap stack. The handler below counts and stops at a
// limit, and builds values only when asked to.
#include "foundation/json_bounded.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "foundation/text.h"

namespace {

using Json = nlohmann::json;

class BoundedReader {
 public:
  BoundedReader(const VLJsonLimits &limits, bool build) : limits_(limits), build_(build) {}
  ~BoundedReader() {
    for (Frame &frame : frames_) frame.Release();
    VLObjectRelease(root_);
  }
  BoundedReader(const BoundedReader &) = delete;
  BoundedReader &operator=(const BoundedReader &) = delete;

  VLJsonRefusal Refusal() const { return refusal_; }
  VLObject *TakeRoot() {
    VLObject *root = root_;
    root_ = nullptr;
    return root;
  }

  // ---- The parser's events; false stops the parse. ----
  bool null() {
    return Leaf([] { return VLNullCreate(); });
  }
  bool boolean(bool value) {
    return Leaf([&] { return VLNumberConstant(VLNumberBool, value ? 1 : 0, 0, 0.0); });
  }
  bool number_integer(Json::number_integer_t value) {
    // Only negative integers come here; those beyond 32 bits keep their value as a real.
    return Leaf([&] {
      if (value >= INT32_MIN) return VLNumberCreateInt32(static_cast<uint32_t>(static_cast<int32_t>(value)));
      return VLNumberCreateReal(static_cast<double>(value));
    });
  }
  bool number_unsigned(Json::number_unsigned_t value) {
    return Leaf([&] { return VLNumberCreateUInt64(value); });
  }
  bool number_float(Json::number_float_t value, const Json::string_t &) {
    return Leaf([&] { return VLNumberCreateReal(value); });
  }
  bool string(Json::string_t &value) {
    return Leaf([&] { return NewString(value); });
  }
  bool binary(Json::binary_t &) { return Refuse(VLJsonRefusal::kNotJson); }
  bool start_object(std::size_t) { return Open(true); }
  bool key(Json::string_t &name) {
    if (!Count()) return false;
    if (build_) frames_.back().pendingKey = std::move(name);
    return true;
  }
  bool end_object() { return Close(); }
  bool start_array(std::size_t) { return Open(false); }
  bool end_array() { return Close(); }
  bool parse_error(std::size_t, const std::string &, const nlohmann::detail::exception &) {
    return Refuse(VLJsonRefusal::kNotJson);
  }

 private:
  // An open container: its members so far, made into a value at its end.
  struct Frame {
    bool object = false;
    std::vector<VLObject *> keys;  // objects only, parallel to values
    std::vector<VLObject *> values;
    std::unordered_map<std::string, size_t> index;  // key text to its place
    std::string pendingKey;

    void Release() {
      for (VLObject *key : keys) VLObjectRelease(key);
      for (VLObject *value : values) VLObjectRelease(value);
      keys.clear();
      values.clear();
    }
  };

  static VLObject *NewString(std::string &text) {
    // Zero bytes are left out: the text is also read as a C string.
    text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
    return VLStringCreate(text.c_str(), static_cast<uint32_t>(text.size()));
  }

  bool Refuse(VLJsonRefusal why) {
    if (refusal_ == VLJsonRefusal::kNone) refusal_ = why;
    return false;
  }

  bool Count() { return ++values_ <= limits_.values || Refuse(VLJsonRefusal::kTooManyValues); }

  template <typename Make>
  bool Leaf(Make make) {
    if (frames_.empty()) return Refuse(VLJsonRefusal::kNotObject);
    if (!Count()) return false;
    if (build_) Add(make());
    return true;
  }

  bool Open(bool object) {
    if (frames_.empty() && (!object || opened_)) return Refuse(VLJsonRefusal::kNotObject);
    if (frames_.size() >= limits_.depth) return Refuse(VLJsonRefusal::kTooDeep);
    if (!Count()) return false;
    opened_ = true;
    frames_.emplace_back();
    frames_.back().object = object;
    return true;
  }

  bool Close() {
    Frame frame = std::move(frames_.back());
    frames_.pop_back();
    VLObject *container = build_ ? Build(frame) : nullptr;
    if (frames_.empty()) {
      root_ = container;
    } else if (build_) {
      Add(container);
    }
    return true;
  }

  static VLObject *Build(Frame &frame) {
    auto count = static_cast<uint32_t>(frame.values.size());
    VLObject *container;
    if (frame.object) {
      container = VLDictionaryCreate(count);
      // The keys are distinct already: taken over as they are, in order.
      std::copy(frame.keys.begin(), frame.keys.end(), container->dictionary.keys);
      std::copy(frame.values.begin(), frame.values.end(), container->dictionary.values);
      container->dictionary.count = count;
    } else {
      container = VLArrayCreate(count);
      for (VLObject *value : frame.values) {
        VLArrayAppend(container, value);
        VLObjectRelease(value);
      }
    }
    frame.keys.clear();
    frame.values.clear();
    return container;
  }

  // A finished value into the innermost container.
  void Add(VLObject *value) {
    Frame &frame = frames_.back();
    if (!frame.object) {
      frame.values.push_back(value);
      return;
    }
    auto [place, fresh] = frame.index.try_emplace(frame.pendingKey, frame.values.size());
    if (!fresh) {
      VLObjectRelease(frame.values[place->second]);
      frame.values[place->second] = value;
      return;
    }
    frame.keys.push_back(NewString(frame.pendingKey));
    frame.values.push_back(value);
  }

  const VLJsonLimits &limits_;
  bool build_;
  std::vector<Frame> frames_;
  bool opened_ = false;  // the top-level object has begun
  uint64_t values_ = 0;
  VLObject *root_ = nullptr;
  VLJsonRefusal refusal_ = VLJsonRefusal::kNone;
};

VLJsonRefusal Read(const char *bytes, size_t length, const VLJsonLimits &limits, VLObject **root) {
  if (!bytes) return VLJsonRefusal::kNotJson;
  if (length > limits.bytes) return VLJsonRefusal::kTooLong;
  BoundedReader reader(limits, root != nullptr);
  bool parsed = Json::sax_parse(bytes, bytes + length, &reader);
  if (!parsed) return reader.Refusal() == VLJsonRefusal::kNone ? VLJsonRefusal::kNotJson : reader.Refusal();
  if (root) *root = reader.TakeRoot();
  return VLJsonRefusal::kNone;
}

}  // namespace

std::string VLJsonRefusalText(VLJsonRefusal why, const VLJsonLimits &limits) {
  switch (why) {
    case VLJsonRefusal::kNone: return "nothing wrong";
    case VLJsonRefusal::kNotJson:
    case VLJsonRefusal::kNotObject: return "not a JSON object";
    case VLJsonRefusal::kTooLong: return "over " + std::to_string(limits.bytes) + " bytes";
    case VLJsonRefusal::kTooDeep: return "nested deeper than " + std::to_string(limits.depth) + " levels";
    case VLJsonRefusal::kTooManyValues: return "more than " + VLThousands(limits.values) + " values";
  }
  return "refused";
}

VLObject *VLJsonReadObject(const char *bytes, size_t length, const VLJsonLimits &limits, VLJsonRefusal *why) {
  VLObject *root = nullptr;
  VLJsonRefusal refusal = Read(bytes, length, limits, &root);
  if (why) *why = refusal;
  return root;
}

VLJsonRefusal VLJsonCheckObject(const char *bytes, size_t length, const VLJsonLimits &limits) {
  return Read(bytes, length, limits, nullptr);
}
