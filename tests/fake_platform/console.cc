// SPDX-License-Identifier: Apache-2.0
#include "fake_platform/console.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace fake_platform {

ConsoleCapture::ConsoleCapture() : file_(memfd_create("console", MFD_CLOEXEC)), saved_(dup(STDOUT_FILENO)) {
  std::fflush(stdout);
  if (file_ < 0 || saved_ < 0 || dup2(file_, STDOUT_FILENO) < 0) {
    std::perror("capture of standard output");
    std::abort();
  }
}

ConsoleCapture::~ConsoleCapture() {
  std::fflush(stdout);
  dup2(saved_, STDOUT_FILENO);
  close(saved_);
  close(file_);
}

std::string ConsoleCapture::text() {
  std::fflush(stdout);
  std::string all;
  char part[4096];
  off_t at = 0;
  for (ssize_t n; (n = pread(file_, part, sizeof part, at)) > 0; at += n) all.append(part, static_cast<size_t>(n));
  return all;
}

}  // namespace fake_platform
