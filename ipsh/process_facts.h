// SPDX-License-Identifier: Apache-2.0
// What /proc tells of a process. Some of it only its owner and the superuser may see: that is then not there.
#ifndef IPSH_PROCESS_FACTS_H
#define IPSH_PROCESS_FACTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ipsh {

// Fields of /proc/PID/stat.
struct ProcessStat {
  char state = '?';              // as ps(1) has it
  uint64_t started_at_tick = 0;  // since the machine's start
};
// Nothing: it is no such line. The name in it may hold anything, parentheses and blanks too.
[[nodiscard]] std::optional<ProcessStat> parse_stat(std::string_view line);

// The value that stands behind "NAME:" in /proc/PID/status, or nothing.
[[nodiscard]] std::optional<std::string> parse_status(std::string_view text, std::string_view name);

// "[vdso]" and the like left out, each file once; one that was removed or replaced ends in " (deleted)".
[[nodiscard]] std::vector<std::string> parse_maps(std::string_view text);

struct ProcessFacts {
  uint32_t pid = 0;
  std::string command;
  char state = '?';
  std::optional<uint32_t> uid;                    // effective
  std::optional<uint64_t> seconds;                // that it runs
  std::optional<uint64_t> capabilities;           // effective, one bit each
  std::optional<uint64_t> most_descriptors;       // hard limit
  std::vector<std::string> arguments;             // empty: nobody may see them
  std::string directory;                          // where it works; empty: not to be seen
  std::string network_namespace;                  // as a link of /proc; empty: not to be seen
  std::optional<std::vector<std::string>> files;  // that are mapped

  [[nodiscard]] bool stopped() const { return state == 'T' || state == 't'; }
};

// Nothing: there is no such process here. It may be one of another PID namespace.
[[nodiscard]] std::optional<ProcessFacts> read_process(uint32_t pid);

// The value of an option on a command line, "--name value" or "--name=value"; nothing when it is not there.
[[nodiscard]] std::optional<std::string> option_of(const std::vector<std::string> &arguments, std::string_view name);

// "3 s", "12 min", "5 h 3 min", "2 d 4 h".
[[nodiscard]] std::string duration_text(uint64_t seconds);

}  // namespace ipsh

#endif
