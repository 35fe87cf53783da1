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
    savedOut_ = dup(1);
    savedErr_ = dup(2);
    outFile_ = tmpfile();
    errFile_ = tmpfile();
    dup2(fileno(outFile_), 1);
    dup2(fileno(errFile_), 2);
  }
  ~StreamCapture() {
    Stop();
    fclose(outFile_);
    fclose(errFile_);
  }
  StreamCapture(const StreamCapture &) = delete;
  StreamCapture &operator=(const StreamCapture &) = delete;

  void Stop() {
    if (savedOut_ < 0) return;
    fflush(stdout);
    fflush(stderr);
    dup2(savedOut_, 1);
    dup2(savedErr_, 2);
    close(savedOut_);
    close(savedErr_);
    savedOut_ = savedErr_ = -1;
  }
  std::string Out() { return Read(outFile_); }
  std::string Err() { return Read(errFile_); }

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
  int savedOut_ = -1;
  int savedErr_ = -1;
  FILE *outFile_ = nullptr;
  FILE *errFile_ = nullptr;
};

}  // namespace testing_support
