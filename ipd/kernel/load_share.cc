// SPDX-License-Identifier: Apache-2.0
#include "ipd/kernel/load_share.h"

#include <fstream>
#include <limits>

namespace ipd::kernel {
namespace {

template <class Number>
Number read_number(const std::string &file) {
  uint64_t number = 0;
  std::ifstream stream(file);
  if (!(stream >> number) || number > std::numeric_limits<Number>::max()) return 0;
  return static_cast<Number>(number);
}

}  // namespace

LoadShare read_load_share(const std::string &directory) {
  LoadShare found;
  found.mode = read_number<uint8_t>(directory + "/fib_multipath_hash_policy");
  if (found.mode == custom_load_share) found.value = read_number<uint32_t>(directory + "/fib_multipath_hash_fields");
  return found;
}

}  // namespace ipd::kernel
