// SPDX-License-Identifier: Apache-2.0
// The file system of the run directory gets full while ipd runs, and has room again later: what was published stays
// right all the time, and in the end nothing is missing.
#include <arpa/inet.h>
#include <unistd.h>

#define LIBIP_NO_INET_NTOA
#include "ip_api.h"
#include "run_directory_fixture.h"
#include "support/kernel_routes.h"

namespace {

using namespace run_directory_test;
using test_support::dotted;
using test_support::wait_until;

constexpr auto patience = std::chrono::seconds(120);  // tables of routes are tried again every thirty seconds
constexpr uint32_t addresses = 3000;
constexpr uint32_t address_base = 0x0a010001;  // 10.1.0.1
constexpr uint32_t routes = 6000;
constexpr uint32_t route_base = 0x14000000;  // 20.0.0.0, a /24 each

class IpdFullStorage : public RunDirectoryTest {
 protected:
  void SetUp() override {
    RunDirectoryTest::SetUp();
    directory_ = mounted("tight", "size=24m");
    use(directory_);
    start_ipd();
    expect_served();
    own_ = iod("ib");
    fill(filler(), ~size_t{0});
  }
  [[nodiscard]] std::string filler() const { return directory_ + "/filler"; }
  void add_much() {
    std::string batch;
    for (uint32_t i = 0; i < addresses; ++i) batch += "addr add " + dotted(address_base + i) + "/32 dev ib\n";
    for (uint32_t i = 0; i < routes; ++i) batch += "route add " + dotted(route_base + (i << 8)) + "/24 dev ib\n";
    write_file(path("batch"), batch);
    ip("-batch " + path("batch"));
    EXPECT_TRUE(wait_until([this] { return ipd_said("no storage for "); }, patience)) << ipd_.output();
    EXPECT_TRUE(ipd_said("No space left on device")) << ipd_.output();
  }
  void expect_what_was_published() const {
    EXPECT_EQ(ip_get_iod_for_local_address("default", own_address), own_);
    EXPECT_EQ(ip_get_iod_for_local_address("default", 0x0a0000fe), 0u);
    uint32_t by = 0;
    EXPECT_NE(ip_get_route(1, htonl(0x0a000063), &by), 0u);
    EXPECT_EQ(by, own_);
  }
  void expect_everything() {
    ASSERT_EQ(unlink(filler().c_str()), 0);
    expect_same_as_kernel();
    EXPECT_TRUE(wait_until([this] { return missing_routes() == 0; }, patience))
        << missing_routes() << " routes are missing: " << ipd_.output();
    EXPECT_TRUE(ipd_.running()) << ipd_.output();
    expect_what_was_published();
  }
  [[nodiscard]] uint32_t missing_routes() const {
    uint32_t missing = 0;
    for (uint32_t i = 0; i < routes; ++i) {
      uint32_t by = 0;
      if (ip_get_route(1, htonl(route_base + (i << 8) + 1), &by) == 0 || by != own_) ++missing;
    }
    return missing;
  }

  std::string directory_;
  uint32_t own_ = 0;
};

TEST_F(IpdFullStorage, LosesNothingWhenThereIsRoomAgain) {
  add_much();
  expect_what_was_published();
  detach();  // a new client, too
  attach();
  expect_what_was_published();
  // Changes that need no room are made while there is none.
  ip("addr del 10.0.0.1/24 dev ib");
  EXPECT_TRUE(wait_until([] { return ip_get_iod_for_local_address("default", own_address) == 0; }, patience))
      << ipd_.output();
  ip("addr add 10.0.0.1/24 dev ib");
  EXPECT_TRUE(ipd_.running()) << ipd_.output();
  expect_everything();
}

TEST_F(IpdFullStorage, ARestartEndsWithAReasonOrServesAndThenNothingIsMissing) {
  add_much();
  ipd_.kill_now();
  expect_what_was_published();
  ipd_ = test_support::Process(ipd_test::ipd_command({"--foreground"}));
  ASSERT_TRUE(wait_until([this] { return ipd_said("live:") || !ipd_.running(); }, patience)) << ipd_.output();
  const bool is_live = ipd_.running();
  printf("%s\n", is_live ? "it is live" : "it ended");
  if (!is_live) {
    EXPECT_EQ(ipd_.wait(), 1) << ipd_.output();
    EXPECT_TRUE(ipd_said("No space left on device; make room in that file system, or ")) << ipd_.output();
  }
  // What the old one left makes room for the new one's as soon as it is no longer published.
  EXPECT_TRUE(wait_until([this] { return ip_get_iod_for_local_address("default", own_address) == own_; }, patience))
      << ipd_.output();
  if (!is_live) {
    ASSERT_EQ(truncate(filler().c_str(), 0), 0);
    start_ipd();
  }
  expect_everything();
}

}  // namespace
