// Captures what the code under test writes to standard output and standard
// error, at the descriptor level, so that C stdio writes are caught too.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace testing_support {

class StreamCapture {
 public:
  StreamCapture() {
    fflush(stdout);
    fflush(stderr);
    for (int fd : {1, 2}) {
      saved_[fd - 1] = dup(fd);
      files_[fd - 1] = tmpfile();
      dup2(fileno(files_[fd - 1]), fd);
    }
  }
  ~StreamCapture() {
    Stop();
    for (FILE *file : files_) fclose(file);
  }
  StreamCapture(const StreamCapture &) = delete;
  StreamCapture &operator=(const StreamCapture &) = delete;

  void Stop() {
    if (saved_[0] < 0) return;
    fflush(stdout);
    fflush(stderr);
    for (int fd : {1, 2}) {
      dup2(saved_[fd - 1], fd);
      close(saved_[fd - 1]);
      saved_[fd - 1] = -1;
    }
  }
  std::string Out() { return Read(files_[0]); }
  std::string Err() { return Read(files_[1]); }

 private:
  static std::string Read(FILE *file) {
    fflush(stdout);
    fflush(stderr);
    std::string text;
    char buffer[65536];
    size_t n;
    fseek(file, 0, SEEK_SET);
    while ((n = fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, n);
    return text;
  }
  int saved_[2] = {-1, -1};  // the real standard output and error while capturing
  FILE *files_[2] = {};
};

}  // namespace testing_support
