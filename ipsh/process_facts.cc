// SPDX-License-Identifier: Apache-2.0
#include "process_facts.h"

#include <fmt/format.h>
#include <limits.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>

namespace ipsh {
namespace {

std::string contents_of(const std::string &file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::string link_of(const std::string &file) {
  char target[PATH_MAX];
  const ssize_t length = readlink(file.c_str(), target, sizeof target);
  return length <= 0 ? "" : std::string(target, static_cast<size_t>(length));
}

template <class Number>
std::optional<Number> number_of(std::string_view text, int base = 10) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  return error == std::errc() ? std::optional(number) : std::nullopt;
}

// The line at the front, taken off the text.
std::string_view take_line(std::string_view *text) {
  const size_t end = std::min(text->find('\n'), text->size());
  const std::string_view line = text->substr(0, end);
  text->remove_prefix(std::min(end + 1, text->size()));
  return line;
}

std::string_view word_of(std::string_view line, size_t index) {
  for (;;) {
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    const size_t end = std::min(line.find_first_of(" \t"), line.size());
    if (index-- == 0) return line.substr(0, end);
    if (end == line.size()) return {};
    line.remove_prefix(end);
  }
}

std::optional<uint64_t> hard_descriptor_limit(std::string_view limits) {
  constexpr std::string_view title = "Max open files";
  while (!limits.empty()) {
    const std::string_view line = take_line(&limits);
    if (!line.starts_with(title)) continue;
    const std::string_view hard = word_of(line.substr(title.size()), 1);
    return hard == "unlimited" ? std::optional(UINT64_MAX) : number_of<uint64_t>(hard);
  }
  return std::nullopt;
}

uint64_t seconds_since(uint64_t tick) {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  const auto ticks_per_second = static_cast<uint64_t>(std::max(1L, sysconf(_SC_CLK_TCK)));
  const auto seconds = static_cast<uint64_t>(now.tv_sec);
  return seconds - std::min(seconds, tick / ticks_per_second);
}

std::vector<std::string> arguments_of(const std::string &text) {
  std::vector<std::string> arguments;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\0', at), text.size());
    arguments.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return arguments;
}

}  // namespace

std::optional<ProcessStat> parse_stat(std::string_view line) {
  const size_t name_end = line.rfind(')');
  if (name_end == std::string_view::npos) return std::nullopt;
  const std::string_view rest = line.substr(name_end + 1);
  const std::string_view state = word_of(rest, 0);
  const std::optional<uint64_t> started = number_of<uint64_t>(word_of(rest, 19));  // the 22nd of all fields
  if (state.size() != 1 || !started) return std::nullopt;
  return ProcessStat{state.front(), *started};
}

std::optional<std::string> parse_status(std::string_view text, std::string_view name) {
  while (!text.empty()) {
    const std::string_view line = take_line(&text);
    if (!line.starts_with(name) || line.substr(name.size(), 1) != ":") continue;
    const std::string_view value = line.substr(name.size() + 1);
    const size_t begin = std::min(value.find_first_not_of(" \t"), value.size());
    return std::string(value.substr(begin));
  }
  return std::nullopt;
}

std::vector<std::string> parse_maps(std::string_view text) {
  std::vector<std::string> files;
  while (!text.empty()) {
    const std::string_view line = take_line(&text);
    const size_t slash = line.find('/');
    if (slash == std::string_view::npos) continue;
    const std::string file(line.substr(slash));
    if (std::ranges::find(files, file) == files.end()) files.push_back(file);
  }
  return files;
}

std::optional<ProcessFacts> read_process(uint32_t pid) {
  const std::string directory = fmt::format("/proc/{}/", pid);
  const std::optional<ProcessStat> stat = parse_stat(contents_of(directory + "stat"));
  // A zombie is the news of a process's end.
  if (pid == 0 || !stat || stat->state == 'Z' || stat->state == 'X') return std::nullopt;
  ProcessFacts facts{.pid = pid,
                     .command = contents_of(directory + "comm"),
                     .state = stat->state,
                     .uid = {},
                     .seconds = seconds_since(stat->started_at_tick),
                     .capabilities = {},
                     .most_descriptors = hard_descriptor_limit(contents_of(directory + "limits")),
                     .arguments = arguments_of(contents_of(directory + "cmdline")),
                     .directory = link_of(directory + "cwd"),
                     .network_namespace = link_of(directory + "ns/net"),
                     .files = {}};
  facts.command.erase(std::min(facts.command.find('\n'), facts.command.size()));
  const std::string status = contents_of(directory + "status");
  if (const auto uids = parse_status(status, "Uid")) facts.uid = number_of<uint32_t>(word_of(*uids, 1));
  if (const auto mask = parse_status(status, "CapEff")) facts.capabilities = number_of<uint64_t>(*mask, 16);
  const std::string maps = contents_of(directory + "maps");
  if (!maps.empty()) facts.files = parse_maps(maps);
  return facts;
}

std::optional<std::string> option_of(const std::vector<std::string> &arguments, std::string_view name) {
  for (size_t i = 1; i < arguments.size(); ++i) {
    const std::string &word = arguments[i];
    if (word == name) return i + 1 < arguments.size() ? arguments[i + 1] : "";
    if (word.starts_with(name) && word.substr(name.size(), 1) == "=") return word.substr(name.size() + 1);
  }
  return std::nullopt;
}

std::string duration_text(uint64_t seconds) {
  if (seconds < 60) return fmt::format("{} s", seconds);
  if (seconds < 3600) return fmt::format("{} min", seconds / 60);
  if (seconds < 86400) return fmt::format("{} h {} min", seconds / 3600, seconds % 3600 / 60);
  return fmt::format("{} d {} h", seconds / 86400, seconds % 86400 / 3600);
}

}  // namespace ipsh
