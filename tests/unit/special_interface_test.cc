// SPDX-License-Identifier: Apache-2.0
// The one special interface that counts as enabled whatever its record says.
#include "unit/library_test.h"

namespace unit {
namespace {

class SpecialInterfaceTest : public LibraryTest {
 protected:
  SpecialInterfaceTest() {
    database.interface(5, {}, 50);
    database.interface(6, {}, 60);
  }
};

TEST_F(SpecialInterfaceTest, NamingItStoresTheIndexOnly) {
  set_fwd_enabled_spl_ifidx(50);
  EXPECT_EQ(g_ip_fwd_enabled_spl_ifidx, 50u);
  EXPECT_EQ(g_ip_fwd_enabled_spl_iod, 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(SpecialInterfaceTest, NoneNamedIsNoAndAsksNobody) {
  EXPECT_EQ(is_fwd_enabled_spl_iod(5), 0u);
  EXPECT_EQ(is_fwd_enabled_spl_iod(0), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(SpecialInterfaceTest, TheFirstQuestionResolvesTheIndex) {
  set_fwd_enabled_spl_ifidx(50);
  EXPECT_EQ(is_fwd_enabled_spl_iod(5), 1u);
  EXPECT_EQ(calls(), Calls{"im_get_iod_frm_ifindex(50, preset 0)"});
  EXPECT_EQ(g_ip_fwd_enabled_spl_iod, 5u);
  EXPECT_EQ(is_fwd_enabled_spl_iod(5), 1u);
  EXPECT_EQ(is_fwd_enabled_spl_iod(6), 0u);
  EXPECT_EQ(platform().log.count("im_get_iod_frm_ifindex"), 1u) << "once resolved, never again";
}

TEST_F(SpecialInterfaceTest, AQuestionAboutAnotherInterfaceResolvesItToo) {
  set_fwd_enabled_spl_ifidx(50);
  EXPECT_EQ(is_fwd_enabled_spl_iod(6), 0u);
  EXPECT_EQ(g_ip_fwd_enabled_spl_iod, 5u);
}

TEST_F(SpecialInterfaceTest, NamingASecondOneAfterwardsHasNoEffect) {
  set_fwd_enabled_spl_ifidx(50);
  is_fwd_enabled_spl_iod(5);
  set_fwd_enabled_spl_ifidx(60);
  EXPECT_EQ(g_ip_fwd_enabled_spl_ifidx, 60u);
  EXPECT_EQ(is_fwd_enabled_spl_iod(6), 0u);
  EXPECT_EQ(is_fwd_enabled_spl_iod(5), 1u);
  EXPECT_EQ(platform().log.count("im_get_iod_frm_ifindex"), 1u);
}

TEST_F(SpecialInterfaceTest, AnIndexWithoutAnInterfaceIsTriedAgain) {
  set_fwd_enabled_spl_ifidx(70);
  EXPECT_EQ(is_fwd_enabled_spl_iod(7), 0u);
  EXPECT_EQ(is_fwd_enabled_spl_iod(7), 0u);
  EXPECT_EQ(platform().log.count("im_get_iod_frm_ifindex"), 2u);
  EXPECT_EQ(g_ip_fwd_enabled_spl_iod, 0u);
  database.interface(7, {}, 70);
  EXPECT_EQ(is_fwd_enabled_spl_iod(7), 1u);
}

TEST_F(SpecialInterfaceTest, TheStoredIodDecidesNotTheStatus) {
  set_fwd_enabled_spl_ifidx(50);
  platform().scripts.fail("im_get_iod_frm_ifindex");
  EXPECT_EQ(is_fwd_enabled_spl_iod(5), 1u);
}

TEST_F(SpecialInterfaceTest, ASuccessThatStoresNothingIsNo) {
  set_fwd_enabled_spl_ifidx(99);
  platform().scripts.answer("im_get_iod_frm_ifindex", 0);
  EXPECT_EQ(is_fwd_enabled_spl_iod(0), 0u);
  EXPECT_EQ(is_fwd_enabled_spl_iod(5), 0u);
}

TEST_F(SpecialInterfaceTest, ACachedIodAnswersWithoutANamedIndex) {
  g_ip_fwd_enabled_spl_iod = 5;
  EXPECT_EQ(is_fwd_enabled_spl_iod(5), 1u);
  EXPECT_EQ(is_fwd_enabled_spl_iod(6), 0u);
  EXPECT_EQ(calls(), Calls{});
}

}  // namespace
}  // namespace unit
