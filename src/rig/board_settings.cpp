#include "rig/board_settings.h"

#include <cstdio>

#include "foundation/console_io.h"
#include "foundation/json.h"
#include "foundation/logger.h"

namespace {

constexpr const char *kTag = "Miner";

bool IsNumber(const VLObject *value) { return VLObjectType(value) == VLTypeNumber; }
bool IsString(const VLObject *value) { return VLObjectType(value) == VLTypeString; }

// A new dictionary key; the dictionary retains its own reference.
void SetEntry(VLObject *dictionary, const char *key, VLObject *ownedValue) {
  VLRef value(ownedValue);
  VLRef name(VLStringCreate(key, 0));
  VLDictionarySet(dictionary, value.get(), name.get());
}

// {"devices": [{"model", "dna", "clock" (MHz, real), "disabled"}, ...]}
VLRef BuildConfigurationDocument(const MiningContext &context) {
  VLRef devices(VLArrayCreate(static_cast<uint32_t>(context.workers.size())));
  for (const auto &worker : context.workers) {
    VLRef entry(VLDictionaryCreate(4));
    SetEntry(entry.get(), "model", VLStringCreate(worker->modelName.c_str(), 0));
    SetEntry(entry.get(), "dna", VLStringCreate(worker->dna.c_str(), 0));
    SetEntry(entry.get(), "clock",
             VLNumberCreateReal(static_cast<double>(worker->targetClockHz.load()) / 1000.0 / 1000.0));
    SetEntry(entry.get(), "disabled", VLNumberCreateBool(!worker->enabled));
    VLArrayAppend(devices.get(), entry.get());
  }
  VLRef document(VLDictionaryCreate(1));
  SetEntry(document.get(), "devices", devices.Take());
  return document;
}

bool WriteWholeFile(const char *path, const char *text, size_t length) {
  FILE *file = fopen(path, "w");
  if (file == nullptr) return false;
  bool written = fwrite(text, 1, length, file) == length;
  // A full disk may only show when the buffer is flushed at close.
  bool closed = fclose(file) == 0;
  return written && closed;
}

}  // namespace

void MergeStoredDeviceSettings(Worker &worker, const VLObject *devices) {
  if (VLObjectType(devices) != VLTypeArray) return;
  for (uint32_t i = 0; i < VLArrayCount(devices); i++) {
    const VLObject *entry = VLArrayGet(devices, i);
    if (VLObjectType(entry) != VLTypeDictionary) continue;
    const VLObject *dna = VLDictionaryGetByName(entry, "dna");
    if (!IsString(dna) || worker.dna != VLStringChars(dna)) continue;
    const VLObject *clock = VLDictionaryGetByName(entry, "clock");
    if (IsNumber(clock)) worker.targetClockHz = static_cast<uint64_t>(VLNumberGetInt64(clock)) * 1000000;
    const VLObject *disabled = VLDictionaryGetByName(entry, "disabled");
    if (IsNumber(disabled)) worker.enabled = !VLNumberGetBool(disabled);
  }
}

void SaveConfiguration(MiningContext &context) {
  VL_LOG(VLLogLevelInfo, kTag, "Saving configuration");
  VLRef document = BuildConfigurationDocument(context);
  VLRef text(VLObjectSerialize(document.get(), VLFormatJson));
  if (text && WriteWholeFile("config.json", VLStringChars(text.get()), VLStringLength(text.get()))) {
    LOG_COLOR(ConsoleColorGreen, VLLogLevelError, kTag, "Saved active configuration to config.json");
  } else {
    LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag, "Failed to save active configuration to config.json");
  }
}
