// SPDX-License-Identifier: Apache-2.0
// Is an address local to a context, is it virtual, is it active; which local address comes next, which is the lowest
// active one. All from the context's tree; only whether a virtual address is active is asked of the URIB.
#include <set>

#include "unit/call_lines.h"
#include "unit/library_test.h"
#include "unit/random_words.h"

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

const Calls context_lookup = {"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"};

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

// ------------------------------------------------------------ the lowest active local address

class ActiveLocalAddressTest : public LibraryTest {
 protected:
  ActiveLocalAddressTest() : red(database.context(2, "red", table)) {
    for (uint32_t iod : {5u, 6u, 7u}) database.interface(iod);
  }
  static void down(uint32_t iod) { platform().interfaces[iod].up = false; }
  static void local_route(uint32_t addr, uint32_t data) {
    platform().routes.push_back({.table = table, .addr = addr, .local = true, .first_data = data});
  }
  ip_api_context_type *red;
};

TEST_F(ActiveLocalAddressTest, IsTheLowestWithoutASign) {
  database.node(red, address(200, 0, 0, 1), {5});
  database.node(red, address(10, 0, 0, 2), {6});
  database.node(red, address(10, 0, 0, 3), {6});
  attach();
  EXPECT_EQ(ip_get_active_local_address(2), address(10, 0, 0, 2));
}

TEST_F(ActiveLocalAddressTest, PassesSubnetsOver) {
  database.node(red, address(10, 0, 0, 0), {5}, {.length = 8});
  database.node(red, address(10, 0, 0, 0), {5}, {.length = 31});
  database.node(red, address(10, 0, 0, 1), {6});
  attach();
  EXPECT_EQ(ip_get_active_local_address(2), address(10, 0, 0, 1));
}

TEST_F(ActiveLocalAddressTest, PassesAddressesOverThatNobodyHolds) {
  database.node(red, address(10, 0, 0, 1), {}, {.with_info = false});
  database.node(red, address(10, 0, 0, 2), {});
  database.node(red, address(10, 0, 0, 3), {0, 5});
  database.node(red, address(10, 0, 0, 4), {6});
  attach();
  EXPECT_EQ(ip_get_active_local_address(2), address(10, 0, 0, 4));
  EXPECT_EQ(platform().log.count("im_is_if_up"), 1u);
}

TEST_F(ActiveLocalAddressTest, PassesAddressesOverWhoseFirstHolderIsDown) {
  database.node(red, address(10, 0, 0, 1), {5, 6});
  database.node(red, address(10, 0, 0, 2), {6, 5});
  down(5);
  platform().interfaces[6].admin_up = false;
  attach();
  EXPECT_EQ(ip_get_active_local_address(2), address(10, 0, 0, 2)) << "the carrier counts, not the administrator";
}

TEST_F(ActiveLocalAddressTest, PassesInactiveVirtualAddressesOver) {
  for (uint32_t host = 1; host <= 3; host++) database.node(red, address(10, 0, 0, host), {5}, {.vip = true});
  local_route(address(10, 0, 0, 1), 0xdeadbeef);
  local_route(address(10, 0, 0, 3), 0);
  attach();
  EXPECT_EQ(ip_get_active_local_address(2), address(10, 0, 0, 3));
}

TEST_F(ActiveLocalAddressTest, AnActiveVirtualAddressOfAnInterfaceThatIsDownIsPassedOver) {
  database.node(red, address(10, 0, 0, 1), {5}, {.vip = true});
  local_route(address(10, 0, 0, 1), 0);
  down(5);
  attach();
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
}

TEST_F(ActiveLocalAddressTest, ResolvesTheContextBeforeItTakesTheLock) {
  database.node(red, address(10, 0, 0, 1), {5}, {.vip = true});
  database.node(red, address(10, 0, 0, 2), {6});
  attach();
  ip_get_active_local_address(2);
  Calls names;
  for (const std::string &line : calls()) names.emplace_back(function_of(line));
  EXPECT_EQ(names, (Calls{"tsp_lock_acquire_rdlock", "tsp_lock_release_rdlock", "tsp_lock_acquire_rdlock",
                          "pt_get_first_node", "im_is_if_up", "urib_acquire_rdlock", "urib_get_best_route",
                          "urib_release_rdlock", "pt_get_next_node", "im_is_if_up", "tsp_lock_release_rdlock"}));
  EXPECT_EQ(only(calls(), {"pt_get_next_node", "im_is_if_up", "urib_get_best_route"}),
            (Calls{"im_is_if_up(5)", "urib_get_best_route(20, 10.0.0.1, 0, 0)",
                   "pt_get_next_node(tree of red, 10.0.0.1/32, 0)", "im_is_if_up(6)"}));
}

TEST_F(ActiveLocalAddressTest, TakesNoLockInTheIpProcess) {
  database.node(red, address(10, 0, 0, 1), {5});
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(ip_get_active_local_address(2), address(10, 0, 0, 1));
  EXPECT_EQ(only(calls(), {"tsp_lock_acquire_rdlock", "tsp_lock_release_rdlock"}), Calls{});
}

TEST_F(ActiveLocalAddressTest, IsNoneInAnEmptyTree) {
  attach();
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
}

TEST_F(ActiveLocalAddressTest, IsNoneInNoContextWithoutAReport) {
  attach();
  EXPECT_EQ(ip_get_active_local_address(0), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(ActiveLocalAddressTest, IsNoneInAnUnknownContextOrOneWithoutATree) {
  database.context_without_tree(4, "treeless");
  attach();
  EXPECT_EQ(ip_get_active_local_address(99), 0u);
  EXPECT_EQ(calls(), context_lookup) << "no second lock";
  EXPECT_EQ(ip_get_active_local_address(4), 0u);
  EXPECT_EQ(platform().log.count("pt_get_first_node"), 0u);
}

TEST_F(ActiveLocalAddressTest, IsNoneWhenDetached) {
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(ActiveLocalAddressTest, IsNoneWhenAttachmentIsLostWhileItWaitsForTheLock) {
  database.node(red, address(10, 0, 0, 1), {5});
  attach();
  platform().locks.while_waiting = [] { ip_api_attached = 0; };
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
  EXPECT_EQ(platform().log.count("tsp_lock_acquire_rdlock"), 2u) << "of the context, and of the walk";
  EXPECT_EQ(platform().log.count("pt_get_first_node"), 0u);
}

TEST_F(ActiveLocalAddressTest, FailingTreeCallsEndTheWalk) {
  database.node(red, address(10, 0, 0, 1), {7});
  database.node(red, address(10, 0, 0, 2), {5});
  down(7);
  attach();
  platform().scripts.fail_call("pt_get_first_node", 1);
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
  platform().scripts.fail_call("pt_get_next_node", 1);
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
  EXPECT_EQ(ip_get_active_local_address(2), address(10, 0, 0, 2));
}

TEST_F(ActiveLocalAddressTest, IsNoneWhenTheInterfaceManagerFails) {
  database.node(red, address(10, 0, 0, 1), {5});
  attach();
  platform().scripts.fail("im_is_if_up");
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
}

TEST_F(ActiveLocalAddressTest, ATreeThatNeverEndsIsLeft) {
  auto *node = database.node(red, address(10, 0, 0, 1), {});
  attach();
  platform().scripts.answer("pt_get_next_node", reinterpret_cast<uintptr_t>(node));
  platform().log.record(false);
  EXPECT_EQ(ip_get_active_local_address(2), 0u);
}

// ------------------------------------------------------------ the next local address

struct Next {
  const char *name;
  uint32_t (*ask)(const char *context, uint32_t addr);
};

class NextLocalAddress : public LibraryTest, public testing::WithParamInterface<Next> {
 protected:
  NextLocalAddress() : red(database.context(2, "red", table)) {}
  static uint32_t next(uint32_t addr) { return GetParam().ask("red", addr); }
  ip_api_context_type *red;
};

TEST_P(NextLocalAddress, VisitsAllInAscendingOrder) {
  for (uint32_t addr : {address(200, 0, 0, 1), address(10, 0, 0, 2), address(10, 0, 0, 1)})
    database.node(red, addr, {5});
  attach();
  EXPECT_EQ(next(0), address(10, 0, 0, 1));
  EXPECT_EQ(next(address(10, 0, 0, 1)), address(10, 0, 0, 2));
  EXPECT_EQ(next(address(10, 0, 0, 2)), address(200, 0, 0, 1));
  EXPECT_EQ(next(address(200, 0, 0, 1)), 0u);
}

TEST_P(NextLocalAddress, GoesOnFromAnAddressThatIsNotThere) {
  database.node(red, address(10, 0, 0, 1), {5});
  attach();
  EXPECT_EQ(next(address(9, 255, 255, 255)), address(10, 0, 0, 1));
  EXPECT_EQ(next(address(11, 0, 0, 0)), 0u);
}

TEST_P(NextLocalAddress, AnyInformationWillDo) {
  database.node(red, address(10, 0, 0, 1), {}, {.with_info = false});
  database.node(red, address(10, 0, 0, 2), {}, {.vip = true});
  attach();
  EXPECT_EQ(next(0), address(10, 0, 0, 1));
  EXPECT_EQ(next(address(10, 0, 0, 1)), address(10, 0, 0, 2));
}

TEST_P(NextLocalAddress, PassesSubnetsOver) {
  database.node(red, address(10, 0, 0, 0), {5}, {.length = 24});
  database.node(red, address(10, 0, 0, 2), {5}, {.length = 31});
  database.node(red, address(10, 0, 0, 3), {5});
  attach();
  EXPECT_EQ(next(address(9, 0, 0, 0)), address(10, 0, 0, 3));
}

TEST_P(NextLocalAddress, StepsFromTheWholeAddressUnderTheLock) {
  database.node(red, address(10, 0, 0, 0), {5}, {.length = 30});
  database.node(red, address(10, 0, 0, 1), {5});
  attach();
  EXPECT_EQ(next(address(10, 0, 0, 0)), address(10, 0, 0, 1));
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)",
                            "pt_get_next_node(tree of red, 10.0.0.0/32, 0)", "tsp_lock_release_rdlock(7)"}));
}

TEST_P(NextLocalAddress, TakesNoLockInTheIpProcess) {
  database.node(red, address(10, 0, 0, 1), {5});
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(next(0), address(10, 0, 0, 1));
  EXPECT_EQ(calls(), Calls{"pt_get_next_node(tree of red, 0.0.0.0/32, 0)"});
}

TEST_P(NextLocalAddress, InNoContextIsNoneAndAsksNobody) {
  attach();
  EXPECT_EQ(GetParam().ask(nullptr, 0), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_P(NextLocalAddress, InAnUnknownContextOrOneWithoutATreeIsNone) {
  database.context_without_tree(4, "treeless");
  attach();
  EXPECT_EQ(GetParam().ask("Red", 0), 0u);
  EXPECT_EQ(GetParam().ask("treeless", 0), 0u);
  EXPECT_EQ(platform().log.count("pt_get_next_node"), 0u);
}

TEST_P(NextLocalAddress, DetachedIsNone) {
  EXPECT_EQ(next(0), 0u);
  EXPECT_EQ(platform().log.count("pt_get_next_node"), 0u);
}

TEST_P(NextLocalAddress, IsNoneWhenTheTreeLibraryFails) {
  database.node(red, address(10, 0, 0, 1), {5});
  attach();
  platform().scripts.fail("pt_get_next_node");
  EXPECT_EQ(next(0), 0u);
}

TEST_P(NextLocalAddress, ASubnetThatIsAnsweredAgainAndAgainIsNoAnswer) {
  auto *node = database.node(red, address(10, 0, 0, 0), {}, {.length = 8});
  attach();
  platform().log.record(false);
  // The first step stands at the subnet; from there on the answer is a node, and the key stays where it is.
  for (unsigned n = 2; n <= 64; n++) {
    platform().scripts.answer_call("pt_get_next_node", n, reinterpret_cast<uintptr_t>(node));
  }
  EXPECT_EQ(next(0), 0u) << "all that it met was a subnet";
}

TEST_P(NextLocalAddress, WalksLikeATwinOnRandomTrees) {
  RandomWords random;
  attach();
  platform().log.record(false);
  for (int round = 0; round < 50; round++) {
    platform().trees[red->local_pt.get()] = {};
    std::set<uint32_t> hosts;
    std::set<std::pair<uint32_t, uint32_t>> known;
    for (uint32_t n = random.below(30); n != 0; n--) {
      const uint32_t length = random.below(3) == 0 ? 24 + random.below(8) : 32;
      const uint32_t addr = (random() & 0xc0000f0f) & ~uint32_t{0} << (32 - length);
      if (!known.emplace(addr, length).second) continue;
      database.node(red, addr, {5}, {.length = length});
      if (length == 32) hosts.insert(addr);
    }
    for (int question = 0; question < 40; question++) {
      const uint32_t addr = random() & 0xc0000f0f;
      const auto expected = hosts.upper_bound(addr);
      ASSERT_EQ(next(addr), expected == hosts.end() ? 0 : *expected) << fake_platform::dotted(addr);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Names, NextLocalAddress,
                         testing::Values(Next{"NextAddress", ip_get_next_address},
                                         Next{"NextAllAddress", ip_get_next_all_address}),
                         [](const auto &of) { return std::string(of.param.name); });

}  // namespace
}  // namespace unit
