// SPDX-License-Identifier: Apache-2.0
// ipd of both widths, where this build has one of its own; the 64-bit programs are those of preset native.
#ifndef TESTS_SYSTEM_BOTH_WIDTHS_H
#define TESTS_SYSTEM_BOTH_WIDTHS_H

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

namespace both_widths {

struct Ipd {
  const char *name;
  std::string path;
};

inline void PrintTo(const Ipd &ipd, std::ostream *out) {
  *out << ipd.name;
}

inline const std::string native = NATIVE_BIN;

inline std::vector<Ipd> ipds() {
  return {
      {"WideIpd", native + "/ipd"},
#ifdef NARROW_IPD
      {"NarrowIpd", NARROW_IPD},
#endif
  };
}

inline std::string name_of(const testing::TestParamInfo<Ipd> &info) {
  return info.param.name;
}

}  // namespace both_widths

#endif
