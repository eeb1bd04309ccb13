// SPDX-License-Identifier: Apache-2.0
// Every platform call of start and stop is made to fail: what is logged, what is answered, what stays behind.
#include "unit/library_test.h"

namespace unit {
namespace {

struct Failure {
  const char *name;
  const char *function;  // made to fail
  const char *text;      // logged under IP_FAILURE
  const char *last_call;
  uint32_t lock;  // what stays in rwsem_lock
  bool segment_kept;
};

class FailedStart : public LibraryTest, public testing::WithParamInterface<Failure> {};

TEST_P(FailedStart, IsLoggedAndAnswersNull) {
  platform().scripts.fail(GetParam().function);
  EXPECT_EQ(ip_shm_api_init(), nullptr);
  const Calls made = calls();
  ASSERT_GE(made.size(), 2u);
  EXPECT_EQ(made.back(), limited("IP_FAILURE", GetParam().text));
  EXPECT_EQ(made[made.size() - 2], GetParam().last_call);
}

TEST_P(FailedStart, UndoesNothingThatWasDone) {
  platform().scripts.fail(GetParam().function);
  ip_shm_api_init();
  EXPECT_EQ(ip_api_attached, 0u);
  EXPECT_EQ(ip_api_refcnt, 0u);
  EXPECT_EQ(ip_client.flags, 0u);
  EXPECT_EQ(ip_client.rwsem_lock, GetParam().lock);
  EXPECT_EQ(ip_shseg, GetParam().segment_kept ? &platform().descriptor : nullptr);
  EXPECT_EQ(ip_api_data, GetParam().segment_kept ? database.root() : nullptr);
  EXPECT_EQ(platform().log.count("tsp_destroy_lock"), 0u);
  EXPECT_EQ(platform().log.count("sm_close"), 0u);
}

TEST_P(FailedStart, IsStartedOverByTheNextInit) {
  platform().scripts.fail_call(GetParam().function, 1);
  EXPECT_EQ(ip_shm_api_init(), nullptr);
  platform().log.clear();
  EXPECT_EQ(ip_shm_api_init(), &ip_client);
  EXPECT_EQ(platform().log.count("tsp_create_rwsem_lock"), 1u);
  EXPECT_EQ(platform().log.count("sm_open"), 1u);
  EXPECT_EQ(ip_client.rwsem_lock, lock_handle + 1) << "the new lock stands in the place of the first";
  EXPECT_EQ(ip_api_refcnt, 1u);
}

TEST_P(FailedStart, LeavesEveryQueryAtItsFailureValue) {
  database.context(1, "default");
  database.interface(5, {{address(10, 0, 0, 1), 24}, {address(10, 0, 0, 2), 24}});
  platform().scripts.fail(GetParam().function);
  ip_shm_api_init();
  EXPECT_EQ(ip_get_api_context(1), nullptr);
  EXPECT_EQ(ip_get_api_context_by_name("default"), nullptr);
  EXPECT_EQ(ip_get_api_context_id("default"), 0u);
  EXPECT_EQ(ip_get_api_context_name(1), nullptr);
  EXPECT_EQ(ip_is_address_on_interface(address(10, 0, 0, 1), 5), 0u);
  EXPECT_EQ(ip_get_local_mask_len(address(10, 0, 0, 1), 5), 0u);
  EXPECT_EQ(ip_get_secondary_count(5), 0u);
  EXPECT_EQ(ip_get_iod_for_local_address("default", address(10, 0, 0, 1)), 0u);
}

TEST_P(FailedStart, ClosingAfterwardsIsTheErrorOfAnUnattachedClose) {
  platform().scripts.fail(GetParam().function);
  ip_shm_api_init();
  platform().log.clear();
  ip_api_close();
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", "IP API not initialised while closing")});
  EXPECT_EQ(ip_client.rwsem_lock, GetParam().lock);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, FailedStart,
    testing::Values(Failure{"Lock", "tsp_create_rwsem_lock", "Failed to create rwsem lock in client",
                            "tsp_create_rwsem_lock(0, 6)", 0, false},
                    Failure{"Segment", "sm_open", "Failed to attach IP shared memory in client",
                            R"(sm_open("/rsw/shm/ip", &ip_shseg, 0, 1, 17))", lock_handle, false},
                    Failure{"Extension", "im_ext_pub_lib_init", "Failed to open IP shared database in client",
                            "im_ext_pub_lib_init(267, 0, 0)", lock_handle, true}),
    [](const auto &of) { return of.param.name; });

using LifecycleFailureTest = LibraryTest;

// The first failed behind the segment, the second before it: each leaves what it came to.
TEST_F(LifecycleFailureTest, AStartThatFailsEarlierThanTheOneBeforeKeepsItsSegment) {
  platform().scripts.fail_call("im_ext_pub_lib_init", 1);
  EXPECT_EQ(ip_shm_api_init(), nullptr);
  platform().scripts.fail("tsp_create_rwsem_lock");
  EXPECT_EQ(ip_shm_api_init(), nullptr);
  EXPECT_EQ(ip_client.rwsem_lock, 0u);
  EXPECT_EQ(ip_shseg, &platform().descriptor);
  EXPECT_EQ(ip_api_data, database.root());
  EXPECT_EQ(ip_api_attached, 0u);
}

TEST_F(LifecycleFailureTest, AFailedSharedMemoryManagerIsLoggedAndInitGoesOn) {
  platform().scripts.fail("smm_api_init");
  EXPECT_EQ(ip_api_init(), &ip_client);
  EXPECT_EQ(calls()[0], "smm_api_init(0)");
  EXPECT_EQ(calls()[1], limited("IP_FAILURE", "Failed call smm_api_init()"));
  EXPECT_EQ(ip_api_attached, 1u);
}

TEST_F(LifecycleFailureTest, AFailedUribIsLoggedAndTriedAgainAtTheNextInit) {
  platform().supervisor_state = 1;
  platform().scripts.fail_call("urib_api_init", 1);
  EXPECT_EQ(ip_api_init(), &ip_client);
  EXPECT_EQ(calls().back(), limited("IP_FAILURE", "Failed call urib_api_init()"));
  EXPECT_EQ(ip_api_dep_modules_init_done, 0u);
  EXPECT_EQ(ip_api_attached, 1u);
  platform().log.clear();
  ip_api_init();
  EXPECT_EQ(calls(), (Calls{"smm_api_init(0)", "sysmgr_supstate_get()", "urib_api_init()"}));
  EXPECT_EQ(ip_api_dep_modules_init_done, 1u);
}

TEST_F(LifecycleFailureTest, TheUribIsStartedEvenWhenTheAttachFailed) {
  platform().supervisor_state = 1;
  platform().scripts.fail("sm_open");
  EXPECT_EQ(ip_api_init(), nullptr);
  EXPECT_EQ(calls().back(), "urib_api_init()");
  EXPECT_EQ(ip_api_dep_modules_init_done, 1u);
}

TEST_F(LifecycleFailureTest, ADoneFlagOtherThanOneIsNotDone) {
  platform().supervisor_state = 1;
  ip_api_dep_modules_init_done = 2;
  ip_api_init();
  EXPECT_EQ(platform().log.count("urib_api_init"), 1u);
  EXPECT_EQ(ip_api_dep_modules_init_done, 1u);
}

TEST_F(LifecycleFailureTest, EverythingFailsAtOnceAndNothingIsAttached) {
  platform().supervisor_state = 1;
  for (const char *function : {"smm_api_init", "tsp_create_rwsem_lock", "urib_api_init"}) {
    platform().scripts.fail(function);
  }
  EXPECT_EQ(ip_api_init(), nullptr);
  EXPECT_EQ(calls(),
            (Calls{"smm_api_init(0)", limited("IP_FAILURE", "Failed call smm_api_init()"), "tsp_is_proc_init()",
                   "tsp_create_rwsem_lock(0, 6)", limited("IP_FAILURE", "Failed to create rwsem lock in client"),
                   "sysmgr_supstate_get()", "urib_api_init()", limited("IP_FAILURE", "Failed call urib_api_init()")}));
}

TEST_F(LifecycleFailureTest, FailedMemoryRegistrationDoesNotFailTheInit) {
  platform().scripts.fail("mtrack_init");
  platform().scripts.fail("mtrack_sm_init");
  EXPECT_EQ(ip_shm_api_init(), &ip_client);
  EXPECT_EQ(ip_api_refcnt, 1u);
}

TEST_F(LifecycleFailureTest, AnExtensionStatusOfAnyNonzeroValueFails) {
  platform().scripts.answer("im_ext_pub_lib_init", 0x10000);
  EXPECT_EQ(ip_shm_api_init(), nullptr);
}

TEST_F(LifecycleFailureTest, FailedClosesOfThePlatformStopNothing) {
  attach();
  platform().scripts.fail("im_ext_pub_lib_close");
  platform().scripts.fail("sm_close");
  ip_api_close();
  EXPECT_EQ(ip_api_attached, 0u);
  EXPECT_EQ(ip_shseg, nullptr);
  EXPECT_EQ(platform().log.count("urib_api_close"), 1u);
}

}  // namespace
}  // namespace unit
