// SPDX-License-Identifier: Apache-2.0
#include "style.h"

#include <stdlib.h>
#include <unistd.h>

#include <array>

namespace ipsh {
namespace {

bool colors_are_on = false;

// SGR sequences: bold, green, yellow, red. Eight colours are on every terminal that has any.
constexpr std::array<std::string_view, 5> sequences{"", "\x1b[1m", "\x1b[32m", "\x1b[33m", "\x1b[31m"};
constexpr std::string_view back_to_plain = "\x1b[0m";

bool output_shows_colors() {
  const char *no_color = getenv("NO_COLOR");
  const char *terminal = getenv("TERM");
  if (no_color != nullptr && *no_color != '\0') return false;
  return terminal != nullptr && *terminal != '\0' && std::string_view(terminal) != "dumb" && isatty(STDOUT_FILENO) == 1;
}

}  // namespace

bool choose_colors(std::string_view when) {
  colors_are_on = when == "always" || ((when.empty() || when == "auto") && output_shows_colors());
  return when.empty() || when == "auto" || when == "always" || when == "never";
}

std::string painted(Style style, std::string_view text) {
  if (!colors_are_on || style == Style::plain || text.empty()) return std::string(text);
  return std::string(sequences.at(static_cast<size_t>(style))).append(text).append(back_to_plain);
}

}  // namespace ipsh
