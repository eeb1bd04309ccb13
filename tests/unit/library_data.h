// SPDX-License-Identifier: Apache-2.0
// The library's private variables as a core dump shows them: texts that no function returns.
#ifndef TESTS_UNIT_LIBRARY_DATA_H
#define TESTS_UNIT_LIBRARY_DATA_H

#include <string>
#include <string_view>

namespace unit {

// Do these bytes stand anywhere in the writable data of libip?
bool library_data_holds(std::string_view bytes);

// The same for a text with its terminator.
inline bool library_data_holds_text(const std::string &text) {
  return library_data_holds(std::string_view(text.c_str(), text.size() + 1));
}

}  // namespace unit

#endif
