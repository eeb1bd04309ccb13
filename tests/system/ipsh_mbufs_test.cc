// SPDX-License-Identifier: Apache-2.0
// ipsh show mbufs: the pool of packet buffers and its owners. The test's process makes the pool; ipd does not run.
#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ipsh_fixture.h"
#include "mbuf.h"
#include "mbuf/buffers.h"
#include "mbuf/pool.h"

namespace ipsh_test {
namespace {

using nlohmann::json;

class IpshWithPool : public IpshWithoutIpd {
 protected:
  void SetUp() override {
    rsw::mbuf_leave();
    std::string reason;
    ASSERT_TRUE(rsw::mbuf_open_for_writing(&reason)) << reason;
    for (int i = 0; i < 40; i++) packets_.push_back(rsw::take_buffer());
  }
  void TearDown() override {
    for (struct mbuf *packet : packets_) m_freem(packet);
    rsw::mbuf_leave();
  }
  std::vector<struct mbuf *> packets_;
};

TEST_F(IpshWithPool, BuffersAreShownByOwner) {
  m_set_owner(packets_[0], 0x3fffff);
  const Outcome outcome = ipsh({"show", "mbufs", "--json"});
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  const json shown = json::parse(outcome.out);
  EXPECT_EQ(shown["kind"], "mbufs");
  EXPECT_EQ(shown["in_use"], 40);
  EXPECT_EQ(shown["cached"], 24);
  EXPECT_EQ(shown["high_water"], 64);
  EXPECT_EQ(shown["total"], shown["in_use"].get<int>() + shown["cached"].get<int>() + shown["free"].get<int>());
  ASSERT_EQ(shown["owners"].size(), 2u) << outcome.out;
  EXPECT_EQ(shown["owners"][0]["pid"], getpid());
  EXPECT_EQ(shown["owners"][0]["in_use"], 39);
  EXPECT_EQ(shown["owners"][0]["cached"], 24);
  EXPECT_EQ(shown["owners"][1]["pid"], 0x3fffff);
  EXPECT_EQ(shown["owners"][1]["command"], nullptr) << "it is not attached";
}

TEST_F(IpshWithPool, TheTableNamesThePoolAndItsOwners) {
  const Outcome outcome = ipsh({"show", "mbufs"});
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_NE(outcome.out.find("\nin use         40\n"), std::string::npos) << outcome.out;
  EXPECT_NE(outcome.out.find("IN-USE"), std::string::npos) << outcome.out;
  EXPECT_NE(outcome.out.find(std::to_string(getpid())), std::string::npos) << outcome.out;
}

TEST_F(IpshWithoutIpd, WithoutAPoolThereIsNothingToShow) {
  const Outcome outcome = ipsh({"show", "mbufs"});
  EXPECT_EQ(outcome.exit_code, 3);
  EXPECT_NE(outcome.err.find("no pool of packet buffers"), std::string::npos) << outcome.err;
}

}  // namespace
}  // namespace ipsh_test
