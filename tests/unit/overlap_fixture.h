// SPDX-License-Identifier: Apache-2.0
// A context whose prefixes a new one may collide with.
#ifndef TESTS_UNIT_OVERLAP_FIXTURE_H
#define TESTS_UNIT_OVERLAP_FIXTURE_H

#include <string>
#include <vector>

#include "unit/call_lines.h"
#include "unit/library_test.h"

namespace unit {

inline constexpr uint32_t net10 = address(10, 0, 0, 0);
inline constexpr uint32_t untouched = 0xabcdef01;

class OverlapFixture : public LibraryTest {
 protected:
  OverlapFixture() {
    red = database.context(2, "red", 20);
    for (uint32_t iod : {5u, 6u, 7u}) database.interface(iod);
  }
  static void down(uint32_t iod) { platform().interfaces[iod].admin_up = false; }
  void held(uint32_t addr, uint32_t length, const std::vector<uint32_t> &iods) {
    platform().log.name(database.node(red, addr, iods, {.length = length}), "node");
  }
  void bare(uint32_t addr, uint32_t length) { database.node(red, addr, {}, {.length = length, .with_info = false}); }
  static Calls calls_but_debug() { return without(calls(), {"sdwrap_chk_int"}); }

  ip_api_context_type *red;
  uint32_t out = untouched;
};

}  // namespace unit

#endif
