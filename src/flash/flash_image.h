// Flash images as the catalogue holds them: read-only memory mappings of
// whole files, kept for the run.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

// A read-only mapping of a file. Movable, not copyable; unmaps when
// destroyed. A file that can't be opened or mapped throws
// std::filesystem::filesystem_error.
class MappedFile {
 public:
  MappedFile() = default;
  // Offset 0 and length 0 map the whole file. A file of no bytes maps to an
  // empty view.
  explicit MappedFile(const std::filesystem::path &path, uint64_t offset = 0, uint64_t length = 0);
  ~MappedFile();
  MappedFile(MappedFile &&other) noexcept;
  MappedFile &operator=(MappedFile &&other) noexcept;
  MappedFile(const MappedFile &) = delete;
  MappedFile &operator=(const MappedFile &) = delete;

  const uint8_t *Data() const { return data_; }
  uint64_t Size() const { return size_; }

 private:
  void Unmap();

  void *mapping_ = nullptr;  // the page-aligned region handed to munmap
  size_t mappingLength_ = 0;
  const uint8_t *data_ = nullptr;
  uint64_t size_ = 0;
};

struct FlashImage {
  MappedFile file;
  std::vector<uint8_t> slots;  // from the file name's characters; none for "static.bin"
};
