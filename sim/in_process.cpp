#include "sim/in_process.h"

#include <algorithm>
#include <cerrno>

namespace sim {

namespace {

bool ParseChannel(const std::string &text, uint32_t *channel) {
  if (text.empty() || text.size() > 3) return false;
  uint32_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<uint32_t>(c - '0');
  }
  *channel = value;
  return true;
}

std::string WithoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

std::vector<std::string> NodeNames(const CardSetup &card) {
  std::vector<std::string> names{card.name + "_control"};
  if (card.userFile) names.push_back(card.name + "_user");
  for (uint32_t i = 0; i < card.channels; i++) {
    if (card.h2c) names.push_back(card.name + "_h2c_" + std::to_string(i));
    if (card.c2h) names.push_back(card.name + "_c2h_" + std::to_string(i));
  }
  return names;
}

bool ResolveNodeName(const std::string &name, const std::vector<std::unique_ptr<Card>> &cards, Card **card, Node *node,
                     uint32_t *channel) {
  for (const auto &candidate : cards) {
    const std::string &prefix = candidate->Name();
    if (name.size() <= prefix.size() + 1 || name.compare(0, prefix.size(), prefix) != 0 || name[prefix.size()] != '_') {
      continue;
    }
    std::string suffix = name.substr(prefix.size() + 1);
    *channel = 0;
    if (suffix == "control")
      *node = Node::Control;
    else if (suffix == "user")
      *node = Node::User;
    else if (suffix.rfind("h2c_", 0) == 0 && ParseChannel(suffix.substr(4), channel))
      *node = Node::H2C;
    else if (suffix.rfind("c2h_", 0) == 0 && ParseChannel(suffix.substr(4), channel))
      *node = Node::C2H;
    else
      continue;
    if (!candidate->HasNode(*node, *channel)) continue;
    *card = candidate.get();
    return true;
  }
  return false;
}

InProcessBoards::InProcessBoards(std::string directory, TimeSource time)
    : directory_(WithoutTrailingSlash(std::move(directory))), time_(std::move(time)) {}

InProcessBoards::~InProcessBoards() {
  StopSearch();
  Uninstall();
}

Card &InProcessBoards::Add(const CardSetup &setup) {
  Card *card;
  {
    std::lock_guard<std::mutex> guard(lock_);
    card = cards_.emplace_back(std::make_unique<Card>(setup, time_)).get();
  }
  // An engine takes its cores at its start, so a running one is started anew.
  bool searching;
  {
    std::lock_guard<std::mutex> guard(searchLock_);
    searching = engine_ != nullptr;
  }
  if (searching) StartSearch(niceness_);
  return *card;
}

void InProcessBoards::StartSearch(int niceness) {
  std::lock_guard<std::mutex> searchGuard(searchLock_);
  if (engine_) engine_->Stop();
  niceness_ = niceness;
  engine_ = std::make_unique<HashEngine>(niceness);
  {
    std::lock_guard<std::mutex> guard(lock_);
    for (const auto &card : cards_) engine_->Add(*card);
  }
  engine_->Start();
}

void InProcessBoards::StopSearch() {
  std::lock_guard<std::mutex> guard(searchLock_);
  if (!engine_) return;
  engine_->Stop();
  engine_.reset();
}

bool InProcessBoards::AddList(const std::string &text, std::string *error) {
  auto cards = ParseBoardList(text, error);
  if (!cards) return false;
  for (const CardSetup &setup : *cards) Add(setup);
  return true;
}

Card *InProcessBoards::Find(const std::string &name) {
  std::lock_guard<std::mutex> guard(lock_);
  for (const auto &card : cards_) {
    if (card->Name() == name) return card.get();
  }
  return nullptr;
}

bool InProcessBoards::RunCommand(const std::string &line, std::string *error) {
  Command command;
  if (!ParseCommand(line, &command, error)) return false;
  Card *card = Find(command.card);
  if (!card) {
    if (error) *error = "no board " + command.card;
    return false;
  }
  return card->Apply(command, error);
}

void InProcessBoards::Install() {
  if (installed_) return;
  previous_ = BRYLDMASetFileBackend(this);
  installed_ = true;
}

void InProcessBoards::Uninstall() {
  if (!installed_) return;
  BRYLDMASetFileBackend(previous_);
  installed_ = false;
}

bool InProcessBoards::ListDirectory(const std::string &directory, std::vector<std::string> *names, int *) {
  // Any other directory is simply missing here.
  if (WithoutTrailingSlash(directory) != directory_) return true;
  std::lock_guard<std::mutex> guard(lock_);
  for (const auto &card : cards_) {
    for (std::string &name : NodeNames(card->Setup())) names->push_back(std::move(name));
  }
  return true;
}

int64_t InProcessBoards::Open(const std::string &path, BRYLDMAAccess access, int *error) {
  std::string prefix = directory_ + "/";
  std::lock_guard<std::mutex> guard(lock_);
  Card *card = nullptr;
  Node node;
  uint32_t channel;
  if (path.compare(0, prefix.size(), prefix) != 0 ||
      !ResolveNodeName(path.substr(prefix.size()), cards_, &card, &node, &channel)) {
    *error = ENOENT;
    return -1;
  }
  if (card->Vanished()) {
    *error = ENOENT;
    return -1;
  }
  // The DMA nodes go one way only.
  if ((node == Node::H2C && access != BRYLDMAAccess::Write) || (node == Node::C2H && access != BRYLDMAAccess::Read)) {
    *error = EACCES;
    return -1;
  }
  auto &open = open_.emplace_back(std::make_unique<OpenNode>(OpenNode{card, node, channel}));
  return static_cast<int64_t>(reinterpret_cast<intptr_t>(open.get()));
}

void InProcessBoards::Close(int64_t handle) {
  auto *target = reinterpret_cast<OpenNode *>(static_cast<intptr_t>(handle));
  std::lock_guard<std::mutex> guard(lock_);
  auto it = std::find_if(open_.begin(), open_.end(), [target](const auto &open) { return open.get() == target; });
  if (it != open_.end()) open_.erase(it);
}

int64_t InProcessBoards::ReadAt(int64_t handle, void *buffer, size_t size, uint64_t position, int *error) {
  auto *open = reinterpret_cast<OpenNode *>(static_cast<intptr_t>(handle));
  int64_t result = open->card->Read(open->node, open->channel, position, buffer, size);
  if (result < 0) {
    *error = static_cast<int>(-result);
    return -1;
  }
  return result;
}

int64_t InProcessBoards::WriteAt(int64_t handle, const void *buffer, size_t size, uint64_t position, int *error) {
  auto *open = reinterpret_cast<OpenNode *>(static_cast<intptr_t>(handle));
  int64_t result = open->card->Write(open->node, open->channel, position, buffer, size);
  if (result < 0) {
    *error = static_cast<int>(-result);
    return -1;
  }
  return result;
}

bool InProcessBoards::Seek(int64_t, uint64_t, int *) { return true; }

}  // namespace sim
