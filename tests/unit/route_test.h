// SPDX-License-Identifier: Apache-2.0
// The fixture of the questions that are answered from routes: three contexts, a URIB client that is up, and the calls
// of a question as a test expects them.
#ifndef TESTS_UNIT_ROUTE_TEST_H
#define TESTS_UNIT_ROUTE_TEST_H

#include <string>
#include <string_view>

#include "unit/library_test.h"

namespace unit {

class RouteTest : public LibraryTest {
 protected:
  static constexpr uint32_t red_table = 20;
  static constexpr uint32_t blue_table = 30;

  RouteTest() {
    red = database.context(2, "red", red_table);
    blue = database.context(3, "blue", blue_table);
    database.context(4, "tableless");
    ip_api_dep_modules_init_done = 1;
  }

  // A route of URIB, with its name in the log of calls. In red's table unless it says another.
  static fake_platform::Route &add_route(const std::string &name, fake_platform::Route route) {
    if (route.table == 0) route.table = red_table;
    fake_platform::Route &added = platform().routes.emplace_back(std::move(route));
    platform().log.name(&added, name);
    return added;
  }

  // All calls of a question: the context is found, and its lock given back, before URIB's lock is taken.
  static Calls context_then_urib(const Calls &urib_calls) {
    Calls all = {"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"};
    const Calls under_lock = locked_urib(urib_calls);
    all.insert(all.end(), under_lock.begin(), under_lock.end());
    return all;
  }
  static Calls locked_urib(const Calls &urib_calls) {
    Calls all = {"urib_acquire_rdlock()"};
    all.insert(all.end(), urib_calls.begin(), urib_calls.end());
    all.emplace_back("urib_release_rdlock()");
    return all;
  }
  static bool called(std::string_view function) { return platform().log.count(function) != 0; }

  ip_api_context_type *red;
  ip_api_context_type *blue;
};

}  // namespace unit

#endif
