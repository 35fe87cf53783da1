#include "flash/flash_image.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace {

[[noreturn]] void Throw(const char *what, const std::filesystem::path &path, int error) {
  throw std::filesystem::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

}  // namespace

MappedFile::MappedFile(const std::filesystem::path &path, uint64_t offset, uint64_t length) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Throw("cannot open flash image", path, errno);
  struct stat info {};
  if (fstat(fd, &info) != 0) {
    int error = errno;
    close(fd);
    Throw("cannot read flash image size", path, error);
  }
  uint64_t fileSize = static_cast<uint64_t>(info.st_size);
  if (offset == 0 && length == 0) length = fileSize;
  if (offset > fileSize || length > fileSize - offset) {
    close(fd);
    Throw("flash image range lies outside the file", path, EINVAL);
  }
  if (length == 0) {
    close(fd);
    return;
  }
  // mmap wants a page-aligned offset; the view starts inside the first page.
  uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  uint64_t alignedOffset = offset - offset % page;
  size_t mappedLength = static_cast<size_t>(length + (offset - alignedOffset));
  void *mapping = mmap(nullptr, mappedLength, PROT_READ, MAP_PRIVATE, fd, static_cast<off_t>(alignedOffset));
  int error = errno;
  // The mapping keeps the file alive; the descriptor isn't needed.
  close(fd);
  if (mapping == MAP_FAILED) Throw("cannot map flash image", path, error);
  mapping_ = mapping;
  mappingLength_ = mappedLength;
  data_ = static_cast<const uint8_t *>(mapping) + (offset - alignedOffset);
  size_ = length;
}

MappedFile::~MappedFile() { Unmap(); }

MappedFile::MappedFile(MappedFile &&other) noexcept
    : mapping_(std::exchange(other.mapping_, nullptr)),
      mappingLength_(std::exchange(other.mappingLength_, 0)),
      data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)) {}

MappedFile &MappedFile::operator=(MappedFile &&other) noexcept {
  if (this != &other) {
    Unmap();
    mapping_ = std::exchange(other.mapping_, nullptr);
    mappingLength_ = std::exchange(other.mappingLength_, 0);
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

void MappedFile::Unmap() {
  if (mapping_) munmap(mapping_, mappingLength_);
  mapping_ = nullptr;
  mappingLength_ = 0;
  data_ = nullptr;
  size_ = 0;
}
