// SPDX-License-Identifier: Apache-2.0
// Two users and their SAPs. Only root can become somebody else, so these tests are there for root alone.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "platform/mts_raw_sender.h"
#include "platform/mts_rig.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using namespace mts_rig;
using test_support::Process;
using test_support::wait_until;

struct MtsOtherUsers : testing::TestWithParam<uid_t> {
  static bool become(uid_t user) { return setgid(user) == 0 && setuid(user) == 0; }
  test_support::RunDirectory directory;
};

std::vector<uid_t> other_users() {
  return geteuid() == 0 ? std::vector<uid_t>{65534} : std::vector<uid_t>{};
}

TEST_P(MtsOtherUsers, AnotherUserCannotSendInANameThatIsNotItsOwn) {
  ASSERT_EQ(chmod(directory.path().c_str(), 0755), 0);
  const Queue server(263);
  const Queue victim;
  Process forger([this, sap = victim.sap()] {
    if (!become(GetParam())) return 1;
    const RawSender raw(directory.path() + "/mts/263");
    rsw::mts::WireHeader header = good_header();
    header.sap = sap;
    raw.write(header, 8);
    return wait_until([&] { return raw.was_closed(); }) ? 0 : 2;
  });
  ASSERT_TRUE(wait_until([&] {
    mts_msg_ref_t msg = nullptr;
    mts_recv_now(server, &msg);
    return use_of(263).refused == 1;
  }));
  EXPECT_EQ(forger.wait(), 0);
}

TEST_P(MtsOtherUsers, ASapThatHasAnotherOwnerMeanwhileDoesNotSpoilWhatWasSentBefore) {
  ASSERT_EQ(chmod(directory.path().c_str(), 0755), 0);
  const Queue server(263);
  Process sender([this] {
    if (!become(GetParam())) return 1;
    const Queue queue;
    return send(queue, 263, 1, "farewell") == 0 && queue.sap() == 2048 ? 0 : 2;
  });
  ASSERT_EQ(sender.wait(), 0);
  const Queue next;
  ASSERT_EQ(next.sap(), 2048u);
  mts_msg_ref_t msg = nullptr;
  ASSERT_EQ(receive_reference(server, &msg), 0);
  EXPECT_EQ(text_of(msg), "farewell");
  rsw::MtsSender told{};
  ASSERT_TRUE(rsw::mts_sender(msg, &told));
  EXPECT_EQ(told.uid, GetParam());
  EXPECT_EQ(told.sap, 0u) << "an answer would reach somebody else";
  EXPECT_EQ(mts_drop(server, msg), 0);
  EXPECT_EQ(use_of(263).refused, 0u);
}

TEST_P(MtsOtherUsers, AnotherUserGetsADynamicSapAndNoFixedOne) {
  ASSERT_EQ(chmod(directory.path().c_str(), 0755), 0);
  const Queue server(263);
  Process other([this] {
    if (!become(GetParam())) return 1;
    if (bind(264) != no_queue || errno != EACCES) return 2;
    const Queue queue;
    return send(queue, 263, 1, "hello") == 0 ? 0 : 3;
  });
  EXPECT_EQ(other.wait(), 0);
  mts_msg_ref_t msg = nullptr;
  ASSERT_EQ(receive_reference(server, &msg), 0);
  rsw::MtsSender sender{};
  ASSERT_TRUE(rsw::mts_sender(msg, &sender));
  EXPECT_EQ(sender.uid, GetParam());
  EXPECT_EQ(sender.gid, GetParam());
  EXPECT_EQ(mts_drop(server, msg), 0);
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(MtsOtherUsers);
INSTANTIATE_TEST_SUITE_P(Root, MtsOtherUsers, testing::ValuesIn(other_users()), testing::PrintToStringParamName());

}  // namespace
