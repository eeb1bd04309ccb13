// SPDX-License-Identifier: Apache-2.0
// What all questions that are answered from the routes of a named context have in common: how the context is found,
// whether the URIB client is started late, which locks are taken, and that a failing call is a "no".
#include <set>

#include "unit/route_test.h"

namespace unit {
namespace {

constexpr uint32_t addr = address(10, 0, 0, 9);
constexpr uint32_t selector = 77;

struct RouteQuestion {
  const char *name;
  uint32_t (*ask)(const char *context);
  bool starts_urib;     // when nobody did
  bool checks_its_own;  // name and attachment, before anything else
};

const RouteQuestion questions[] = {
    {"IsRouteDirect", [](const char *context) { return ip_is_route_direct(context, addr); }, false, false},
    {"GetIodFromAddr", [](const char *context) { return ip_get_iod_from_addr(context, addr); }, true, false},
    {"IsAddrAttached", [](const char *context) { return ip_is_addr_attached(context, addr); }, false, true},
    {"IsAddrMattached", [](const char *context) { return ip_is_addr_mattached(context, addr, selector); }, false,
     false},
    {"GetMstaticRpf", [](const char *context) { return ip_get_mstatic_rpf(context, addr, selector); }, false, false},
    {"GetMstaticRpfNoMpath", [](const char *context) { return ip_get_mstatic_rpf_no_mpath(context, addr, selector); },
     false, false},
    {"IsAddrLocalInUrib", [](const char *context) { return ip_is_addr_local_in_urib(context, addr); }, true, false},
    {"GetIodForAddress", [](const char *context) { return ip_get_iod_for_address(context, addr); }, true, false},
    {"GetIodForSubnet", [](const char *context) { return ip_get_iod_for_subnet(context, addr, 32); }, true, false},
};

// Each question has the answer 5 in red and 6 in blue, unless a test takes routes away.
class EveryRouteQuestion : public RouteTest, public testing::WithParamInterface<RouteQuestion> {
 protected:
  EveryRouteQuestion() {
    for (const uint32_t table : {red_table, blue_table}) {
      const uint32_t answer = table == red_table ? 5 : 6;
      // A static next hop counts for ip_get_mstatic_rpf only when no direct route covers the address.
      if (std::string_view(GetParam().name) != "GetMstaticRpf") {
        add_route("route",
                  {.table = table, .addr = addr, .local = true, .attached = true, .direct = true, .first_iod = answer});
      }
      add_route("static route", {.table = table,
                                 .addr = address(10, 0, 0, 0),
                                 .length = 8,
                                 .multicast = true,
                                 .multicast_static = true,
                                 .multicast_next_hops = {{selector, {.iod = answer, .addr = answer}}}});
    }
  }
  static uint32_t ask(const char *context) { return GetParam().ask(context); }
};

TEST_P(EveryRouteQuestion, IsAnsweredFromTheTableOfItsContext) {
  attach();
  EXPECT_EQ(ask("red"), 5u);
  EXPECT_EQ(ask("blue"), 6u);
  EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), 0u);
}

TEST_P(EveryRouteQuestion, GivesTheDatabaseLockBackBeforeItTakesTheOneOfUrib) {
  attach();
  ask("red");
  const Calls made = calls();
  ASSERT_GE(made.size(), 5u);
  EXPECT_EQ((Calls{made.begin(), made.begin() + 3}),
            (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)", "urib_acquire_rdlock()"}));
  EXPECT_EQ(made.back(), "urib_release_rdlock()");
  EXPECT_EQ(platform().log.count("tsp_lock_acquire_rdlock"), 1u);
  EXPECT_EQ(platform().log.count("urib_acquire_rdlock"), 1u);
  EXPECT_EQ(platform().log.count("urib_release_rdlock"), 1u);
}

TEST_P(EveryRouteQuestion, TakesOnlyTheLockOfUribInTheIpProcess) {
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(ask("red"), 5u);
  EXPECT_FALSE(called("tsp_lock_acquire_rdlock"));
  EXPECT_FALSE(called("tsp_lock_release_rdlock"));
  EXPECT_EQ(calls().front(), "urib_acquire_rdlock()");
  EXPECT_EQ(calls().back(), "urib_release_rdlock()");
}

TEST_P(EveryRouteQuestion, IsNoWithoutARoute) {
  platform().routes.clear();
  attach();
  EXPECT_EQ(ask("red"), 0u);
  EXPECT_EQ(calls().back(), "urib_release_rdlock()");
  EXPECT_FALSE(called("syslog_msg_rate_limit"));
}

TEST_P(EveryRouteQuestion, IsNoInAnUnknownContextWithoutAskingUrib) {
  attach();
  EXPECT_EQ(ask("Red"), 0u);
  EXPECT_FALSE(called("urib_acquire_rdlock"));
}

TEST_P(EveryRouteQuestion, IsNoInAContextWithoutATableWithoutAskingUrib) {
  attach();
  EXPECT_EQ(ask("tableless"), 0u);
  EXPECT_FALSE(called("urib_acquire_rdlock"));
  EXPECT_FALSE(called("urib_get_best_direct_route"));
}

TEST_P(EveryRouteQuestion, IsNoWhenNotAttachedWithoutAskingUrib) {
  EXPECT_EQ(ask("red"), 0u);
  EXPECT_FALSE(called("tsp_lock_acquire_rdlock"));
  EXPECT_FALSE(called("urib_acquire_rdlock"));
}

TEST_P(EveryRouteQuestion, IsNoWithQueuesOnly) {
  ip_api_init_mts_q();
  EXPECT_EQ(ask("red"), 0u);
  EXPECT_FALSE(called("urib_acquire_rdlock"));
}

TEST_P(EveryRouteQuestion, ReportsANameThatIsMissing) {
  attach();
  EXPECT_EQ(ask(nullptr), 0u);
  const char *text = GetParam().checks_its_own ? "context name not specified" : "Failed to get IP VRF by name (null)";
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", text)});
}

TEST_P(EveryRouteQuestion, LeavesTheErrorTextAlone) {
  attach();
  snprintf(ip_api_err_log, sizeof ip_api_err_log, "an earlier reason");
  ask("red");
  ask("none");
  EXPECT_STREQ(ip_api_get_error(), "an earlier reason");
}

// Whatever call of URIB fails, and whichever of several of its kind: the lock is given back, and the answer is the one
// of a table that lacks what the call asked for, never a value out of thin air.
TEST_P(EveryRouteQuestion, GivesTheLockBackWhicheverCallFails) {
  attach();
  ask("red");
  std::set<std::string> functions;
  for (const std::string &line : calls()) {
    const std::string function = line.substr(0, line.find('('));
    if (function.starts_with("urib_") && !function.ends_with("rdlock")) functions.insert(function);
  }
  ASSERT_FALSE(functions.empty());
  for (const std::string &function : functions) {
    platform().scripts.fail_call(function, 1);
    platform().log.clear();
    const uint32_t answer = ask("red");
    EXPECT_TRUE(answer == 0 || answer == 5) << function << ": " << answer;
    EXPECT_EQ(calls().back(), "urib_release_rdlock()") << function;
    EXPECT_EQ(platform().locks.urib_depth, 0) << function;
  }
}

// ------------------------------------------------------------ the late start of the URIB client

TEST_P(EveryRouteQuestion, StartsUribFirstAndOnceWhenItStartsItAtAll) {
  attach();
  ip_api_dep_modules_init_done = 0;
  EXPECT_EQ(ask("red"), 5u);
  if (GetParam().starts_urib) {
    EXPECT_EQ(calls().front(), "urib_api_init()");
    EXPECT_EQ(ip_api_dep_modules_init_done, 1u);
  } else {
    EXPECT_EQ(ip_api_dep_modules_init_done, 0u);
  }
  EXPECT_EQ(ask("red"), 5u);
  EXPECT_EQ(platform().log.count("urib_api_init"), GetParam().starts_urib ? 1u : 0u);
}

TEST_P(EveryRouteQuestion, GoesOnWhenUribDoesNotStartAndTheNextOneTriesAgain) {
  if (!GetParam().starts_urib) return;  // has no such start, as the test above says
  attach();
  ip_api_dep_modules_init_done = 0;
  platform().scripts.fail("urib_api_init");
  EXPECT_EQ(ask("red"), 5u) << "asked all the same";
  EXPECT_EQ((Calls{calls()[0], calls()[1]}),
            (Calls{"urib_api_init()", limited("IP_FAILURE", "Failed call urib_api_init()")}));
  EXPECT_EQ(ip_api_dep_modules_init_done, 0u);
  EXPECT_EQ(ask("red"), 5u);
  EXPECT_EQ(platform().log.count("urib_api_init"), 2u);
  platform().scripts.succeed("urib_api_init");
  EXPECT_EQ(ask("red"), 5u);
  EXPECT_EQ(ask("red"), 5u);
  EXPECT_EQ(platform().log.count("urib_api_init"), 3u);
  EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), 2u);
  EXPECT_EQ(ip_api_dep_modules_init_done, 1u);
}

TEST_P(EveryRouteQuestion, AnyMarkButOneMeansThatUribIsNotUp) {
  attach();
  ip_api_dep_modules_init_done = 2;
  ask("red");
  EXPECT_EQ(platform().log.count("urib_api_init"), GetParam().starts_urib ? 1u : 0u);
  EXPECT_EQ(ip_api_dep_modules_init_done, GetParam().starts_urib ? 1u : 2u);
}

TEST_P(EveryRouteQuestion, StartsUribEvenWhenTheContextIsUnknown) {
  ip_api_dep_modules_init_done = 0;
  EXPECT_EQ(ask("none"), 0u);
  EXPECT_EQ(platform().log.count("urib_api_init"), GetParam().starts_urib ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Questions, EveryRouteQuestion, testing::ValuesIn(questions),
                         [](const auto &of) { return std::string(of.param.name); });

}  // namespace
}  // namespace unit
