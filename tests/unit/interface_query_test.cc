// SPDX-License-Identifier: Apache-2.0
// Questions to one interface: the guard around each, and what each reads of the record and its lists.
#include "tsp.h"
#include "unit/library_test.h"

namespace unit {
namespace {

constexpr uint32_t primary = address(10, 0, 0, 1);
constexpr uint32_t second = address(10, 0, 0, 2);
constexpr uint32_t third = address(172, 16, 0, 1);
constexpr uint32_t first_group = address(239, 1, 1, 1);
constexpr uint32_t second_group = address(224, 0, 0, 5);
constexpr uint32_t iod = 5;

// A question with everything but the iod filled in, so that the interface below gives a nonzero answer.
struct Question {
  const char *name;
  uint32_t (*ask)(uint32_t iod);
  uint32_t answer;
};

const Question questions[] = {
    {"LocalMaskLen", [](uint32_t of) { return ip_get_local_mask_len(third, of); }, 16},
    {"SecondaryCount", [](uint32_t of) { return ip_get_secondary_count(of); }, 2},
    {"NextSecondary",
     [](uint32_t of) {
       uint32_t addr = 0;
       uint8_t len = 99;
       ip_get_next_secondary(of, &addr, &len);
       EXPECT_EQ(len, addr == 0 ? 0 : 25);
       return addr;
     },
     second},
    {"GroupJoined", [](uint32_t of) { return ip_is_group_joined(second_group, of); }, 1},
    {"DirectedBroadcast", [](uint32_t of) { return ip_allow_directed_broadcast(of); }, 0x80000002},
    {"Unnumbered", [](uint32_t of) { return ip_is_iod_unnumbered(of); }, 1},
    {"MulticastEnabled", [](uint32_t of) { return ip_is_multicast_enabled(of); }, 1},
};

class InterfaceFixture : public LibraryTest {
 protected:
  InterfaceFixture() {
    record = database.interface(iod, {{primary, 24}, {second, 25}, {third, 16}}, 50);
    database.groups(record, {first_group, second_group});
    database.unnumbered(record, 6, "lo0");
    record->directed_bcast = 0x80000002;
    record->mcast_enabled = 0x40;
  }
  ip_iftype *record;
};

const Calls lock_only = {"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"};
const Calls lock_and_record = {"tsp_lock_acquire_rdlock(7)", "lcache_im_get_extension1(5, 267)",
                               "tsp_lock_release_rdlock(7)"};

class GuardedQuestion : public InterfaceFixture, public testing::WithParamInterface<Question> {};

TEST_P(GuardedQuestion, ReadsTheRecordUnderTheLock) {
  attach();
  EXPECT_EQ(GetParam().ask(iod), GetParam().answer);
  EXPECT_EQ(calls(), lock_and_record);
}

TEST_P(GuardedQuestion, TakesNoLockInTheIpProcess) {
  attach();
  for (uint32_t flag : {1u, 2u, 0x80000000u}) {
    ip_is_server_flag = flag;
    platform().log.clear();
    EXPECT_EQ(GetParam().ask(iod), GetParam().answer);
    EXPECT_EQ(calls(), Calls{"lcache_im_get_extension1(5, 267)"});
  }
}

TEST_P(GuardedQuestion, LocksFirstAndThenFindsItselfDetached) {
  EXPECT_EQ(GetParam().ask(iod), 0u);
  EXPECT_EQ(calls(), (Calls{"tsp_lock_acquire_rdlock(0)", "tsp_lock_release_rdlock(0)"}));
}

TEST_P(GuardedQuestion, IsNoAgainAfterTheLastClose) {
  attach();
  ip_api_close();
  platform().log.clear();
  EXPECT_EQ(GetParam().ask(iod), 0u);
  EXPECT_EQ(platform().log.count("lcache_im_get_extension1"), 0u);
}

TEST_P(GuardedQuestion, DetachedInTheIpProcessCallsNobody) {
  ip_is_server_flag = 1;
  EXPECT_EQ(GetParam().ask(iod), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_P(GuardedQuestion, AboutNoInterfaceIsNo) {
  attach();
  EXPECT_EQ(GetParam().ask(0), 0u);
  EXPECT_EQ(calls(), lock_only);
}

TEST_P(GuardedQuestion, AboutAnInterfaceWithoutARecordIsNo) {
  attach();
  EXPECT_EQ(GetParam().ask(6), 0u);
  EXPECT_EQ(calls(),
            (Calls{"tsp_lock_acquire_rdlock(7)", "lcache_im_get_extension1(6, 267)", "tsp_lock_release_rdlock(7)"}));
}

TEST_P(GuardedQuestion, IsNoWhenTheInterfaceManagerFails) {
  attach();
  platform().scripts.fail("lcache_im_get_extension1");
  EXPECT_EQ(GetParam().ask(iod), 0u);
  EXPECT_EQ(calls(), lock_and_record);
}

TEST_P(GuardedQuestion, IsNoForAnEmptyRecord) {
  database.interface(9);
  attach();
  EXPECT_EQ(GetParam().ask(9), 0u);
}

TEST_P(GuardedQuestion, MayBeAskedWhileTheLockIsHeld) {
  attach();
  tsp_lock_acquire_rdlock(ip_client.rwsem_lock);
  EXPECT_EQ(GetParam().ask(iod), GetParam().answer);
  tsp_lock_release_rdlock(ip_client.rwsem_lock);
}

TEST_P(GuardedQuestion, WithQueuesOnlyStillAsksTheInterfaceManager) {
  ip_api_init_mts_q();
  EXPECT_EQ(GetParam().ask(iod), GetParam().answer);
}

INSTANTIATE_TEST_SUITE_P(Questions, GuardedQuestion, testing::ValuesIn(questions),
                         [](const auto &of) { return std::string(of.param.name); });

class InterfaceQueryTest : public InterfaceFixture {};

TEST_F(InterfaceQueryTest, MaskLengthOfEachAddress) {
  attach();
  EXPECT_EQ(ip_get_local_mask_len(primary, iod), 24u);
  EXPECT_EQ(ip_get_local_mask_len(second, iod), 25u);
  EXPECT_EQ(ip_get_local_mask_len(third, iod), 16u);
  EXPECT_EQ(ip_get_local_mask_len(address(10, 0, 0, 3), iod), 0u);
  EXPECT_EQ(ip_get_local_mask_len(0, iod), 0u);
}

TEST_F(InterfaceQueryTest, MaskLengthIsThatOfTheFirstRecordOfAnAddress) {
  database.addresses(record, {{primary, 24}, {second, 30}, {second, 20}});
  attach();
  EXPECT_EQ(ip_get_local_mask_len(second, iod), 30u);
}

TEST_F(InterfaceQueryTest, SecondariesAreAllButTheFirst) {
  attach();
  EXPECT_EQ(ip_get_secondary_count(iod), 2u);
  database.addresses(record, {{primary, 24}});
  EXPECT_EQ(ip_get_secondary_count(iod), 0u);
  database.addresses(record, {});
  EXPECT_EQ(ip_get_secondary_count(iod), 0u);
}

TEST_F(InterfaceQueryTest, ALongListIsCountedWhole) {
  std::vector<AddressAndLength> many;
  for (uint32_t i = 0; i < 5000; i++) many.push_back({address(11, 0, 0, 0) + i, 32});
  database.addresses(record, many);
  attach();
  EXPECT_EQ(ip_get_secondary_count(iod), 4999u);
  EXPECT_EQ(ip_is_address_on_interface(address(11, 0, 0, 0) + 4999, iod), 1u);
}

TEST_F(InterfaceQueryTest, GroupsAreFoundWhereverTheyStand) {
  attach();
  EXPECT_EQ(ip_is_group_joined(first_group, iod), 1u);
  EXPECT_EQ(ip_is_group_joined(second_group, iod), 1u);
  EXPECT_EQ(ip_is_group_joined(address(224, 0, 0, 6), iod), 0u);
  EXPECT_EQ(ip_is_group_joined(primary, iod), 0u) << "an address is no group";
}

TEST_F(InterfaceQueryTest, UnnumberedMeansThatTheNameIsThere) {
  database.interface(6, {{primary, 24}});
  attach();
  EXPECT_EQ(ip_is_iod_unnumbered(iod), 1u);
  EXPECT_EQ(ip_is_iod_unnumbered(6), 0u);
  record->unnum_data = nullptr;
  EXPECT_EQ(ip_is_iod_unnumbered(iod), 0u) << "the source interface alone does not make it unnumbered";
}

TEST_F(InterfaceQueryTest, DirectedBroadcastIsTheRecordsOwnValue) {
  attach();
  for (uint32_t value : {0u, 1u, 77u, 0xffffffffu}) {
    record->directed_bcast = value;
    EXPECT_EQ(ip_allow_directed_broadcast(iod), value);
  }
}

TEST_F(InterfaceQueryTest, MulticastEnabledIsOneForAnyValue) {
  attach();
  for (uint32_t value : {1u, 2u, 0x80000000u}) {
    record->mcast_enabled = value;
    EXPECT_EQ(ip_is_multicast_enabled(iod), 1u);
  }
  record->mcast_enabled = 0;
  EXPECT_EQ(ip_is_multicast_enabled(iod), 0u);
}

TEST_F(InterfaceQueryTest, TheSpecialInterfaceHasMulticastWhateverItsRecordSays) {
  record->mcast_enabled = 0;
  attach();
  set_fwd_enabled_spl_ifidx(50);
  EXPECT_EQ(ip_is_multicast_enabled(iod), 1u);
  EXPECT_EQ(ip_is_multicast_enabled(6), 0u);
}

TEST_F(InterfaceQueryTest, TheSpecialInterfaceHasMulticastEvenWhenDetached) {
  set_fwd_enabled_spl_ifidx(50);
  EXPECT_EQ(ip_is_multicast_enabled(iod), 1u);
}

TEST_F(InterfaceQueryTest, AskingForMulticastResolvesTheSpecialInterfaceEvenWhenTheRecordSaysYes) {
  attach();
  set_fwd_enabled_spl_ifidx(50);
  EXPECT_EQ(ip_is_multicast_enabled(iod), 1u);
  EXPECT_EQ(g_ip_fwd_enabled_spl_iod, iod);
}

// ------------------------------------------------------------ without the lock

TEST_F(InterfaceQueryTest, AddressOnInterfaceFindsPrimaryAndSecondaries) {
  attach();
  for (uint32_t addr : {primary, second, third}) EXPECT_EQ(ip_is_address_on_interface(addr, iod), 1u);
  EXPECT_EQ(ip_is_address_on_interface(address(10, 0, 0, 3), iod), 0u);
}

TEST_F(InterfaceQueryTest, AddressOnInterfaceTakesNoLock) {
  attach();
  EXPECT_EQ(ip_is_address_on_interface(second, iod), 1u);
  EXPECT_EQ(calls(), Calls{"lcache_im_get_extension1(5, 267)"});
}

TEST_F(InterfaceQueryTest, AddressOnInterfaceTestsAttachmentAndIod) {
  EXPECT_EQ(ip_is_address_on_interface(primary, iod), 0u);
  attach();
  EXPECT_EQ(ip_is_address_on_interface(primary, 0), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(InterfaceQueryTest, AddressOnInterfaceIsNoWithoutARecord) {
  attach();
  platform().scripts.fail("lcache_im_get_extension1");
  EXPECT_EQ(ip_is_address_on_interface(primary, iod), 0u);
}

TEST_F(InterfaceQueryTest, MtuIsTheLowHalfOfWhatTheInterfaceManagerSays) {
  platform().interfaces[iod].mtu = 0x7fff05dc;
  EXPECT_EQ(ip_get_mtu(iod), 1500u);
  EXPECT_EQ(calls(), Calls{"lcache_im_get_if_mtu(5)"}) << "no lock, no attachment, no record";
  EXPECT_EQ(ip_get_mtu(0), 0u);
}

TEST_F(InterfaceQueryTest, EffectiveMtuIsThatOfTheSixthArgument) {
  platform().interfaces[iod].mtu = 9000;
  EXPECT_EQ(ip_calc_effective_mtu(1, 2, 3, 4, 6, iod), 9000u);
  EXPECT_EQ(ip_calc_effective_mtu(iod, iod, iod, iod, iod, 0), 0u);
  EXPECT_EQ(calls(), (Calls{"lcache_im_get_if_mtu(5)", "lcache_im_get_if_mtu(0)"}));
}

// ------------------------------------------------------------ the secondaries' iterator

class SecondaryIteratorTest : public InterfaceFixture {
 protected:
  struct Step {
    uint32_t addr;
    uint32_t len;
    bool operator==(const Step &) const = default;
  };
  static Step next(uint32_t addr, uint8_t len) {
    ip_get_next_secondary(iod, &addr, &len);
    return {addr, len};
  }
  static constexpr Step end{0, 0};
};

TEST_F(SecondaryIteratorTest, VisitsEachSecondaryInOrder) {
  attach();
  EXPECT_EQ(next(0, 0), (Step{second, 25}));
  EXPECT_EQ(next(second, 25), (Step{third, 16}));
  EXPECT_EQ(next(third, 16), end);
}

TEST_F(SecondaryIteratorTest, IgnoresTheLengthOfTheFirstCall) {
  attach();
  EXPECT_EQ(next(0, 24), (Step{second, 25}));
}

TEST_F(SecondaryIteratorTest, ContinuesFromThePrimaryAsWell) {
  attach();
  EXPECT_EQ(next(primary, 24), (Step{second, 25}));
}

TEST_F(SecondaryIteratorTest, EndsAtAnAddressWithAnotherMaskLength) {
  attach();
  EXPECT_EQ(next(second, 24), end);
  EXPECT_EQ(next(primary, 25), end);
}

TEST_F(SecondaryIteratorTest, EndsAtAnAddressThatIsGone) {
  attach();
  EXPECT_EQ(next(address(10, 9, 9, 9), 24), end);
}

TEST_F(SecondaryIteratorTest, FindsTheRecordWhoseLengthMatchesToo) {
  database.addresses(record, {{primary, 24}, {second, 30}, {second, 20}, {third, 8}});
  attach();
  EXPECT_EQ(next(second, 20), (Step{third, 8}));
  EXPECT_EQ(next(second, 30), (Step{second, 20}));
}

TEST_F(SecondaryIteratorTest, HasNothingOnAPrimaryAlone) {
  database.addresses(record, {{primary, 24}});
  attach();
  EXPECT_EQ(next(0, 7), end);
}

TEST_F(SecondaryIteratorTest, HasNothingOnAnEmptyList) {
  database.addresses(record, {});
  attach();
  EXPECT_EQ(next(0, 7), end);
  EXPECT_EQ(next(primary, 24), end);
}

TEST_F(SecondaryIteratorTest, ClearsBothOutputsWithoutARecord) {
  attach();
  for (uint32_t of : {0u, 77u}) {
    uint32_t addr = primary;
    uint8_t len = 24;
    ip_get_next_secondary(of, &addr, &len);
    EXPECT_EQ(addr, 0u);
    EXPECT_EQ(len, 0u);
  }
}

TEST_F(SecondaryIteratorTest, ClearsBothOutputsWhenDetached) {
  EXPECT_EQ(next(primary, 24), end);
}

}  // namespace
}  // namespace unit
