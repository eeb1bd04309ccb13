// SPDX-License-Identifier: Apache-2.0
// Is an address local to a context, is it virtual, is it active? All from the context's tree; only whether a virtual
// address is active is asked of the URIB.
#include "unit/call_lines.h"
#include "unit/library_test.h"

namespace unit {
namespace {

constexpr uint32_t table = 20;
constexpr uint32_t plain = address(10, 0, 0, 1);
constexpr uint32_t live_vip = address(10, 0, 0, 2);
constexpr uint32_t dead_vip = address(10, 0, 0, 3);
constexpr uint32_t routeless_vip = address(10, 0, 0, 4);
constexpr uint32_t bare = address(10, 0, 0, 5);        // a node without information
constexpr uint32_t nobody = address(10, 0, 0, 6);      // a node that no interface holds
constexpr uint32_t nobody_vip = address(10, 0, 0, 7);  // the same, virtual and active
constexpr uint32_t remote_vip = address(10, 0, 0, 8);  // its best route is not local
constexpr uint32_t absent = address(10, 0, 0, 9);

class LocalFixture : public LibraryTest {
 protected:
  LocalFixture() {
    red = database.context(2, "red", table);
    database.node(red, plain, {5, 6});
    database.node(red, live_vip, {6, 5}, {.vip = true});
    database.node(red, dead_vip, {7}, {.vip = true});
    database.node(red, routeless_vip, {7}, {.vip = true});
    database.node(red, bare, {}, {.with_info = false});
    database.node(red, nobody, {});
    database.node(red, nobody_vip, {}, {.vip = true});
    database.node(red, remote_vip, {7}, {.vip = true});
    database.node(red, absent, {8}, {.length = 31});
    database.context_without_tree(4, "treeless", 40);
    for (uint32_t iod : {5u, 6u, 7u, 8u}) database.interface(iod);
    route(live_vip, {.local = true, .first_iod = 6, .first_data = 1});
    route(dead_vip, {.local = true, .first_iod = 7, .first_data = 0xdeadbeef});
    route(nobody_vip, {.local = true, .first_data = 1});
    route(remote_vip, {.local = false, .first_iod = 7, .first_data = 1});
  }
  static void route(uint32_t addr, fake_platform::Route made) {
    made.table = table;
    made.addr = addr;
    platform().routes.push_back(made);
    platform().log.name(&platform().routes.back(), "route to " + fake_platform::dotted(addr));
  }
  // Past the first question that initialises the URIB's client.
  static void attach_with_urib() {
    attach();
    ip_api_dep_modules_init_done = 1;
  }

  ip_api_context_type *red;
};

// ------------------------------------------------------------ the four exact questions

struct Question {
  const char *name;
  uint32_t (*ask)(uint32_t addr);  // in the context red
  uint32_t (*ask_in_treeless)(uint32_t addr);
  uint32_t (*ask_in_unknown)(uint32_t addr);
  uint32_t (*ask_in_none)(uint32_t addr);  // no name, or id 0
  bool initialises_urib;
  bool answers_plain;
  bool answers_dead_vip;
};

const Question questions[] = {
    {"Active", [](uint32_t addr) { return ip_is_addr_local_active("red", addr); },
     [](uint32_t addr) { return ip_is_addr_local_active("treeless", addr); },
     [](uint32_t addr) { return ip_is_addr_local_active("Red", addr); },
     [](uint32_t addr) { return ip_is_addr_local_active(nullptr, addr); }, true, true, false},
    {"Local", [](uint32_t addr) { return ip_is_addr_local("red", addr); },
     [](uint32_t addr) { return ip_is_addr_local("treeless", addr); },
     [](uint32_t addr) { return ip_is_addr_local("Red", addr); },
     [](uint32_t addr) { return ip_is_addr_local(nullptr, addr); }, true, true, false},
    {"Vip", [](uint32_t addr) { return ip_is_addr_local_vip(2, addr); },
     [](uint32_t addr) { return ip_is_addr_local_vip(4, addr); },
     [](uint32_t addr) { return ip_is_addr_local_vip(99, addr); },
     [](uint32_t addr) { return ip_is_addr_local_vip(0, addr); }, true, false, true},
    {"Interface", [](uint32_t addr) { return ip_is_addr_local_intf(2, addr); },
     [](uint32_t addr) { return ip_is_addr_local_intf(4, addr); },
     [](uint32_t addr) { return ip_is_addr_local_intf(99, addr); },
     [](uint32_t addr) { return ip_is_addr_local_intf(0, addr); }, false, true, true},
};

class LocalAddressQuestion : public LocalFixture, public testing::WithParamInterface<Question> {
 protected:
  static uint32_t ask(uint32_t addr) { return GetParam().ask(addr); }
};

TEST_P(LocalAddressQuestion, AnswersAnOrdinaryAddressByItsFirstHolder) {
  attach_with_urib();
  EXPECT_EQ(ask(plain), GetParam().answers_plain ? 5u : 0u);
  EXPECT_EQ(platform().log.count("urib_get_best_route"), 0u) << "nothing is asked of the URIB";
}

TEST_P(LocalAddressQuestion, AnswersAnActiveVirtualAddressByItsFirstHolder) {
  attach_with_urib();
  EXPECT_EQ(ask(live_vip), 6u);
}

TEST_P(LocalAddressQuestion, AnswersAnInactiveVirtualAddressOnlyWhereActivityDoesNotCount) {
  attach_with_urib();
  for (uint32_t addr : {dead_vip, routeless_vip, remote_vip}) {
    EXPECT_EQ(ask(addr), GetParam().answers_dead_vip ? 7u : 0u) << fake_platform::dotted(addr);
  }
}

TEST_P(LocalAddressQuestion, IsNoForAnAddressThatNobodyHolds) {
  attach_with_urib();
  for (uint32_t addr : {bare, nobody, nobody_vip, absent, 0u, 0xffffffffu}) {
    EXPECT_EQ(ask(addr), 0u) << fake_platform::dotted(addr);
  }
}

TEST_P(LocalAddressQuestion, LooksUpTheContextAndTheAddressUnderTheLock) {
  attach_with_urib();
  ask(plain);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)",
                            "pt_lookup(tree of red, 10.0.0.1, 32, 1)", "tsp_lock_release_rdlock(7)"}));
}

TEST_P(LocalAddressQuestion, TakesNoLockInTheIpProcess) {
  attach_with_urib();
  ip_is_server_flag = 1;
  EXPECT_EQ(ask(live_vip), 6u);
  EXPECT_EQ(platform().log.count("tsp_lock_acquire_rdlock"), 0u);
  EXPECT_EQ(platform().log.count("tsp_lock_release_rdlock"), 0u);
}

TEST_P(LocalAddressQuestion, InitialisesTheUribOnceBeforeAnythingElseWhereItMayBeAsked) {
  attach();
  ask(plain);
  if (GetParam().initialises_urib) {
    EXPECT_EQ(calls().front(), "urib_api_init()");
    EXPECT_EQ(ip_api_dep_modules_init_done, 1u);
    ask(plain);
    EXPECT_EQ(platform().log.count("urib_api_init"), 1u);
  } else {
    EXPECT_EQ(platform().log.count("urib_api_init"), 0u);
    EXPECT_EQ(ip_api_dep_modules_init_done, 0u);
  }
}

TEST_P(LocalAddressQuestion, IsAnsweredAllTheSameWhenTheUribDoesNotInitialise) {
  if (GetParam().initialises_urib) platform().scripts.fail("urib_api_init");
  attach();
  EXPECT_EQ(ask(live_vip), 6u);
  EXPECT_EQ(ask(live_vip), 6u);
  EXPECT_EQ(ip_api_dep_modules_init_done, 0u);
  const Calls twice = {"urib_api_init()", limited("IP_FAILURE", "Failed call urib_api_init()"), "urib_api_init()",
                       limited("IP_FAILURE", "Failed call urib_api_init()")};
  EXPECT_EQ(only(calls(), {"urib_api_init", "syslog_msg_rate_limit"}), GetParam().initialises_urib ? twice : Calls{})
      << "tried again, and reported again";
}

TEST_P(LocalAddressQuestion, IsNoWhenDetachedWithoutTheLock) {
  EXPECT_EQ(ask(plain), 0u);
  EXPECT_EQ(calls(), GetParam().initialises_urib ? Calls{"urib_api_init()"} : Calls{});
}

TEST_P(LocalAddressQuestion, IsNoWhenAttachmentIsLostWhileItWaitsForTheLock) {
  attach_with_urib();
  platform().locks.while_waiting = [] { ip_api_attached = 0; };
  EXPECT_EQ(ask(plain), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
}

TEST_P(LocalAddressQuestion, InNoContextIsNoWithoutTheLockAndWithoutAReport) {
  attach_with_urib();
  EXPECT_EQ(GetParam().ask_in_none(plain), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_P(LocalAddressQuestion, InNoContextInitialisesTheUribAllTheSame) {
  attach();
  EXPECT_EQ(GetParam().ask_in_none(plain), 0u);
  EXPECT_EQ(calls(), GetParam().initialises_urib ? Calls{"urib_api_init()"} : Calls{});
}

TEST_P(LocalAddressQuestion, InAnUnknownContextIsNo) {
  attach_with_urib();
  EXPECT_EQ(GetParam().ask_in_unknown(plain), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)",
                            "tsp_lock_release_rdlock(7)"}));
}

TEST_P(LocalAddressQuestion, InAContextWithoutATreeIsNo) {
  attach_with_urib();
  EXPECT_EQ(GetParam().ask_in_treeless(plain), 0u);
  EXPECT_EQ(platform().log.count("pt_lookup"), 0u);
}

TEST_P(LocalAddressQuestion, IsNoWhenTheTreeLibraryFails) {
  attach_with_urib();
  platform().scripts.fail("pt_lookup");
  EXPECT_EQ(ask(live_vip), 0u);
}

TEST_P(LocalAddressQuestion, LeavesTheErrorTextAlone) {
  ip_api_err_log[0] = 'x';
  ask(plain);
  attach_with_urib();
  ask(plain);
  ask(absent);
  GetParam().ask_in_none(plain);
  EXPECT_STREQ(ip_api_get_error(), "x");
}

INSTANTIATE_TEST_SUITE_P(Questions, LocalAddressQuestion, testing::ValuesIn(questions),
                         [](const auto &of) { return std::string(of.param.name); });

class ActiveVipTest : public LocalFixture {};

TEST_F(ActiveVipTest, TheUribIsAskedInsideTheLock) {
  attach_with_urib();
  EXPECT_EQ(ip_is_addr_local_active("red", live_vip), 6u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)",
                            "pt_lookup(tree of red, 10.0.0.2, 32, 1)", "urib_acquire_rdlock()",
                            "urib_get_best_route(20, 10.0.0.2, 0, 0)", "urib_is_route_local(route to 10.0.0.2)",
                            "urib_route_first_bnh_nib_data_get(route to 10.0.0.2)", "urib_release_rdlock()",
                            "tsp_lock_release_rdlock(7)"}));
}

TEST_F(ActiveVipTest, IsNoneWhenAnyCallOfTheUribFails) {
  attach_with_urib();
  for (const char *function : {"urib_get_best_route", "urib_is_route_local", "urib_route_first_bnh_nib_data_get"}) {
    platform().scripts.fail(function);
    EXPECT_EQ(ip_is_addr_local_active("red", live_vip), 0u) << function;
    platform().scripts.succeed(function);
  }
  EXPECT_EQ(ip_is_addr_local_active("red", live_vip), 6u);
}

TEST_F(ActiveVipTest, AnyNonzeroWordMakesAnAddressVirtual) {
  auto *info = database.node(red, address(10, 0, 0, 50), {7})->info.get();
  attach_with_urib();
  EXPECT_EQ(ip_is_addr_local_vip(2, address(10, 0, 0, 50)), 0u);
  for (uint32_t word : {1u, 2u, 0x80000000u}) {
    info->vip = word;
    EXPECT_EQ(ip_is_addr_local_vip(2, address(10, 0, 0, 50)), 7u);
    EXPECT_EQ(ip_is_addr_local_active("red", address(10, 0, 0, 50)), 0u) << "no route";
  }
}

}  // namespace
}  // namespace unit
