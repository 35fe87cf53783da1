#include "flash/flash_catalogue.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "board/registers.h"
#include "foundation/logger.h"
#include "foundation/console_io.h"

namespace {

constexpr const char *kStaticImageName = "static.bin";
// Address space that one model's loose images may take.
constexpr uint64_t kModelImageBudget = 0x100000000ull;
// The directory of a model's images: its alias, or else its identity.
std::filesystem::path ModelDirectory(const std::string &identity, BoardModel model) {
  const char *alias = ModelDirectoryAliasTable(model);
  return std::filesystem::path("./bitstreams") / ("CKB-" + (alias ? std::string(alias) : identity));
}

// The slot numbers that a file name spells, or false when a character isn't
// one of the digits.
bool SlotsOfName(const std::string &name, std::vector<uint8_t> *slots) {
  for (char c : name) {
    int digit = FlashImageDigitTable(c);
    if (digit < 0) return false;
    slots->push_back(static_cast<uint8_t>(digit));
  }
  return !name.empty();
}

// Walks the sorted list once: an image that would take the total past the
// budget is dropped, and the walk goes on with the next.
void KeepWithinBudget(std::vector<FlashImage> &images) {
  std::vector<FlashImage> kept;
  uint64_t total = 0;
  for (FlashImage &image : images) {
    if (total + image.file.Size() > kModelImageBudget) continue;
    total += image.file.Size();
    kept.push_back(std::move(image));
  }
  images = std::move(kept);
}

}  // namespace

bool LoadFlashCatalogue(FlashCatalogue &catalogue) {
  std::error_code error;
  if (!std::filesystem::is_directory("./bitstreams", error)) {
    LOG_COLOR(ConsoleColorRed, VLLogLevelError, "Miner",
              "The folder ./bitstreams is missing: run the miner from the folder that holds bitstreams/, or create "
              "it with one folder per board model (see bitstreams/README.md)");
    return false;
  }
  std::vector<std::string> identities = ModelIdentities();
  std::sort(identities.begin(), identities.end());
  for (const std::string &identity : identities) {
    BoardModel model = ModelNameTable(identity);
    // Throws for a missing directory; nothing catches it.
    std::vector<std::filesystem::path> files;
    for (const auto &entry : std::filesystem::directory_iterator(ModelDirectory(identity, model))) {
      if (entry.is_regular_file()) files.push_back(entry.path());
    }
    // A stable order, whatever order the file system lists them in.
    std::sort(files.begin(), files.end());

    std::vector<FlashImage> &images = catalogue.flashImages[model];
    for (const std::filesystem::path &path : files) {
      std::string name = path.filename().string();
      if (name == kStaticImageName) {
        // Of identities that share a model, the first with a file counts.
        catalogue.staticImages.emplace(model, FlashImage{MappedFile(path), {}});
        continue;
      }
      std::vector<uint8_t> slots;
      if (!SlotsOfName(name, &slots)) continue;
      images.push_back(FlashImage{MappedFile(path), std::move(slots)});
    }
    std::stable_sort(images.begin(), images.end(),
                     [](const FlashImage &a, const FlashImage &b) { return a.slots.size() < b.slots.size(); });
    KeepWithinBudget(images);
    if (images.empty()) catalogue.flashImages.erase(model);
  }
  return true;
}
