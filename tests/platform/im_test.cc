// SPDX-License-Identifier: Apache-2.0
// The interface table: the contract's answers, iods, extensions, take-over. Its order has a test of its own.
#include <gtest/gtest.h>

#include <cstring>

#include "platform/im_rig.h"

namespace {

using im_rig::ImRig;
using im_rig::interface;
using Iods = std::vector<uint32_t>;

void expect_nothing_known_of(uint32_t iod) {
  rsw::ImView view;
  EXPECT_EQ(lcache_im_get_extension1(iod, im_rig::component), nullptr);
  EXPECT_EQ(lcache_im_get_if_mtu(iod), 0u);
  EXPECT_EQ(im_is_if_up(iod), 0u);
  EXPECT_EQ(im_is_adminup(iod), 0u);
  EXPECT_EQ(im_get_if_name(iod), nullptr);
  EXPECT_EQ(l3vm_if_get_context_id(iod), 0u);
  EXPECT_EQ(l3vm_if_get_table_id(iod, 1, "base"), 0u);
  EXPECT_FALSE(rsw::im_view(iod, &view));
}

TEST(Im, EveryQueryAnswersNothingBeforeTheFirstAttach) {
  for (const uint32_t iod : {0u, 1u, 65535u, 65536u, ~0u}) expect_nothing_known_of(iod);
  EXPECT_EQ(im_get_next_ext_if(0, im_rig::component), 0u);
  EXPECT_EQ(rsw::im_next_iod(0), 0u);
  uint32_t iod = 77;
  EXPECT_NE(im_get_iod_frm_ifindex(1, &iod), 0u);
  EXPECT_EQ(iod, 77u);
}

TEST(Im, AttachingFailsWhileThereIsNoTable) {
  const test_support::RunDirectory empty;
  EXPECT_NE(im_ext_pub_lib_init(im_rig::component, 0, 0), 0u);
  EXPECT_EQ(rsw::im_header(), nullptr);
  EXPECT_NE(im_ext_pub_lib_close(im_rig::component, 0), 0u) << "nothing was attached";
}

TEST(Im, TheLastCloseEndsTheAttachment) {
  ImRig rig;
  const uint32_t iod = rig.writer->set(interface(2));
  ASSERT_EQ(im_ext_pub_lib_init(10, 0, 0), 0u);
  EXPECT_EQ(im_ext_pub_lib_close(10, 0), 0u);
  EXPECT_EQ(lcache_im_get_if_mtu(iod), 1500u);
  EXPECT_EQ(im_ext_pub_lib_close(im_rig::component, 0), 0u);
  expect_nothing_known_of(iod);
  ASSERT_EQ(im_ext_pub_lib_init(im_rig::component, 0, 0), 0u);
  EXPECT_EQ(lcache_im_get_if_mtu(iod), 1500u);
}

TEST(Im, AnInterfaceAnswersWithItsOwnWords) {
  ImRig rig;
  rsw::ImInterface wanted = interface(9);
  wanted.up = false;
  wanted.mtu = 9000;
  wanted.context_id = 7;
  wanted.table_id = 1007;
  const uint32_t iod = rig.writer->set(wanted);
  ASSERT_NE(iod, 0u);
  EXPECT_EQ(lcache_im_get_if_mtu(iod), 9000u);
  EXPECT_EQ(im_is_if_up(iod), 0u);
  EXPECT_EQ(im_is_adminup(iod), 1u);
  EXPECT_STREQ(im_get_if_name(iod), "eth9");
  EXPECT_EQ(l3vm_if_get_context_id(iod), 7u);
  EXPECT_EQ(l3vm_if_get_table_id(iod, 1, "base"), 1007u);
  uint32_t found = 0;
  EXPECT_EQ(im_get_iod_frm_ifindex(9, &found), 0u);
  EXPECT_EQ(found, iod);
  rsw::ImView view;
  ASSERT_TRUE(rsw::im_view(iod, &view));
  EXPECT_EQ(view.iod, iod);
  EXPECT_EQ(view.ifindex, 9u);
  EXPECT_STREQ(view.name, "eth9");
  EXPECT_FALSE(view.up);
  EXPECT_TRUE(view.admin_up);
  EXPECT_FALSE(view.loopback);
  EXPECT_EQ(view.table_id, 1007u);
}

TEST(Im, OnlyTheBaseTopologyHasATable) {
  ImRig rig;
  const uint32_t iod = rig.writer->set(interface(9));
  EXPECT_EQ(l3vm_if_get_table_id(iod, 1, "multicast"), 0u);
  EXPECT_EQ(l3vm_if_get_table_id(iod, 1, nullptr), 0u);
}

TEST(Im, UnknownIodsAndIfindexesAnswerNothing) {
  ImRig rig;
  rig.writer->set(interface(9));
  for (const uint32_t iod : {0u, 2u, 65535u, 65536u, 0x40000001u, ~0u}) expect_nothing_known_of(iod);
  for (const uint32_t ifindex : {0u, 1u, ~0u}) {
    uint32_t iod = 77;
    EXPECT_NE(im_get_iod_frm_ifindex(ifindex, &iod), 0u);
    EXPECT_EQ(iod, 77u);
  }
}

TEST(Im, ARenameKeepsTheIod) {
  ImRig rig;
  const uint32_t iod = rig.writer->set(interface(9));
  rsw::ImInterface renamed = interface(9);
  renamed.name = "uplink";
  EXPECT_EQ(rig.writer->set(renamed), iod);
  EXPECT_STREQ(im_get_if_name(iod), "uplink");
  EXPECT_EQ(rig.writer->get(iod)->name, "uplink");
}

TEST(Im, ANameIsCutAt39Characters) {
  ImRig rig;
  rsw::ImInterface wanted = interface(9);
  wanted.name = std::string(50, 'n');
  const uint32_t iod = rig.writer->set(wanted);
  EXPECT_EQ(std::string(im_get_if_name(iod)), std::string(39, 'n'));
  EXPECT_EQ(rig.writer->set(wanted), iod);
}

TEST(Im, ARemovedInterfaceIsUnknown) {
  ImRig rig;
  const uint32_t iod = rig.writer->set(interface(9));
  rig.writer->set_extension(iod, im_rig::component, rig.record(1));
  rig.writer->remove(iod);
  expect_nothing_known_of(iod);
  uint32_t found = 77;
  EXPECT_NE(im_get_iod_frm_ifindex(9, &found), 0u);
  EXPECT_EQ(found, 77u);
  EXPECT_EQ(rig.writer->find(9), 0u);
  EXPECT_EQ(rig.writer->get(iod), nullptr);
}

TEST(Im, AnIfindexThatComesBackGetsAFreshIodWithoutTheOldExtension) {
  ImRig rig;
  const uint32_t iod = rig.writer->set(interface(9));
  rig.writer->set_extension(iod, im_rig::component, rig.record(1));
  rig.writer->remove(iod);
  const uint32_t again = rig.writer->set(interface(9));
  EXPECT_NE(again, iod);
  EXPECT_EQ(lcache_im_get_extension1(again, im_rig::component), nullptr);
  uint32_t found = 0;
  EXPECT_EQ(im_get_iod_frm_ifindex(9, &found), 0u);
  EXPECT_EQ(found, again);
}

TEST(Im, IodsAreGivenAgainAfterAMinuteTheLowestFirst) {
  ImRig rig;
  for (uint32_t ifindex = 1; ifindex <= 4; ++ifindex) ASSERT_EQ(rig.writer->set(interface(ifindex)), ifindex);
  rig.writer->remove(3);
  rig.writer->remove(2);
  rig.let_pass(std::chrono::seconds(59));
  EXPECT_EQ(rig.writer->set(interface(5)), 5u);
  rig.let_pass(std::chrono::seconds(2));
  EXPECT_EQ(rig.writer->set(interface(6)), 2u);
  EXPECT_EQ(rig.writer->set(interface(7)), 3u);
  EXPECT_EQ(rig.writer->set(interface(8)), 6u);
}

TEST(Im, AFullTableGivesNoIodUntilOneIsFree) {
  ImRig rig;
  for (uint32_t ifindex = 1; ifindex <= 65535; ++ifindex) ASSERT_EQ(rig.writer->set(interface(ifindex)), ifindex);
  EXPECT_EQ(rig.writer->set(interface(70000)), 0u);
  EXPECT_EQ(rig.writer->find(70000), 0u);
  rig.writer->remove(40000);
  EXPECT_EQ(rig.writer->set(interface(70000)), 40000u);
  uint32_t found = 0;
  for (uint32_t ifindex = 1; ifindex <= 65535; ++ifindex) {
    EXPECT_EQ(im_get_iod_frm_ifindex(ifindex, &found) == 0, ifindex != 40000) << ifindex;
  }
  EXPECT_EQ(im_get_iod_frm_ifindex(70000, &found), 0u);
  EXPECT_EQ(found, 40000u);
}

TEST(Im, ComponentsHaveExtensionsOfTheirOwn) {
  ImRig rig;
  const uint32_t iod = rig.writer->set(interface(9));
  constexpr uint32_t neighbour = im_rig::component + 8;  // the same low bits
  rig.writer->set_extension(iod, im_rig::component, rig.record(1));
  EXPECT_EQ(lcache_im_get_extension1(iod, neighbour), nullptr);
  rig.writer->set_extension(iod, neighbour, rig.record(2));
  EXPECT_EQ(lcache_im_get_extension1(iod, im_rig::component), rig.record(1));
  EXPECT_EQ(lcache_im_get_extension1(iod, neighbour), rig.record(2));
  rig.writer->set_extension(iod, im_rig::component, nullptr);
  EXPECT_EQ(lcache_im_get_extension1(iod, im_rig::component), nullptr);
  EXPECT_EQ(lcache_im_get_extension1(iod, neighbour), rig.record(2));
  EXPECT_EQ(lcache_im_get_extension1(iod, 0), nullptr);
}

TEST(Im, ExtensionsBeyondTheEighthComponentAreRefused) {
  ImRig rig;
  const uint32_t iod = rig.writer->set(interface(9));
  for (uint32_t i = 1; i <= 9; ++i) rig.writer->set_extension(iod, 100 * i, rig.record(i));
  for (uint32_t i = 1; i <= 8; ++i) EXPECT_EQ(lcache_im_get_extension1(iod, 100 * i), rig.record(i));
  EXPECT_EQ(lcache_im_get_extension1(iod, 900), nullptr);
}

// Ifindexes whose hashes agree in their top bits share one group of the index, whatever its length.
TEST(Im, IfindexesThatFindNoPlaceInTheIndexAreFoundAllTheSame) {
  ImRig rig;
  uint32_t inverse = 0x9e3779b1u;
  for (int i = 0; i < 5; ++i) inverse *= 2 - 0x9e3779b1u * inverse;
  std::vector<uint32_t> ifindexes;
  for (uint32_t i = 0; ifindexes.size() < 100; ++i) {
    const uint32_t ifindex = (0x12345000u | i) * inverse;
    if (ifindex < 0x80000000u) ifindexes.push_back(ifindex);
  }
  for (const uint32_t ifindex : ifindexes) ASSERT_NE(rig.writer->set(interface(ifindex)), 0u);
  for (const uint32_t ifindex : ifindexes) {
    uint32_t iod = 0;
    EXPECT_EQ(im_get_iod_frm_ifindex(ifindex, &iod), 0u);
    EXPECT_EQ(iod, rig.writer->find(ifindex));
  }
  uint32_t iod = 77;
  EXPECT_NE(im_get_iod_frm_ifindex((0x12345fffu) * inverse, &iod), 0u);
  EXPECT_EQ(iod, 77u);
}

TEST(Im, ANewWriterFindsInterfacesIodsAndExtensions) {
  ImRig rig;
  const uint32_t loopback = rig.writer->set(interface(1, true));
  const uint32_t gone = rig.writer->set(interface(2));
  const uint32_t kept = rig.writer->set(interface(3));
  rig.writer->set_extension(kept, im_rig::component, rig.record(1));
  rig.writer->remove(gone);
  rig.replace_writer();
  EXPECT_EQ(rig.writer->find(1), loopback);
  EXPECT_EQ(rig.writer->find(2), 0u);
  EXPECT_EQ(rig.writer->find(3), kept);
  ASSERT_NE(rig.writer->get(kept), nullptr);
  EXPECT_EQ(*rig.writer->get(kept), interface(3));
  EXPECT_EQ(rig.writer->iods(), (Iods{loopback, kept}));
  EXPECT_EQ(im_rig::all_iods(), (Iods{loopback, kept}));
  EXPECT_EQ(lcache_im_get_extension1(kept, im_rig::component), rig.record(1));
  uint32_t iod = 0;
  EXPECT_EQ(im_get_iod_frm_ifindex(3, &iod), 0u);
  EXPECT_EQ(iod, kept);
  const uint32_t fresh = rig.writer->set(interface(2));
  EXPECT_NE(fresh, gone) << "the removed iod rests again from the take-over on";
}

TEST(Im, AnyNumberOfWritersThatEndAtOnceLeaveRoomForTheNext) {
  ImRig rig;
  constexpr uint32_t count = 30000;
  // None of them lives until what it retired is free. Each gives every interface a new record.
  for (uint32_t time = 0; time < 17; ++time) {
    SCOPED_TRACE(time);
    rig.replace_writer({.quarantine = std::chrono::milliseconds(0)});
    for (uint32_t ifindex = 1; ifindex <= count; ++ifindex) {
      rsw::ImInterface changed = interface(ifindex);
      changed.mtu = 1500 + time;
      ASSERT_EQ(rig.writer->set(changed), ifindex);
    }
    uint32_t iod = 0;
    ASSERT_EQ(im_get_iod_frm_ifindex(count, &iod), 0u);
    ASSERT_EQ(iod, count);
    ASSERT_EQ(lcache_im_get_if_mtu(iod), 1500 + time);
  }
}

TEST(Im, SixteenThousandInterfacesComeAndGo) {
  ImRig rig;
  constexpr uint32_t count = 16000;
  for (uint32_t i = 0; i < count; ++i) ASSERT_NE(rig.writer->set(interface(1 + (i * 7919) % count)), 0u);
  uint32_t iod = 0;
  for (uint32_t ifindex = 1; ifindex <= count; ++ifindex) {
    ASSERT_EQ(im_get_iod_frm_ifindex(ifindex, &iod), 0u);
    ASSERT_EQ(iod, rig.writer->find(ifindex));
  }
  EXPECT_EQ(im_rig::all_iods().size(), count);
  for (uint32_t ifindex = 1; ifindex <= count; ++ifindex) rig.writer->remove(rig.writer->find(ifindex));
  EXPECT_EQ(im_rig::all_iods(), Iods{});
  rig.let_pass(std::chrono::seconds(61));
  EXPECT_EQ(rig.writer->set(interface(1)), 1u);
}

}  // namespace
