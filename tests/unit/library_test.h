// SPDX-License-Identifier: Apache-2.0
// The fixture of the library's unit tests: libip in the state of a fresh process on a fresh fake platform.
//
// At the end of a test every acquired lock must have been released, the database's lock never taken under URIB's, no
// route used without URIB's lock, and every scripted answer used. A test in which the imbalance is the behaviour says
// so with expect_urib_depth().
#ifndef TESTS_UNIT_LIBRARY_TEST_H
#define TESTS_UNIT_LIBRARY_TEST_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fake_platform/database.h"
#include "fake_platform/platform.h"
#include "ip_api.h"

namespace unit {

using fake_platform::address;
using fake_platform::AddressAndLength;
using fake_platform::Database;
using fake_platform::platform;
using Calls = std::vector<std::string>;

inline constexpr uint32_t component = 267;
inline constexpr uint32_t lock_handle = 7;  // the first one that the fake platform creates

class LibraryTest : public testing::Test {
 protected:
  LibraryTest();
  ~LibraryTest() override;
  void TearDown() override;

  // Attaches to the database and forgets the calls that this took.
  static void attach();
  static Calls calls() { return platform().log.lines(); }
  void expect_urib_depth(int depth) { urib_depth_ = depth; }

  Database database;

 private:
  int urib_depth_ = 0;
};

// From host order to network order, or back.
uint32_t in_network_order(uint32_t word);

// Puts every word of the library back to what a fresh process has.
void reset_library();

// What a message looks like in the log of calls when no facility is set: it reaches the rate limiter only.
std::string limited(const std::string &message, const std::string &text);

}  // namespace unit

#endif
