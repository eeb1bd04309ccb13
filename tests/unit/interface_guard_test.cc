// SPDX-License-Identifier: Apache-2.0
// The guard around every question about the addresses and the state of one interface.
#include "tsp.h"
#include "unit/call_lines.h"
#include "unit/library_test.h"

namespace unit {
namespace {

constexpr uint32_t iod = 5;
constexpr uint32_t primary = address(10, 0, 0, 1);
constexpr uint32_t broadcast = address(10, 0, 0, 255);

enum class Detached { locks_first, takes_no_lock };

// A question with everything but the iod filled in, so that the interface below gives a nonzero answer.
struct Question {
  const char *name;
  uint32_t (*ask)(uint32_t iod);
  uint32_t answer;
  Detached detached;
};

uint32_t best_interface_address(uint32_t of) {
  uint32_t addr = 0;
  return ip_get_best_intf_addr(of, broadcast, &addr) == 0 ? 0 : addr;
}

const Question questions[] = {
    {"TargetOnSubnet", [](uint32_t of) { return ip_check_target_addr_for_local_subnet(of, broadcast); }, 1,
     Detached::locks_first},
    {"AddressForSubnet", [](uint32_t of) { return ip_get_local_addr_for_subnet(of, broadcast); }, primary,
     Detached::locks_first},
    {"OnAttachedSubnet", [](uint32_t of) { return ip_is_addr_on_attached_subnet(broadcast, of); }, primary,
     Detached::locks_first},
    {"LocalAddress", ip_get_local_addr, primary, Detached::takes_no_lock},
    {"VirtualAddressCount", ip_get_vaddr_count_for_iod, 3, Detached::locks_first},
    {"BestLocalAddress", [](uint32_t of) { return ip_get_best_local_addr(of, broadcast); }, primary,
     Detached::locks_first},
    {"BestInterfaceAddress", best_interface_address, primary, Detached::locks_first},
    {"DirectedBroadcast", [](uint32_t of) { return ip_is_addr_directed_broadcast(broadcast, of); }, 1,
     Detached::locks_first},
    {"Enabled", ip_enabled, 1, Detached::takes_no_lock},
    {"ForwardEnabled", ip_forward_enabled, 1, Detached::takes_no_lock},
};

const std::vector<std::string_view> lock_calls = {"tsp_lock_acquire_rdlock", "tsp_lock_release_rdlock"};

class AddressQuestion : public LibraryTest, public testing::WithParamInterface<Question> {
 protected:
  AddressQuestion() {
    record = database.interface(iod, {{primary, 24}}, 50);
    record->vaddr_count = 3;
    record->fwd_enabled = 1;
  }
  ip_iftype *record;
};

TEST_P(AddressQuestion, ReadsTheRecordUnderTheLock) {
  attach();
  EXPECT_EQ(GetParam().ask(iod), GetParam().answer);
  EXPECT_EQ(calls(),
            (Calls{"tsp_lock_acquire_rdlock(7)", "lcache_im_get_extension1(5, 267)", "tsp_lock_release_rdlock(7)"}));
}

TEST_P(AddressQuestion, TakesNoLockInTheIpProcess) {
  attach();
  ip_is_server_flag = 1;
  EXPECT_EQ(GetParam().ask(iod), GetParam().answer);
  EXPECT_EQ(calls(), Calls{"lcache_im_get_extension1(5, 267)"});
}

TEST_P(AddressQuestion, IsNoWhenDetached) {
  EXPECT_EQ(GetParam().ask(iod), 0u);
  const Calls locked = {"tsp_lock_acquire_rdlock(0)", "tsp_lock_release_rdlock(0)"};
  EXPECT_EQ(calls(), GetParam().detached == Detached::locks_first ? locked : Calls{});
}

TEST_P(AddressQuestion, NoticesThatAttachmentWasLostWhileItWaitedForTheLock) {
  attach();
  platform().locks.while_waiting = [] { ip_api_attached = 0; };
  EXPECT_EQ(GetParam().ask(iod), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"}));
}

TEST_P(AddressQuestion, AboutNoInterfaceIsNoAndReadsNothing) {
  attach();
  EXPECT_EQ(GetParam().ask(0), 0u);
  EXPECT_EQ(without(calls(), lock_calls), Calls{});
}

TEST_P(AddressQuestion, AboutAnInterfaceWithoutARecordIsNo) {
  attach();
  EXPECT_EQ(GetParam().ask(6), 0u);
  EXPECT_EQ(calls(),
            (Calls{"tsp_lock_acquire_rdlock(7)", "lcache_im_get_extension1(6, 267)", "tsp_lock_release_rdlock(7)"}));
}

TEST_P(AddressQuestion, IsNoWhenTheInterfaceManagerFails) {
  attach();
  platform().scripts.fail("lcache_im_get_extension1");
  EXPECT_EQ(GetParam().ask(iod), 0u);
}

TEST_P(AddressQuestion, IsNoForAnEmptyRecord) {
  database.interface(9);
  attach();
  EXPECT_EQ(GetParam().ask(9), 0u);
}

TEST_P(AddressQuestion, MayBeAskedWhileTheLockIsHeld) {
  attach();
  tsp_lock_acquire_rdlock(ip_client.rwsem_lock);
  EXPECT_EQ(GetParam().ask(iod), GetParam().answer);
  tsp_lock_release_rdlock(ip_client.rwsem_lock);
}

TEST_P(AddressQuestion, LeavesTheErrorTextAndTheLogAlone) {
  ip_api_err_log[0] = 'x';
  GetParam().ask(iod);
  attach();
  GetParam().ask(iod);
  GetParam().ask(6);
  EXPECT_STREQ(ip_api_get_error(), "x");
  EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), 0u);
}

INSTANTIATE_TEST_SUITE_P(Questions, AddressQuestion, testing::ValuesIn(questions),
                         [](const auto &of) { return std::string(of.param.name); });

}  // namespace
}  // namespace unit
