// SPDX-License-Identifier: Apache-2.0
// A virtual address that this system shares with another one: keepalived here, beside ipd, and keepalived in a second
// namespace elect its holder. It is a local address of this system only as long as it is the master.
#include <linux/rtnetlink.h>

#include <memory>

#include "ip_api.h"
#include "ipd_fixture.h"
#include "keepalived_router.h"
#include "support/kernel_routes.h"
#include "support/peer_namespace.h"

namespace {

using ipd_test::IpdTest;
using test_support::dotted;
using test_support::host_order;
using test_support::KeepalivedRouter;
using test_support::KernelAnswer;
using test_support::KernelRoutes;
using test_support::PeerNamespace;
using test_support::wait_until;

constexpr uint32_t default_context = 1;
constexpr uint32_t default_table = 254;
// The virtual address is the lowest of all, so that it is the context's first choice when it is active.
constexpr char virtual_address[] = "10.0.0.100";

class VrrpPeerTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    peer_ = std::make_unique<PeerNamespace>();
    ASSERT_EQ(test_support::connect("va", "10.0.0.101/24", *peer_, "vb", "10.0.0.102/24"), "");
    kernel_ = std::make_unique<KernelRoutes>();
  }

  void start_ipd_with_vip_on(const std::string &device) {
    write_configuration(R"({"vips": [{"interface": ")" + device + R"(", "address": ")" + virtual_address + R"("}]})");
    start_ipd({"--config", configuration_file()});
    attach();
  }

  void start_here(const std::string &macvlan) {
    here_ = std::make_unique<KeepalivedRouter>(
        run_directory_.path(), test_support::VrrpDescription{"here", "va", macvlan, virtual_address, 100}, nullptr);
  }

  // With a higher priority: as long as it runs, it is the master.
  void start_there() {
    there_ = std::make_unique<KeepalivedRouter>(
        run_directory_.path(), test_support::VrrpDescription{"there", "vb", "", virtual_address, 200}, peer_.get());
  }

  // What a client finds about the address, and the kernel, in words.
  [[nodiscard]] std::string answers(const std::string &device) const {
    const uint32_t addr = host_order(virtual_address);
    const uint32_t holder = iod(device);
    const auto by_device = [&](uint32_t found) -> std::string {
      return found == 0 ? "nobody" : found == holder ? device : "another";
    };
    const KernelAnswer kernel = kernel_->way({.dest = addr});
    uint32_t vip = 0;
    const bool has_vip = ip_get_best_intf_vip(default_context, host_order("10.0.0.101"), holder, &vip) == 1;
    return "kernel " + std::string(kernel.error == 0 && kernel.type == RTN_LOCAL ? "local" : "elsewhere") +
           ", active on " + by_device(ip_is_addr_local_active("default", addr)) + ", local on " +
           by_device(ip_is_addr_local("default", addr)) + ", in the table " +
           (ip_urib_is_addr_active_local(default_table, addr) != 0 ? "live" : "not live") + ", virtual on " +
           by_device(ip_is_addr_local_vip(default_context, addr)) + ", configured on " +
           by_device(ip_get_iod_for_local_address("default", addr)) + ", vip of it " +
           (has_vip ? dotted(vip) : "none") + ", first choice " + dotted(ip_get_active_local_address(default_context));
  }

  static std::string backup(const std::string &device) {
    return "kernel elsewhere, active on nobody, local on nobody, in the table not live, virtual on " + device +
           ", configured on " + device + ", vip of it 10.0.0.100, first choice 10.0.0.101";
  }
  static std::string master(const std::string &device) {
    return "kernel local, active on " + device + ", local on " + device + ", in the table live, virtual on " + device +
           ", configured on " + device + ", vip of it 10.0.0.100, first choice 10.0.0.100";
  }

  // In one look: while keepalived elects, and on a busy machine, there is more than one change.
  void expect_answers(const std::string &device, const std::string &expected) {
    std::string last;
    EXPECT_TRUE(wait_until([&] { return (last = answers(device)) == expected; }, std::chrono::seconds(60)))
        << "expected: " << expected << "\nfound:    " << last << "\nhere:\n"
        << (here_ == nullptr ? "" : here_->log()) << "there:\n"
        << (there_ == nullptr ? "" : there_->log()) << "ipd:\n"
        << ipd_.output();
  }

  bool the_peer_holds_it() {
    std::string text;
    const auto command = peer_->command({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip -4 addr show dev vb"});
    return wait_until(
        [&] {
          return test_support::run(command, &text) == 0 &&
                 text.find(std::string(virtual_address) + "/32") != std::string::npos;
        },
        std::chrono::seconds(60));
  }

  std::unique_ptr<PeerNamespace> peer_;
  std::unique_ptr<KernelRoutes> kernel_;
  std::unique_ptr<KeepalivedRouter> here_;
  std::unique_ptr<KeepalivedRouter> there_;
};

TEST_F(VrrpPeerTest, AVirtualAddressOnAMacvlanIsActiveWhileWeAreTheMaster) {
  start_ipd_with_vip_on("vrrp.51");
  start_there();
  ASSERT_TRUE(the_peer_holds_it()) << there_->log();
  EXPECT_EQ(ip_is_addr_local_vip(default_context, host_order(virtual_address)), 0u) << "its interface is not there yet";
  start_here("vrrp.51");
  expect_answers("vrrp.51", backup("vrrp.51"));
  EXPECT_TRUE(there_->stop());
  expect_answers("vrrp.51", master("vrrp.51"));
  start_there();
  expect_answers("vrrp.51", backup("vrrp.51"));
  EXPECT_TRUE(there_->stop());
  expect_answers("vrrp.51", master("vrrp.51"));
  // Ours stops, and takes its macvlan away.
  EXPECT_TRUE(here_->stop());
  EXPECT_TRUE(wait_until([] { return ip_is_addr_local_vip(default_context, host_order(virtual_address)) == 0; }));
  EXPECT_EQ(ip_is_addr_local_active("default", host_order(virtual_address)), 0u);
  EXPECT_TRUE(wait_until([] { return dotted(ip_get_active_local_address(default_context)) == "10.0.0.101"; }));
}

TEST_F(VrrpPeerTest, AVirtualAddressOnTheInterfaceItselfStaysConfiguredWhenItIsGivenUp) {
  start_ipd_with_vip_on("va");
  expect_answers("va", backup("va"));
  start_here("");
  expect_answers("va", master("va"));
  start_there();
  expect_answers("va", backup("va"));
  EXPECT_TRUE(there_->stop());
  expect_answers("va", master("va"));
  EXPECT_TRUE(here_->stop());
  expect_answers("va", backup("va"));
}

TEST_F(VrrpPeerTest, AnIpdThatIsStartedAgainFindsOutWhoTheMasterIs) {
  start_ipd_with_vip_on("va");
  start_here("");
  expect_answers("va", master("va"));
  ipd_.kill_now();
  EXPECT_EQ(answers("va"), master("va")) << "the last state stays";
  start_there();
  ASSERT_TRUE(the_peer_holds_it()) << there_->log();
  start_ipd({"--config", configuration_file()});
  expect_answers("va", backup("va"));
}

}  // namespace
