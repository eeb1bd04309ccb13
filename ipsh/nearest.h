// SPDX-License-Identifier: Apache-2.0
// Which of some names was probably meant by a word that is none of them.
#ifndef IPSH_NEAREST_H
#define IPSH_NEAREST_H

#include <span>
#include <string>
#include <string_view>

namespace ipsh {

// How many letters are to be added, removed, replaced or swapped with their neighbour to make one word the other.
[[nodiscard]] size_t edits_between(std::string_view one, std::string_view other);

// The nearest name, the first of equals; empty when none is near enough to be meant.
[[nodiscard]] std::string nearest(std::string_view word, std::span<const std::string> names);

}  // namespace ipsh

#endif
