// SPDX-License-Identifier: Apache-2.0
// Router id of a context and the interface it came from, by the context's id and by its name.
#include "unit/library_test.h"

namespace unit {
namespace {

constexpr uint32_t red_router_id = address(192, 0, 2, 1);
constexpr uint32_t blue_router_id = address(255, 0, 2, 2);
constexpr uint32_t red_iod = 5;
constexpr uint32_t blue_iod = 0xfffffff0;

struct RouterIdQuestion {
  const char *name;
  bool asks_for_iod;
  // Each asks by what it asks by.
  uint32_t (*ask)(int32_t context_id, const char *context_name);
  bool by_name;
};

const RouterIdQuestion questions[] = {
    {"RouterId", false, [](int32_t id, const char *) { return ip_get_router_id(id); }, false},
    {"RouterIdIod", true, [](int32_t id, const char *) { return ip_get_router_id_iod(id); }, false},
    {"RouterIdByName", false, [](int32_t, const char *name) { return ip_get_router_id_by_name(name); }, true},
    {"RouterIdIodByName", true, [](int32_t, const char *name) { return ip_get_router_id_iod_by_name(name); }, true},
};

class RouterIdTest : public LibraryTest, public testing::WithParamInterface<RouterIdQuestion> {
 protected:
  RouterIdTest() {
    auto *red = database.context(2, "red");
    red->router_id = red_router_id;
    red->router_id_iod = red_iod;
    auto *blue = database.context(0xfffffffe, "blue");
    blue->router_id = blue_router_id;
    blue->router_id_iod = blue_iod;
    database.context(4, "fresh");
  }
  static uint32_t ask(int32_t id, const char *name) { return GetParam().ask(id, name); }
  static uint32_t expected(uint32_t router_id, uint32_t iod) { return GetParam().asks_for_iod ? iod : router_id; }
};

TEST_P(RouterIdTest, IsTheContextsOwn) {
  attach();
  EXPECT_EQ(ask(2, "red"), expected(red_router_id, red_iod));
  EXPECT_EQ(ask(-2, "blue"), expected(blue_router_id, blue_iod));
}

TEST_P(RouterIdTest, IsZeroWhenTheContextHasNone) {
  attach();
  EXPECT_EQ(ask(4, "fresh"), 0u);
}

TEST_P(RouterIdTest, IsReadUnderTheLockAroundTheLookupOfTheContext) {
  attach();
  ask(2, "red");
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)",
                            "tsp_lock_release_rdlock(7)"}));
}

TEST_P(RouterIdTest, TakesNoLockInTheIpProcess) {
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(ask(2, "red"), expected(red_router_id, red_iod));
  EXPECT_EQ(calls(), Calls{});
}

TEST_P(RouterIdTest, OfAnUnknownContextIsZeroWithoutAMessage) {
  attach();
  EXPECT_EQ(ask(7, "Red"), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)",
                            "tsp_lock_release_rdlock(7)"}));
}

TEST_P(RouterIdTest, OfNoContextIsReportedByTheLookup) {
  attach();
  EXPECT_EQ(ask(0, nullptr), 0u);
  const std::string message = GetParam().by_name ? limited("IP_INTERNAL_ERROR", "Failed to get IP VRF by name (null)")
                                                 : limited("INVALID_NOTIFY", "Failed to get IP API VRF 0");
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", message, "tsp_lock_release_rdlock(7)"}));
}

TEST_P(RouterIdTest, WithoutADatabaseIsZeroWithoutALock) {
  EXPECT_EQ(ask(2, "red"), 0u);
  EXPECT_EQ(ask(0, nullptr), 0u) << "and without a message";
  ip_api_init_mts_q();
  EXPECT_EQ(ask(2, "red"), 0u);
  EXPECT_EQ(ask(0, nullptr), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_P(RouterIdTest, IsZeroWhenTheAttachmentEndedWhileItWaitedForTheLock) {
  attach();
  platform().locks.while_waiting = [] { ip_api_attached = 0; };
  EXPECT_EQ(ask(2, "red"), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
}

TEST_P(RouterIdTest, LeavesTheErrorTextAlone) {
  attach();
  snprintf(ip_api_err_log, sizeof ip_api_err_log, "an earlier reason");
  ask(2, "red");
  ask(7, "none");
  EXPECT_STREQ(ip_api_get_error(), "an earlier reason");
}

INSTANTIATE_TEST_SUITE_P(Questions, RouterIdTest, testing::ValuesIn(questions),
                         [](const auto &of) { return std::string(of.param.name); });

}  // namespace
}  // namespace unit
