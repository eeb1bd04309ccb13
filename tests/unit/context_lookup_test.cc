// SPDX-License-Identifier: Apache-2.0
// Context lookup: by id and by name, to the record, the id and the name.
#include "tsp.h"
#include "unit/library_test.h"

namespace unit {
namespace {

// The four lookups, told apart only by what a hit and a miss look like.
struct Lookup {
  const char *name;
  bool (*finds)(uint32_t id, const char *name);  // asks for the context by its id or by its name
};

const Lookup lookups[] = {
    {"Record", [](uint32_t id, const char *) { return ip_get_api_context(id) != nullptr; }},
    {"RecordByName", [](uint32_t, const char *name) { return ip_get_api_context_by_name(name) != nullptr; }},
    {"IdByName", [](uint32_t, const char *name) { return ip_get_api_context_id(name) != 0; }},
    {"NameById", [](uint32_t id, const char *) { return ip_get_api_context_name(id) != nullptr; }},
};

const Calls locked = {"tsp_lock_acquire_rdlock(7)", "tsp_lock_release_rdlock(7)"};

class EveryLookup : public LibraryTest, public testing::WithParamInterface<Lookup> {
 protected:
  void make_contexts() {
    database.context(1, "default", 10);
    database.context(20, "red", 11);
    database.context(0xfffffffe, "blue", 12);
  }
};

TEST_P(EveryLookup, FindsTheHeadTheMiddleAndTheEnd) {
  make_contexts();
  attach();
  EXPECT_TRUE(GetParam().finds(1, "default"));
  EXPECT_TRUE(GetParam().finds(20, "red"));
  EXPECT_TRUE(GetParam().finds(0xfffffffe, "blue"));
}

TEST_P(EveryLookup, LocksAndReleasesOnAHit) {
  make_contexts();
  attach();
  GetParam().finds(20, "red");
  EXPECT_EQ(calls(), locked);
}

TEST_P(EveryLookup, LocksAndReleasesOnAMissWithoutAMessage) {
  make_contexts();
  attach();
  EXPECT_FALSE(GetParam().finds(21, "green"));
  EXPECT_EQ(calls(), locked);
}

TEST_P(EveryLookup, FindsNothingInAnEmptyList) {
  attach();
  EXPECT_FALSE(GetParam().finds(1, "default"));
  EXPECT_EQ(calls(), locked);
}

TEST_P(EveryLookup, TakesNoLockInTheIpProcess) {
  make_contexts();
  attach();
  ip_is_server_flag = 1;
  EXPECT_TRUE(GetParam().finds(20, "red"));
  EXPECT_FALSE(GetParam().finds(21, "green"));
  EXPECT_EQ(calls(), Calls{});
}

TEST_P(EveryLookup, AnswersNothingWithoutALockWhenNotAttached) {
  make_contexts();
  EXPECT_FALSE(GetParam().finds(20, "red"));
  EXPECT_EQ(calls(), Calls{});
}

TEST_P(EveryLookup, AnswersNothingWithoutALockWhenThereIsNoDatabase) {
  ip_api_init_mts_q();
  EXPECT_FALSE(GetParam().finds(20, "red"));
  EXPECT_EQ(calls(), Calls{});
  EXPECT_STREQ(ip_api_get_error(), "");
}

TEST_P(EveryLookup, MayBeMadeWhileTheLockIsHeld) {
  make_contexts();
  attach();
  tsp_lock_acquire_rdlock(ip_client.rwsem_lock);
  EXPECT_TRUE(GetParam().finds(20, "red"));
  EXPECT_EQ(platform().locks.depth[lock_handle], 1);
  tsp_lock_release_rdlock(ip_client.rwsem_lock);
}

TEST_P(EveryLookup, TheFirstMatchWins) {
  auto *first = database.context(3, "twin");
  database.context(3, "twin");
  attach();
  EXPECT_TRUE(GetParam().finds(3, "twin"));
  EXPECT_EQ(ip_get_api_context(3), first);
  EXPECT_EQ(ip_get_api_context_by_name("twin"), first);
  EXPECT_EQ(ip_get_api_context_name(3), first->name);
}

INSTANTIATE_TEST_SUITE_P(Lookups, EveryLookup, testing::ValuesIn(lookups),
                         [](const auto &of) { return std::string(of.param.name); });

class ContextLookupTest : public LibraryTest {};

TEST_F(ContextLookupTest, AnswersLieInTheSegment) {
  auto *red = database.context(20, "red", 11);
  attach();
  EXPECT_EQ(ip_get_api_context(20), red);
  EXPECT_EQ(ip_get_api_context_by_name("red"), red);
  EXPECT_EQ(ip_get_api_context_id("red"), 20u);
  EXPECT_EQ(ip_get_api_context_name(20), red->name);
}

TEST_F(ContextLookupTest, NamesAreComparedExactly) {
  database.context(20, "red");
  database.context(21, "reddish");
  attach();
  for (const char *name : {"Red", "RED", "re", "redd", "", " red", "red "}) {
    EXPECT_EQ(ip_get_api_context_by_name(name), nullptr) << name;
    EXPECT_EQ(ip_get_api_context_id(name), 0u) << name;
  }
  EXPECT_EQ(ip_get_api_context_id("reddish"), 21u);
}

TEST_F(ContextLookupTest, ANameMayFillItsField) {
  const std::string longest(35, 'n');
  database.context(30, longest);
  attach();
  EXPECT_EQ(ip_get_api_context_id(longest.c_str()), 30u);
  EXPECT_EQ(ip_get_api_context_id((longest + "n").c_str()), 0u);
}

TEST_F(ContextLookupTest, IdZeroIsReportedAsAnInvalidNotification) {
  database.context(1, "default");
  attach();
  EXPECT_EQ(ip_get_api_context(0), nullptr);
  EXPECT_EQ(calls(), Calls{limited("INVALID_NOTIFY", "Failed to get IP API VRF 0")});
}

TEST_F(ContextLookupTest, IdZeroIsSilentWhenNotAttached) {
  EXPECT_EQ(ip_get_api_context(0), nullptr);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(ContextLookupTest, ANullNameIsReportedByTheRecordLookup) {
  attach();
  EXPECT_EQ(ip_get_api_context_by_name(nullptr), nullptr);
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", "Failed to get IP VRF by name (null)")});
}

TEST_F(ContextLookupTest, ANullNameIsReportedByTheIdLookup) {
  attach();
  EXPECT_EQ(ip_get_api_context_id(nullptr), 0u);
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", "Failed to get IP VRF ID by name (null)")});
}

TEST_F(ContextLookupTest, ANullNameIsSilentWhenNotAttached) {
  EXPECT_EQ(ip_get_api_context_by_name(nullptr), nullptr);
  EXPECT_EQ(ip_get_api_context_id(nullptr), 0u);
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(ContextLookupTest, BadArgumentsAreReportedEvenWithoutADatabase) {
  ip_api_init_mts_q();
  ip_get_api_context(0);
  ip_get_api_context_by_name(nullptr);
  ip_get_api_context_id(nullptr);
  EXPECT_EQ(platform().log.count("syslog_msg_rate_limit"), 3u);
}

TEST_F(ContextLookupTest, TheNameOfIdZeroIsReportedAndLeavesItsReason) {
  attach();
  EXPECT_EQ(ip_get_api_context_name(0), nullptr);
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", "Failed to get IP VRF name 0")});
  EXPECT_STREQ(ip_api_get_error(), "ip_get_api_context_name: Failed to get VRF name for 0");
}

TEST_F(ContextLookupTest, TheNameOfIdZeroIsReportedBeforeAttachmentIsTested) {
  EXPECT_EQ(ip_get_api_context_name(0), nullptr);
  EXPECT_EQ(calls(), Calls{limited("IP_INTERNAL_ERROR", "Failed to get IP VRF name 0")});
  EXPECT_STREQ(ip_api_get_error(), "ip_get_api_context_name: Failed to get VRF name for 0");
}

TEST_F(ContextLookupTest, ANameLookupWithoutAttachmentLeavesItsReason) {
  EXPECT_EQ(ip_get_api_context_name(4), nullptr);
  EXPECT_STREQ(ip_api_get_error(), "ip_get_api_context_name: IP API init not done");
}

TEST_F(ContextLookupTest, AnUnknownIdLeavesItsReason) {
  database.context(1, "default");
  attach();
  EXPECT_EQ(ip_get_api_context_name(77), nullptr);
  EXPECT_STREQ(ip_api_get_error(), "ip_get_api_context_name: No vrf name found for context ID 77");
  EXPECT_EQ(ip_get_api_context_name(0xffffffff), nullptr);
  EXPECT_STREQ(ip_api_get_error(), "ip_get_api_context_name: No vrf name found for context ID -1");
}

TEST_F(ContextLookupTest, AnEmptyListLeavesTheReasonOfAnUnknownId) {
  attach();
  EXPECT_EQ(ip_get_api_context_name(1), nullptr);
  EXPECT_STREQ(ip_api_get_error(), "ip_get_api_context_name: No vrf name found for context ID 1");
}

}  // namespace
}  // namespace unit
