// SPDX-License-Identifier: Apache-2.0
// The command line.
#ifndef IPD_OPTIONS_H
#define IPD_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>

namespace ipd {

// How ipd ends; the manual page lists them.
enum ExitStatus : int {
  exit_clean = 0,
  exit_failed = 1,   // something that ipd needs could not be had, or broke
  exit_usage = 2,    // command line or configuration are wrong
  exit_running = 3,  // another ipd has the run directory
};

inline constexpr const char *default_configuration = "/etc/rsw/ipd.conf";

struct Options {
  std::string configuration = default_configuration;
  bool configuration_given = false;
  std::string simulation;  // empty: the kernel
  uint32_t receive_buffer = 0;
  bool foreground = false;
  bool check = false;
  bool once = false;
  bool json = false;
  bool remove = false;
};

// Sets RSW_RUN_DIR for --run-dir; all paths come out absolute. Nothing: the process is to end with *status (help was
// printed, or what is wrong with the command line).
[[nodiscard]] std::optional<Options> read_options(int argc, char **argv, int *status);

}  // namespace ipd

#endif
