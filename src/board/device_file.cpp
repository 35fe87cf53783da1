#include "board/device_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>

#include "foundation/logger.h"
#include "foundation/text.h"
#include "foundation/vltime.h"

namespace {

constexpr const char *kTag = "DMA_FILE";
constexpr const char *kDefaultDeviceDirectory = "/dev";
constexpr const char *kNodePrefix = "xdma";
constexpr const char *kControlSuffix = "_control";

class SystemFileBackend final : public BRYLDMAFileBackend {
 public:
  bool ListDirectory(const std::string &directory, std::vector<std::string> *names, int *error) override {
    DIR *dir = opendir(directory.c_str());
    if (!dir) {
      if (errno == ENOENT) return true;
      *error = errno;
      return false;
    }
    // The stream is this call's own, so no other thread reads it.
    while (dirent *entry = readdir(dir)) names->emplace_back(entry->d_name);  // NOLINT(concurrency-mt-unsafe)
    closedir(dir);
    return true;
  }

  int64_t Open(const std::string &path, BRYLDMAAccess access, int *error) override {
    int flags = access == BRYLDMAAccess::Read ? O_RDONLY : access == BRYLDMAAccess::Write ? O_WRONLY : O_RDWR;
    // No exclusive open and no lock: the scan opens a path again for each
    // sub-device while the first device record holds it.
    int fd = open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0) *error = errno;
    return fd;
  }

  void Close(int64_t handle) override { close(static_cast<int>(handle)); }

  int64_t ReadAt(int64_t handle, void *buffer, size_t size, uint64_t position, int *error) override {
    ssize_t n;
    do {
      n = pread(static_cast<int>(handle), buffer, size, static_cast<off_t>(position));
    } while (n < 0 && errno == EINTR);
    if (n < 0) *error = errno;
    return n;
  }

  int64_t WriteAt(int64_t handle, const void *buffer, size_t size, uint64_t position, int *error) override {
    ssize_t n;
    do {
      n = pwrite(static_cast<int>(handle), buffer, size, static_cast<off_t>(position));
    } while (n < 0 && errno == EINTR);
    if (n < 0) *error = errno;
    return n;
  }

  bool Seek(int64_t handle, uint64_t position, int *error) override {
    if (lseek(static_cast<int>(handle), static_cast<off_t>(position), SEEK_SET) < 0) {
      *error = errno;
      return false;
    }
    return true;
  }
};

SystemFileBackend g_systemBackend;
std::atomic<BRYLDMAFileBackend *> g_backend{&g_systemBackend};

// The N of "xdma<N>_control", or nullopt for any other name.
std::optional<uint64_t> ControlNodeNumber(const std::string &name) {
  const std::string prefix = kNodePrefix;
  const std::string suffix = kControlSuffix;
  if (name.size() <= prefix.size() + suffix.size()) return std::nullopt;
  if (name.compare(0, prefix.size(), prefix) != 0) return std::nullopt;
  if (name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) return std::nullopt;
  std::string digits = name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
  if (digits.size() > 18) return std::nullopt;  // beyond any real board count, and beyond 64 bits
  uint64_t number = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    number = number * 10 + static_cast<uint64_t>(c - '0');
  }
  return number;
}

std::string FilePath(const std::string &devicePath, BRYLDMAFileType type, uint32_t channel) {
  switch (type) {
    case BRYLDMAFileControl: return devicePath + "_control";
    case BRYLDMAFileH2C: return devicePath + "_h2c_" + std::to_string(channel);
    case BRYLDMAFileC2H: return devicePath + "_c2h_" + std::to_string(channel);
    case BRYLDMAFileUser: return devicePath + "_user";
  }
  return {};
}

std::mutex g_keptFilesLock;
std::vector<BRYLDMAFile *> *g_keptFiles = nullptr;

}  // namespace

BRYLDMAFileBackend *BRYLDMASystemFileBackend() { return &g_systemBackend; }

BRYLDMAFileBackend *BRYLDMASetFileBackend(BRYLDMAFileBackend *backend) {
  return g_backend.exchange(backend ? backend : &g_systemBackend, std::memory_order_acq_rel);
}

BRYLDMAFileBackend *BRYLDMACurrentFileBackend() { return g_backend.load(std::memory_order_acquire); }

std::string BRYLDMADeviceDirectory() {
  const char *dir = getenv("OMBRY_DEVICE_DIR");  // NOLINT(concurrency-mt-unsafe): nothing sets the environment
  return dir && *dir ? dir : kDefaultDeviceDirectory;
}

std::optional<std::vector<std::string>> BRYLDMAGetDevices() {
  std::string directory = BRYLDMADeviceDirectory();
  std::vector<std::string> names;
  int error = 0;
  if (!BRYLDMACurrentFileBackend()->ListDirectory(directory, &names, &error)) {
    VL_LOG(VLLogLevelInfo, kTag, "GetDevices INVALID_HANDLE_VALUE");
    return std::nullopt;
  }
  struct Node {
    uint64_t number;
    std::string path;
  };
  std::vector<Node> nodes;
  for (const std::string &name : names) {
    auto number = ControlNodeNumber(name);
    if (!number) continue;
    std::string base = name.substr(0, name.size() - std::char_traits<char>::length(kControlSuffix));
    nodes.push_back({*number, fmt::format("{}/{}", directory, base)});
  }
  std::stable_sort(nodes.begin(), nodes.end(), [](const Node &a, const Node &b) { return a.number < b.number; });
  std::vector<std::string> paths;
  paths.reserve(nodes.size());
  for (Node &node : nodes) paths.push_back(std::move(node.path));
  return paths;
}

BRYLDMAFile *BRYLDMAFileOpen(const std::string &devicePath, BRYLDMAFileType type, uint32_t channel) {
  BRYLDMAAccess access;
  switch (type) {
    case BRYLDMAFileControl:
    case BRYLDMAFileUser: access = BRYLDMAAccess::ReadWrite; break;
    case BRYLDMAFileH2C: access = BRYLDMAAccess::Write; break;
    case BRYLDMAFileC2H: access = BRYLDMAAccess::Read; break;
    default: VL_LOG(VLLogLevelInfo, kTag, "Unknown BRYLDMAFileType."); return nullptr;
  }
  auto *file = new BRYLDMAFile{};
  file->type = type;
  file->channel = type == BRYLDMAFileH2C || type == BRYLDMAFileC2H ? channel : 0;
  file->backend = BRYLDMACurrentFileBackend();
  std::string path = FilePath(devicePath, type, file->channel);
  int error = 0;
  int64_t handle = file->backend->Open(path, access, &error);
  if (handle < 0) {
    VL_LOG(VLLogLevelInfo, kTag, "Failed to create file handle: %i - %s", error, path.c_str());
    delete file;
    return nullptr;
  }
  file->handle = handle;
  file->path = std::move(path);
  return file;
}

void BRYLDMAFileClose(BRYLDMAFile *file) {
  if (!file) return;
  if (file->handle != -1) file->backend->Close(file->handle);
  delete file;
}

const std::string &BRYLDMAFilePath(const BRYLDMAFile *file) { return file->path; }

namespace {

void NoteFailure(BRYLDMAFile *file, const char *what, int error) {
  auto now = static_cast<int64_t>(VLTimeSeconds());
  if (file->failuresToldAt < 0) {
    VL_LOG(VLLogLevelInfo, kTag, "failed to %s: %i", what, error);
    file->failuresToldAt = now;
    return;
  }
  file->failuresUntold++;
  if (now - file->failuresToldAt >= 10) {
    VL_LOG(VLLogLevelInfo, kTag, "failed to %s: %i, %s times in the last 10 s", what, error,
           VLThousands(file->failuresUntold).c_str());
    file->failuresUntold = 0;
    file->failuresToldAt = now;
  }
}

}  // namespace

uint64_t BRYLDMAFileRead(BRYLDMAFile *file, uint64_t position, void *buffer, uint64_t size) {
  int error = 0;
  int64_t n = file->backend->ReadAt(file->handle, buffer, size, position, &error);
  if (n < 0) {
    NoteFailure(file, "Read from device", error);
    return 0;
  }
  return static_cast<uint64_t>(n);
}

uint64_t BRYLDMAFileWrite(BRYLDMAFile *file, uint64_t position, const void *buffer, uint64_t size) {
  int error = 0;
  int64_t n = file->backend->WriteAt(file->handle, buffer, size, position, &error);
  if (n < 0) {
    NoteFailure(file, "Write To Device", error);
    return 0;
  }
  return static_cast<uint64_t>(n);
}

bool BRYLDMAFileSeek(BRYLDMAFile *file, uint64_t position) {
  int error = 0;
  if (!file->backend->Seek(file->handle, position, &error)) {
    VL_LOG(VLLogLevelInfo, kTag, "failed to SetFilePointer: %i", error);
    return false;
  }
  return true;
}

void BRYLDMAFileKeepForProcess(BRYLDMAFile *file) {
  if (!file) return;
  std::lock_guard<std::mutex> guard(g_keptFilesLock);
  // Never freed: the handles live exactly as long as the process.
  if (!g_keptFiles) g_keptFiles = new std::vector<BRYLDMAFile *>;
  g_keptFiles->push_back(file);
}
