// ombry-sim-fuse: serves simulated boards as XDMA-style nodes in a directory
// through FUSE, so that an unmodified miner pointed at that directory sees
// real device files. A file "ombry-sim" beside the nodes shows the boards'
// state when read and takes commands ("xdma0 hot=95") when written.
//
//   ombry-sim-fuse [--config FILE] [--board "LINE"]... [--allow-other] [--debug] MOUNTPOINT
//
// Exit codes: 0 after an unmount or a stop signal, 2 for bad arguments or a
// bad board list, 3 when FUSE cannot mount here.
#define FUSE_USE_VERSION 312

#include <fuse3/fuse.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "sim/card.h"
#include "sim/config.h"
#include "sim/hash_engine.h"
#include "sim/in_process.h"

namespace {

constexpr const char *kControlName = "ombry-sim";
constexpr int kSearchNiceness = 10;

struct Server {
  std::vector<std::unique_ptr<sim::Card>> cards;
};

// What an open file handle stands for.
struct OpenFile {
  sim::Card *card = nullptr;  // null for the control file
  sim::Node node = sim::Node::Control;
  uint32_t channel = 0;
  std::string text;  // the control file's contents, taken at open
};

Server &TheServer() { return *static_cast<Server *>(fuse_get_context()->private_data); }

OpenFile *FileOf(fuse_file_info *fi) { return reinterpret_cast<OpenFile *>(fi->fh); }

bool IsControl(const char *path) { return path[0] == '/' && strcmp(path + 1, kControlName) == 0; }

std::string StatusText(Server &server) {
  std::string text;
  for (const auto &card : server.cards) text += card->Describe();
  return text;
}

void *Init(fuse_conn_info *, fuse_config *config) {
  // Every transfer must reach the board: no page cache, no cached sizes.
  config->direct_io = 1;
  config->kernel_cache = 0;
  config->attr_timeout = 0;
  config->entry_timeout = 0;
  config->negative_timeout = 0;
  return fuse_get_context()->private_data;
}

int GetAttr(const char *path, struct stat *st, fuse_file_info *) {
  memset(st, 0, sizeof *st);
  st->st_uid = getuid();
  st->st_gid = getgid();
  if (strcmp(path, "/") == 0) {
    st->st_mode = S_IFDIR | 0755;
    st->st_nlink = 2;
    return 0;
  }
  sim::Card *card;
  sim::Node node;
  uint32_t channel;
  if (IsControl(path) || sim::ResolveNodeName(path + 1, TheServer().cards, &card, &node, &channel)) {
    st->st_mode = S_IFREG | 0660;
    st->st_nlink = 1;
    return 0;
  }
  return -ENOENT;
}

int ReadDir(const char *path, void *buffer, fuse_fill_dir_t fill, off_t, fuse_file_info *, fuse_readdir_flags) {
  if (strcmp(path, "/") != 0) return -ENOENT;
  fill(buffer, ".", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  fill(buffer, "..", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  for (const auto &card : TheServer().cards) {
    for (const std::string &name : sim::NodeNames(card->Setup())) {
      fill(buffer, name.c_str(), nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    }
  }
  fill(buffer, kControlName, nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  return 0;
}

int Open(const char *path, fuse_file_info *fi) {
  auto file = std::make_unique<OpenFile>();
  int mode = fi->flags & O_ACCMODE;
  if (IsControl(path)) {
    file->text = StatusText(TheServer());
  } else {
    if (!sim::ResolveNodeName(path + 1, TheServer().cards, &file->card, &file->node, &file->channel)) return -ENOENT;
    // The DMA nodes go one way only.
    if (file->node == sim::Node::H2C && mode != O_WRONLY) return -EACCES;
    if (file->node == sim::Node::C2H && mode != O_RDONLY) return -EACCES;
  }
  fi->direct_io = 1;
  fi->keep_cache = 0;
  fi->fh = reinterpret_cast<uint64_t>(file.release());
  return 0;
}

int Release(const char *, fuse_file_info *fi) {
  delete FileOf(fi);
  return 0;
}

int Read(const char *, char *buffer, size_t size, off_t offset, fuse_file_info *fi) {
  OpenFile *file = FileOf(fi);
  if (!file->card) {
    if (static_cast<size_t>(offset) >= file->text.size()) return 0;
    size_t n = std::min(size, file->text.size() - static_cast<size_t>(offset));
    memcpy(buffer, file->text.data() + offset, n);
    return static_cast<int>(n);
  }
  return static_cast<int>(file->card->Read(file->node, file->channel, static_cast<uint64_t>(offset), buffer, size));
}

int Write(const char *, const char *buffer, size_t size, off_t offset, fuse_file_info *fi) {
  OpenFile *file = FileOf(fi);
  if (file->card) {
    return static_cast<int>(file->card->Write(file->node, file->channel, static_cast<uint64_t>(offset), buffer, size));
  }
  // Each write carries whole command lines.
  std::istringstream lines(std::string(buffer, size));
  std::string line;
  while (std::getline(lines, line)) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    sim::Command command;
    std::string error;
    sim::Card *target = nullptr;
    if (sim::ParseCommand(line, &command, &error)) {
      for (const auto &card : TheServer().cards) {
        if (card->Name() == command.card) target = card.get();
      }
      if (!target) error = "no board " + command.card;
    }
    if (!target || !target->Apply(command, &error)) {
      fprintf(stderr, "ombry-sim-fuse: %s\n", error.c_str());
      return -EINVAL;
    }
  }
  return static_cast<int>(size);
}

int Truncate(const char *, off_t, fuse_file_info *) { return 0; }

int Usage() {
  fprintf(stderr,
          "usage: ombry-sim-fuse [--config FILE] [--board \"LINE\"]... [--allow-other] [--debug] MOUNTPOINT\n"
          "Serves simulated boards as xdma<N>_* nodes in MOUNTPOINT; see sim/README.md.\n");
  return 2;
}

}  // namespace

int main(int argc, char **argv) {
  std::string boardList;
  std::string mountPoint;
  bool debug = false;
  bool allowOther = false;
  for (int i = 1; i < argc; i++) {
    std::string arg = argv[i];
    if ((arg == "--config" || arg == "--board") && i + 1 < argc) {
      if (arg == "--board") {
        boardList += std::string(argv[++i]) + "\n";
        continue;
      }
      std::ifstream in(argv[++i]);
      if (!in) {
        fprintf(stderr, "ombry-sim-fuse: cannot read %s\n", argv[i]);
        return 2;
      }
      std::stringstream text;
      text << in.rdbuf();
      boardList += text.str() + "\n";
    } else if (arg == "--debug") {
      debug = true;
    } else if (arg == "--allow-other") {
      allowOther = true;
    } else if (!arg.empty() && arg[0] != '-' && mountPoint.empty()) {
      mountPoint = arg;
    } else {
      return Usage();
    }
  }
  if (mountPoint.empty()) return Usage();

  std::string error;
  auto specs = sim::ParseBoardList(boardList, &error);
  if (!specs) {
    fprintf(stderr, "ombry-sim-fuse: %s\n", error.c_str());
    return 2;
  }
  if (specs->empty()) {
    fprintf(stderr, "ombry-sim-fuse: no boards given\n");
    return 2;
  }
  if (access("/dev/fuse", R_OK | W_OK) != 0) {
    fprintf(stderr, "ombry-sim-fuse: FUSE is not available here: /dev/fuse: %s\n", strerror(errno));
    return 3;
  }
  mkdir(mountPoint.c_str(), 0755);

  Server server;
  for (const sim::CardSetup &setup : *specs) server.cards.push_back(std::make_unique<sim::Card>(setup));

  fuse_operations ops{};
  ops.init = Init;
  ops.getattr = GetAttr;
  ops.readdir = ReadDir;
  ops.open = Open;
  ops.release = Release;
  ops.read = Read;
  ops.write = Write;
  ops.truncate = Truncate;

  std::vector<std::string> options{argv[0], "-o", "fsname=ombry-sim,subtype=ombry-sim"};
  if (allowOther) options.insert(options.end(), {"-o", "allow_other"});
  if (debug) options.push_back("-d");
  std::vector<char *> fuseArgv;
  for (std::string &option : options) fuseArgv.push_back(option.data());
  fuse_args args = FUSE_ARGS_INIT(static_cast<int>(fuseArgv.size()), fuseArgv.data());

  fuse *fs = fuse_new(&args, &ops, sizeof ops, &server);
  if (!fs) {
    fprintf(stderr, "ombry-sim-fuse: FUSE refused the options\n");
    return 3;
  }
  if (fuse_mount(fs, mountPoint.c_str()) != 0) {
    fprintf(stderr, "ombry-sim-fuse: FUSE cannot mount %s here (no permission or no FUSE support)\n",
            mountPoint.c_str());
    fuse_destroy(fs);
    return 3;
  }
  fuse_session *session = fuse_get_session(fs);
  fuse_set_signal_handlers(session);
  printf("ombry-sim-fuse: serving %zu boards in %s\n", server.cards.size(), mountPoint.c_str());
  fflush(stdout);

  // The search runs below normal priority, so that serving the nodes and the
  // miner that reads them keep the processor they need.
  sim::HashEngine engine(kSearchNiceness);
  for (const auto &card : server.cards) engine.Add(*card);
  engine.Start();

  fuse_loop_config *config = fuse_loop_cfg_create();
  fuse_loop_cfg_set_max_threads(config, 16);
  int result = fuse_loop_mt(fs, config);
  fuse_loop_cfg_destroy(config);
  engine.Stop();

  fuse_remove_signal_handlers(session);
  fuse_unmount(fs);
  fuse_destroy(fs);
  fuse_opt_free_args(&args);
  return result == 0 ? 0 : 1;
}
