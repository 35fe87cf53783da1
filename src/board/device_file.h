// The driver's files for one board, on Linux: the XDMA-style nodes
// `<dir>/xdma<N>_control`, `_user`, `_h2c_<i>` and `_c2h_<i>`. This is the only
// code that talks to the operating system about boards; everything above sees
// the operations below. Every register access ends here as one positioned
// transfer, with no lock, no buffering and no allocation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum BRYLDMAFileType : uint32_t {
  BRYLDMAFileControl = 0,  // the DMA engine's own registers, read and write
  BRYLDMAFileH2C = 1,      // host to card DMA, write only
  BRYLDMAFileC2H = 2,      // card to host DMA, read only
  BRYLDMAFileUser = 3,     // the board's AXI-Lite register space, read and write
};

enum class BRYLDMAAccess { Read, Write, ReadWrite };

// Where the files really live. The system backend uses open/pread/pwrite;
// tests and the simulator put in-process boards behind the same operations.
// Handles are opaque to the layer; -1 is never a valid handle. Failures report
// an errno value through `error`.
class BRYLDMAFileBackend {
 public:
  virtual ~BRYLDMAFileBackend() = default;
  // The entry names of `directory`, in the order the system lists them. A
  // missing directory is an empty list; false only when it can't be read.
  virtual bool ListDirectory(const std::string &directory, std::vector<std::string> *names, int *error) = 0;
  virtual int64_t Open(const std::string &path, BRYLDMAAccess access, int *error) = 0;
  virtual void Close(int64_t handle) = 0;
  // Bytes transferred, or -1 with `error` set.
  virtual int64_t ReadAt(int64_t handle, void *buffer, size_t size, uint64_t position, int *error) = 0;
  virtual int64_t WriteAt(int64_t handle, const void *buffer, size_t size, uint64_t position, int *error) = 0;
  virtual bool Seek(int64_t handle, uint64_t position, int *error) = 0;
};

// The backend that the system uses: plain descriptors, no locks on the files.
BRYLDMAFileBackend *BRYLDMASystemFileBackend();

// Installs `backend` for files opened from now on (null: the system one) and
// returns the one it replaces. Files already open stay with their backend.
// Meant to be called before the scan, not while boards are in use.
BRYLDMAFileBackend *BRYLDMASetFileBackend(BRYLDMAFileBackend *backend);
BRYLDMAFileBackend *BRYLDMACurrentFileBackend();

// One open driver file. Heap-allocated by open, owned by whoever opened it.
struct BRYLDMAFile {
  int64_t handle = -1;  // -1: not open
  BRYLDMAFileType type = BRYLDMAFileControl;
  uint32_t channel = 0;  // 0 for control and user
  std::string path;
  BRYLDMAFileBackend *backend = nullptr;  // the backend the file was opened with
  // Failed transfers: the first is logged, later ones counted and logged at
  // most every 10 s, so that a board that went away can't flood the log.
  uint64_t failuresUntold = 0;
  int64_t failuresToldAt = -1;  // monotonic seconds; -1 before the first
};

// The directory that holds the device nodes: $OMBRY_DEVICE_DIR, or /dev.
std::string BRYLDMADeviceDirectory();

// Device paths `<dir>/xdma<N>`, one per `xdma<N>_control` node, ordered by N
// numerically (ties keep the directory's order). An empty list when there is
// no board or no directory; nullopt when the directory can't be read.
std::optional<std::vector<std::string>> BRYLDMAGetDevices();

// Null on failure (logged). Direction follows the type alone.
BRYLDMAFile *BRYLDMAFileOpen(const std::string &devicePath, BRYLDMAFileType type, uint32_t channel);
// Null is accepted and does nothing.
void BRYLDMAFileClose(BRYLDMAFile *file);
const std::string &BRYLDMAFilePath(const BRYLDMAFile *file);
// Bytes transferred; 0 on failure (logged), and the buffer is left as it was.
// A short transfer is returned as it is.
uint64_t BRYLDMAFileRead(BRYLDMAFile *file, uint64_t position, void *buffer, uint64_t size);
uint64_t BRYLDMAFileWrite(BRYLDMAFile *file, uint64_t position, const void *buffer, uint64_t size);
bool BRYLDMAFileSeek(BRYLDMAFile *file, uint64_t position);

// Keeps a file open, unreferenced, until the process ends: for the handles
// that the device layer deliberately never closes.
void BRYLDMAFileKeepForProcess(BRYLDMAFile *file);
