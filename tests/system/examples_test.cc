// SPDX-License-Identifier: Apache-2.0
// The example programs do what their first comment says.
#include <gtest/gtest.h>

#include "published_system.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

class Examples : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(publisher_, nullptr); }
  test_support::RunDirectory run_directory_;
  std::unique_ptr<ipd::Publisher> publisher_ = test_support::publish_test_system();
};

TEST_F(Examples, ListInterfacesShowsEachInterfaceWithItsAddresses) {
  std::string output;
  EXPECT_EQ(test_support::run({LIST_INTERFACES}, &output), 0) << output;
  EXPECT_EQ(output,
            "lo: iod 1, mtu 65536\n"
            "  primary 127.0.0.1/8\n"
            "eth0: iod 2, mtu 1500\n"
            "  primary 10.0.0.1/24\n"
            "  secondary 10.0.0.2/24\n"
            "  secondary 10.0.1.1/24\n"
            "eth1: iod 3, mtu 9000\n"
            "  primary 192.0.2.1/25\n"
            "tun0: iod 4, mtu 1476\n");
}

TEST_F(Examples, WatchAddressesShowsWhatComesAndGoes) {
  test_support::Process watch({WATCH_ADDRESSES, "3"});
  ASSERT_TRUE(test_support::wait_until([&] { return watch.output() == "watching 5 addresses\n"; })) << watch.output();
  ASSERT_TRUE(publisher_->set_address(2, {.addr = 0x0a000007, .mask_len = 24, .secondary = true, .scope = 0}));
  ASSERT_TRUE(publisher_->commit());
  ASSERT_TRUE(test_support::wait_until([&] { return watch.output().ends_with("+ eth0 10.0.0.7/24\n"); }));
  ASSERT_TRUE(publisher_->remove_interface(3));
  ASSERT_TRUE(publisher_->commit());
  ASSERT_TRUE(test_support::wait_until([&] { return watch.output().ends_with("- eth1 192.0.2.1/25\n"); }));
  ASSERT_TRUE(publisher_->remove_address(2, 0x0a000007, 24));
  ASSERT_TRUE(publisher_->commit());
  EXPECT_EQ(watch.wait(), 0);
  EXPECT_TRUE(watch.output().ends_with("- eth0 10.0.0.7/24\n")) << watch.output();
}

TEST(ExamplesWithoutIpd, SayThatThereIsNone) {
  const test_support::RunDirectory run_directory;
  std::string output;
  EXPECT_EQ(test_support::run({LIST_INTERFACES}, &output), 1);
  EXPECT_NE(output.find("no ipd to ask"), std::string::npos) << output;
  EXPECT_EQ(test_support::run({WATCH_ADDRESSES}, &output), 1);
  EXPECT_NE(output.find("no ipd to watch"), std::string::npos) << output;
}

}  // namespace
