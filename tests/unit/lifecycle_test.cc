// SPDX-License-Identifier: Apache-2.0
// Start and stop: which platform calls are made, in which order, with which arguments, and what the process's words
// hold afterwards.
#include <cstring>

#include "unit/library_test.h"

namespace unit {
namespace {

using LifecycleTest = LibraryTest;

const Calls memory_registration = {
    R"-(mtrack_init("Internet Protocol (IP)", 267, names, 46))-",
    "mtrack_ignore_alloc_abort(1)",
    R"-(mtrack_sm_init("Internet Protocol (IP)", 267, names, 11))-",
};

const Calls shared_database_start = {
    "tsp_is_proc_init()",
    "tsp_create_rwsem_lock(0, 6)",
    R"(sm_open("/rsw/shm/ip", &ip_shseg, 0, 1, 17))",
    "im_ext_pub_lib_init(267, 0, 0)",
};

Calls operator+(Calls left, const Calls &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

TEST_F(LifecycleTest, AFreshProcessIsDetached) {
  EXPECT_EQ(ip_api_attached, 0u);
  EXPECT_EQ(ip_api_refcnt, 0u);
  EXPECT_EQ(ip_shseg, nullptr);
  EXPECT_EQ(ip_api_data, nullptr);
  EXPECT_EQ(ip_client.rwsem_lock, 0u);
  EXPECT_EQ(ip_client.ctrl_q, 0u);
  EXPECT_EQ(ip_client.data_q, 0u);
}

TEST_F(LifecycleTest, ShmInitMakesItsCallsInOrder) {
  EXPECT_EQ(ip_shm_api_init(), &ip_client);
  EXPECT_EQ(calls(), shared_database_start + memory_registration);
}

TEST_F(LifecycleTest, ShmInitFillsTheClientAndAttaches) {
  ip_shm_api_init();
  EXPECT_EQ(ip_client.rwsem_lock, lock_handle);
  EXPECT_EQ(ip_client.flags, 3u);
  EXPECT_EQ(ip_client.ctrl_q, 0u);
  EXPECT_EQ(ip_client.data_q, 0u);
  EXPECT_EQ(ip_client.recv_fn[0], '\0');
  EXPECT_EQ(memcmp(ip_client.seg_desc, &platform().descriptor, sizeof ip_client.seg_desc), 0);
  EXPECT_EQ(ip_api_attached, 1u);
  EXPECT_EQ(ip_api_refcnt, 1u);
}

TEST_F(LifecycleTest, TheSecondShmInitOnlyCountsAReference) {
  attach();
  EXPECT_EQ(ip_shm_api_init(), &ip_client);
  EXPECT_EQ(calls(), Calls{});
  EXPECT_EQ(ip_api_refcnt, 2u);
  EXPECT_EQ(ip_client.rwsem_lock, lock_handle);
}

TEST_F(LifecycleTest, WithoutThreadSupportNoLockIsCreated) {
  platform().threads_set_up = false;
  EXPECT_EQ(ip_shm_api_init(), &ip_client);
  EXPECT_EQ(platform().log.count("tsp_create_rwsem_lock"), 0u);
  EXPECT_EQ(ip_client.rwsem_lock, 0u);
}

TEST_F(LifecycleTest, WithoutThreadSupportTheLockHandleKeepsItsValue) {
  platform().threads_set_up = false;
  ip_client.rwsem_lock = 41;
  EXPECT_EQ(ip_shm_api_init(), &ip_client);
  EXPECT_EQ(ip_client.rwsem_lock, 41u);
}

TEST_F(LifecycleTest, FullInitStartsTheUribOnTheActiveSupervisor) {
  platform().supervisor_state = 1;
  EXPECT_EQ(ip_api_init(), &ip_client);
  const Calls urib_start = {"sysmgr_supstate_get()", "urib_api_init()"};
  EXPECT_EQ(calls(), Calls{"smm_api_init(0)"} + shared_database_start + memory_registration + urib_start);
  EXPECT_EQ(ip_api_dep_modules_init_done, 1u);
  EXPECT_EQ(ip_api_attached, 1u);
  EXPECT_EQ(ip_api_refcnt, 1u);
}

TEST_F(LifecycleTest, TheUribIsStartedOnce) {
  platform().supervisor_state = 1;
  ip_api_init();
  platform().log.clear();
  EXPECT_EQ(ip_api_init(), &ip_client);
  EXPECT_EQ(calls(), (Calls{"smm_api_init(0)", "sysmgr_supstate_get()"}));
  EXPECT_EQ(ip_api_refcnt, 2u);
}

class OtherSupervisorState : public LibraryTest, public testing::WithParamInterface<uint32_t> {};

TEST_P(OtherSupervisorState, FullInitLeavesTheUribAlone) {
  platform().supervisor_state = GetParam();
  EXPECT_EQ(ip_api_init(), &ip_client);
  EXPECT_EQ(platform().log.count("sysmgr_supstate_get"), 1u);
  EXPECT_EQ(platform().log.count("urib_api_init"), 0u);
  EXPECT_EQ(ip_api_dep_modules_init_done, 0u);
}

INSTANTIATE_TEST_SUITE_P(States, OtherSupervisorState, testing::Values(0, 2, 3, 0xffffffff, 0x101));

TEST_F(LifecycleTest, AStandbyThatBecomesActiveStartsTheUribAtTheNextInit) {
  ip_api_init();
  platform().supervisor_state = 1;
  ip_api_init();
  EXPECT_EQ(platform().log.count("urib_api_init"), 1u);
  EXPECT_EQ(ip_api_dep_modules_init_done, 1u);
}

TEST_F(LifecycleTest, TheLastCloseUndoesEverythingInOrder) {
  attach();
  ip_api_close();
  EXPECT_EQ(calls(),
            (Calls{"im_ext_pub_lib_close(267, 0)", "tsp_destroy_lock(7)", "sm_close(segment)", "urib_api_close()"}));
  EXPECT_EQ(ip_api_attached, 0u);
  EXPECT_EQ(ip_api_refcnt, 0u);
  EXPECT_EQ(ip_client.rwsem_lock, 0u);
  EXPECT_EQ(ip_shseg, nullptr);
  EXPECT_EQ(ip_api_data, nullptr);
}

TEST_F(LifecycleTest, CloseKeepsStaleWordsAndTheUribFlag) {
  platform().supervisor_state = 1;
  ip_api_init();
  void *second_part = ip_api_mpib;
  void *contexts = ip_api_contexts_queue;
  ip_api_close();
  EXPECT_EQ(ip_api_dep_modules_init_done, 1u);
  EXPECT_EQ(ip_api_mpib, second_part);
  EXPECT_EQ(ip_api_contexts_queue, contexts);
  EXPECT_EQ(addr_ip_shseg, &platform().descriptor);
  EXPECT_EQ(addr_ip_api_data, database.root());
}

TEST_F(LifecycleTest, CloseWithoutDependenciesLeavesTheLockAndTheUribAlone) {
  attach();
  ip_api_close_nodeps();
  EXPECT_EQ(calls(), (Calls{"im_ext_pub_lib_close(267, 0)", "sm_close(segment)"}));
  EXPECT_EQ(ip_client.rwsem_lock, lock_handle);
  EXPECT_EQ(ip_api_attached, 0u);
  EXPECT_EQ(ip_api_refcnt, 0u);
  EXPECT_EQ(ip_shseg, nullptr);
  EXPECT_EQ(ip_api_data, nullptr);
}

struct CloseFunction {
  const char *name;
  void (*close)();
};

class EitherClose : public LibraryTest, public testing::WithParamInterface<CloseFunction> {};

TEST_P(EitherClose, OfTwoReferencesKeepsTheProcessAttached) {
  attach();
  ip_shm_api_init();
  GetParam().close();
  EXPECT_EQ(calls(), Calls{});
  EXPECT_EQ(ip_api_attached, 1u);
  EXPECT_EQ(ip_api_refcnt, 1u);
  EXPECT_EQ(ip_shseg, &platform().descriptor);
  GetParam().close();
  EXPECT_EQ(ip_api_attached, 0u);
  EXPECT_EQ(ip_api_refcnt, 0u);
}

TEST_P(EitherClose, WithoutAnInitIsLoggedAndChangesNothing) {
  GetParam().close();
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", "IP API not initialised while closing")});
  EXPECT_EQ(ip_api_refcnt, 0u);
  EXPECT_EQ(ip_api_attached, 0u);
}

TEST_P(EitherClose, AfterAQueueOnlyInitClosesNoSegment) {
  ip_api_init_mts_q();
  platform().log.clear();
  GetParam().close();
  Calls expected = {"im_ext_pub_lib_close(267, 0)"};
  if (GetParam().close == ip_api_close) expected = expected + Calls{"tsp_destroy_lock(0)", "urib_api_close()"};
  EXPECT_EQ(calls(), expected);
  EXPECT_EQ(ip_api_attached, 0u);
}

TEST_P(EitherClose, IsFollowedByAFullStart) {
  attach();
  GetParam().close();
  platform().log.clear();
  EXPECT_EQ(ip_shm_api_init(), &ip_client);
  EXPECT_EQ(calls(), shared_database_start + memory_registration);
  EXPECT_EQ(ip_client.rwsem_lock, lock_handle + 1);
}

INSTANTIATE_TEST_SUITE_P(Both, EitherClose,
                         testing::Values(CloseFunction{"Close", ip_api_close},
                                         CloseFunction{"CloseNodeps", ip_api_close_nodeps}),
                         [](const auto &of) { return of.param.name; });

TEST_F(LifecycleTest, OfTwoWaysToCloseTheLastDecidesWhatIsUndone) {
  attach();
  ip_shm_api_init();
  ip_api_close_nodeps();
  EXPECT_EQ(calls(), Calls{});
  ip_api_close();
  EXPECT_EQ(calls(),
            (Calls{"im_ext_pub_lib_close(267, 0)", "tsp_destroy_lock(7)", "sm_close(segment)", "urib_api_close()"}));
  attach();
  ip_shm_api_init();
  ip_api_close();
  platform().log.clear();
  ip_api_close_nodeps();
  EXPECT_EQ(calls(), (Calls{"im_ext_pub_lib_close(267, 0)", "sm_close(segment)"}));
}

TEST_F(LifecycleTest, AStartWithoutThreadsAfterACloseWithoutDependenciesGoesOnWithTheOldLock) {
  attach();
  ip_api_close_nodeps();
  platform().threads_set_up = false;
  EXPECT_EQ(ip_shm_api_init(), &ip_client);
  platform().log.clear();
  ip_get_api_context(1);
  EXPECT_EQ(calls().front(), "tsp_lock_acquire_rdlock(7)");
}

TEST_F(LifecycleTest, TheClientsFlagsAreSetByAStartAndByNothingElse) {
  attach();
  ip_client.flags = 8;
  ip_shm_api_init();
  EXPECT_EQ(ip_client.flags, 8u) << "another reference";
  ip_api_close();
  ip_api_close();
  EXPECT_EQ(ip_client.flags, 8u) << "a stop";
  ip_shm_api_init();
  EXPECT_EQ(ip_client.flags, 3u);
}

TEST_F(LifecycleTest, AStopLeavesTheClientsQueuesNameAndDescriptor) {
  attach();
  ip_client.ctrl_q = 30;
  ip_client.data_q = 31;
  strcpy(ip_client.recv_fn, "input");
  ip_api_close();
  EXPECT_EQ(ip_client.ctrl_q, 30u);
  EXPECT_EQ(ip_client.data_q, 31u);
  EXPECT_STREQ(ip_client.recv_fn, "input");
  EXPECT_EQ(memcmp(ip_client.seg_desc, &platform().descriptor, sizeof ip_client.seg_desc), 0);
}

TEST_F(LifecycleTest, CloseDestroysALockHandleOfZeroAsWell) {
  platform().threads_set_up = false;
  attach();
  ip_api_close();
  EXPECT_EQ(platform().log.count("tsp_destroy_lock"), 1u);
  EXPECT_EQ(calls()[1], "tsp_destroy_lock(0)");
}

TEST_F(LifecycleTest, AQueueOnlyInitAttachesNothing) {
  EXPECT_EQ(ip_api_init_mts_q(), &ip_client);
  EXPECT_EQ(calls(), Calls{});
  EXPECT_EQ(ip_api_attached, 1u);
  EXPECT_EQ(ip_api_refcnt, 1u);
  EXPECT_EQ(ip_api_data, nullptr);
  EXPECT_EQ(ip_client.flags, 0u);
  EXPECT_EQ(ip_api_init_mts_q(), &ip_client);
  EXPECT_EQ(ip_api_refcnt, 2u);
}

TEST_F(LifecycleTest, AShmInitAfterAQueueOnlyInitOnlyCounts) {
  ip_api_init_mts_q();
  EXPECT_EQ(ip_shm_api_init(), &ip_client);
  EXPECT_EQ(calls(), Calls{});
  EXPECT_EQ(ip_api_refcnt, 2u);
  EXPECT_EQ(ip_shseg, nullptr);
}

TEST_F(LifecycleTest, FixedAnswers) {
  EXPECT_EQ(ip_get_client_pointer(), &ip_client);
  EXPECT_EQ(ip_get_max_msg_size(), 232u);
  EXPECT_EQ(ip_data_queue_get_usage(), 0u);
  EXPECT_EQ(ip_driver_api_init(), 1u);
  ip_driver_api_close();
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(LifecycleTest, RemovingTheSegmentUnlinksItsName) {
  EXPECT_EQ(ip_remove_shm(), 1u);
  EXPECT_EQ(calls(), Calls{R"(shm_unlink("/rsw/shm/ip"))"});
}

TEST_F(LifecycleTest, RemovingTheSegmentAnswersOneEvenWhenItFails) {
  platform().scripts.fail("shm_unlink");
  EXPECT_EQ(ip_remove_shm(), 1u);
}

TEST_F(LifecycleTest, RegisteringMemoryTypesAnswersWhatTheSharedRegistrationDoes) {
  platform().scripts.answer("mtrack_init", 5);
  platform().scripts.answer("mtrack_sm_init", 0x1234);
  EXPECT_EQ(ip_mem_init(), 0x1234u);
  EXPECT_EQ(calls(), memory_registration);
}

TEST_F(LifecycleTest, TheServerFlagIsNeverWritten) {
  ip_is_server_flag = 9;
  attach();
  ip_api_close();
  ip_api_init_mts_q();
  ip_api_close_nodeps();
  EXPECT_EQ(ip_is_server_flag, 9u);
}

}  // namespace
}  // namespace unit
