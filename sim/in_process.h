// Simulated boards inside the process, behind the board layer's file seam:
// once installed, device enumeration in the simulator's directory lists the
// cards' nodes, and opens, reads and writes of those paths reach the cards
// without a system call.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "board/device_file.h"
#include "sim/card.h"
#include "sim/hash_engine.h"

namespace sim {

class InProcessBoards final : public BRYLDMAFileBackend {
 public:
  static constexpr const char *kDefaultDirectory = "/ombry-sim";

  explicit InProcessBoards(std::string directory = kDefaultDirectory, TimeSource time = nullptr);
  // Uninstalls itself. Files opened through it must not be used afterwards.
  ~InProcessBoards() override;
  InProcessBoards(const InProcessBoards &) = delete;
  InProcessBoards &operator=(const InProcessBoards &) = delete;

  Card &Add(const CardSetup &setup);
  // Adds the boards of a board list; false with a message when it doesn't parse.
  bool AddList(const std::string &text, std::string *error);
  Card *Find(const std::string &name);
  const std::string &Directory() const { return directory_; }
  // A device path of a card, as enumeration gives it.
  std::string DevicePath(const std::string &name) const { return directory_ + "/" + name; }
  // Changes faults or thermal settings while the boards run: "xdma0 hot=95".
  bool RunCommand(const std::string &line, std::string *error);

  // Starts the hash cores' search on every card, and on cards added later;
  // StopSearch() (and the destructor) ends it and joins its threads.
  void StartSearch(int niceness = 0);
  void StopSearch();

  // Becomes the board layer's backend for files opened from now on.
  void Install();
  void Uninstall();

  bool ListDirectory(const std::string &directory, std::vector<std::string> *names, int *error) override;
  int64_t Open(const std::string &path, BRYLDMAAccess access, int *error) override;
  void Close(int64_t handle) override;
  int64_t ReadAt(int64_t handle, void *buffer, size_t size, uint64_t position, int *error) override;
  int64_t WriteAt(int64_t handle, const void *buffer, size_t size, uint64_t position, int *error) override;
  bool Seek(int64_t handle, uint64_t position, int *error) override;

 private:
  struct OpenNode {
    Card *card;
    Node node;
    uint32_t channel;
  };

  std::string directory_;
  TimeSource time_;
  std::mutex lock_;  // the lists below; transfers don't take it
  std::vector<std::unique_ptr<Card>> cards_;
  std::vector<std::unique_ptr<OpenNode>> open_;
  bool installed_ = false;
  BRYLDMAFileBackend *previous_ = nullptr;
  std::mutex searchLock_;  // taken before lock_ where both are held
  std::unique_ptr<HashEngine> engine_;
  int niceness_ = 0;
};

// The node names of a card in a device directory, in a stable order.
std::vector<std::string> NodeNames(const CardSetup &card);
// Which node of which card a name below the device directory means; false
// when it names none.
bool ResolveNodeName(const std::string &name, const std::vector<std::unique_ptr<Card>> &cards, Card **card, Node *node,
                     uint32_t *channel);

}  // namespace sim
