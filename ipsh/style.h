// SPDX-License-Identifier: Apache-2.0
// Colours, sparingly: headings, and words that say whether something is well. Only people on a terminal get any.
#ifndef IPSH_STYLE_H
#define IPSH_STYLE_H

#include <string>
#include <string_view>

namespace ipsh {

enum class Style { plain, heading, good, warning, bad };

// Decides once, before anything is printed. `when` is auto, always or never; empty is auto: on a terminal that can
// show colours, unless NO_COLOR is set. False: it is none of these.
[[nodiscard]] bool choose_colors(std::string_view when);

// The text as it is to be written; without colours, the text itself.
[[nodiscard]] std::string painted(Style style, std::string_view text);

}  // namespace ipsh

#endif
