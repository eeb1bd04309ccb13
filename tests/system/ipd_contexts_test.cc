// SPDX-License-Identifier: Apache-2.0
// Contexts of a kernel without VRF devices: interfaces by pattern, and a policy table for each.

#include "im.h"
#include "ip_api.h"
#include "ipd_fixture.h"
#include "l3vm.h"
#include "support/kernel_routes.h"

namespace {

using ipd_test::IpdTest;
using test_support::dotted;
using test_support::host_order;
using test_support::wait_until;

constexpr char two_contexts[] = R"({"contexts": [
    {"name": "lab", "id": 5, "table": 1005, "interfaces": ["lab*"]},
    {"name": "wan", "id": 6, "table": 1006, "interfaces": ["wan0", "l*1"]}]})";
// lab's pattern matches less than it did, wan's more.
constexpr char moved[] = R"({"contexts": [
    {"name": "lab", "id": 5, "table": 1005, "interfaces": ["lab2"]},
    {"name": "wan", "id": 6, "table": 1006, "interfaces": ["wan0", "lab*"]}]})";

// A bridge and three macvlans on it.
class IpdContextsTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    ip("link add name hub type bridge");
    ip("link set hub up");
    add("lab1", "10.1.0.1/24");
    add("lab2", "10.2.0.1/24");
    add("wan0", "10.3.0.1/24");
    write_configuration(two_contexts);
    start_ipd({"--config", configuration_file()});
    attach();
    ASSERT_NE(ip_get_api_context_by_name("wan"), nullptr);
  }

  void add(const std::string &device, const std::string &address) {
    ip("link add link hub name " + device + " type macvlan mode bridge");
    ip("link set " + device + " up");
    ip("addr add " + address + " dev " + device);
  }

  void reload(const std::string &text) {
    write_configuration(text);
    ipd_.signal(SIGHUP);
  }

  // The contexts that find the address local, by both questions that there are.
  static std::string holders(const std::string &address) {
    const uint32_t addr = host_order(address);
    std::string out;
    for (const std::string name : {"default", "lab", "wan"}) {
      const uint32_t iod = ip_get_iod_for_local_address(name.c_str(), addr);
      const uint32_t context = ip_get_api_context_id(name.c_str());
      const bool same = iod == (context == 0 ? 0 : ip_is_addr_local_intf(context, addr));
      if (iod != 0 || !same) out += (out.empty() ? "" : " ") + name + (same ? "" : "?");
    }
    return out;
  }
};

TEST_F(IpdContextsTest, AnAddressIsLocalInTheContextOfItsInterfaceOnly) {
  EXPECT_EQ(holders("10.1.0.1"), "lab") << "the first context that matches has it";
  EXPECT_EQ(holders("10.2.0.1"), "lab");
  EXPECT_EQ(holders("10.3.0.1"), "wan");
  EXPECT_EQ(holders("127.0.0.1"), "default");
  EXPECT_EQ(holders("10.4.0.1"), "");
  EXPECT_EQ(l3vm_if_get_context_id(iod("lab1")), 5u);
  EXPECT_EQ(l3vm_if_get_table_id(iod("lab1"), 1, "base"), 1005u);
  EXPECT_EQ(ip_get_api_context_by_name("wan")->table_id, 1006u);
  EXPECT_EQ(dotted(ip_get_active_local_address(5)), "10.1.0.1");
  EXPECT_EQ(dotted(ip_get_active_local_address(6)), "10.3.0.1");
  EXPECT_EQ(dotted(ip_get_active_local_address(1)), "127.0.0.1");
}

// The same subnet in two contexts is no overlap.
TEST_F(IpdContextsTest, EachContextHasItsOwnPrefixes) {
  ip("addr add 10.1.0.1/24 dev wan0");
  EXPECT_TRUE(wait_until([] { return ip_get_iod_for_local_address("wan", host_order("10.1.0.1")) == iod("wan0"); }));
  EXPECT_EQ(ip_get_iod_for_local_address("lab", host_order("10.1.0.1")), iod("lab1"));
  uint32_t out = 0;
  EXPECT_EQ(ip_check_for_prefix_overlap(ip_get_api_context_by_name("lab"), host_order("10.3.0.0"), 16, &out), 0u);
  EXPECT_EQ(ip_check_for_prefix_overlap(ip_get_api_context_by_name("wan"), host_order("10.3.0.0"), 16, &out), 1u);
  EXPECT_EQ(out, iod("wan0"));
  EXPECT_EQ(ip_check_for_prefix_overlap(ip_get_api_context_by_name("default"), host_order("10.3.0.0"), 16, &out), 0u);
}

TEST_F(IpdContextsTest, AnInterfaceMovesWithTheConfiguration) {
  const uint32_t before = iod("lab1");
  for (int round = 0; round < 3; ++round) {
    reload(moved);
    EXPECT_TRUE(wait_until([] { return holders("10.1.0.1") == "wan"; }));
    EXPECT_EQ(l3vm_if_get_context_id(before), 6u);
    EXPECT_EQ(l3vm_if_get_table_id(before, 1, "base"), 1006u);
    EXPECT_EQ(holders("10.2.0.1"), "lab") << "its neighbour stays";
    EXPECT_EQ(dotted(ip_get_active_local_address(5)), "10.2.0.1");
    reload(two_contexts);
    EXPECT_TRUE(wait_until([] { return holders("10.1.0.1") == "lab"; }));
  }
  EXPECT_EQ(iod("lab1"), before) << "it is the same interface everywhere";
}

TEST_F(IpdContextsTest, AContextThatIsGoneLeavesItsInterfacesToDefault) {
  reload("{}");
  EXPECT_TRUE(wait_until([] { return ip_get_api_context_by_name("lab") == nullptr; }));
  for (const char *address : {"10.1.0.1", "10.2.0.1", "10.3.0.1", "127.0.0.1"}) {
    EXPECT_TRUE(wait_until([&] { return holders(address) == "default"; })) << address;
  }
  EXPECT_EQ(ip_get_iod_for_local_address("lab", host_order("10.1.0.1")), 0u);
  EXPECT_STREQ(ip_api_get_error(), "Failed to get ctxt_type for context lab");
}

TEST_F(IpdContextsTest, ANameDecidesWhenAnInterfaceComesAndWhenItIsRenamed) {
  add("lab7", "10.7.0.1/24");
  EXPECT_TRUE(wait_until([] { return holders("10.7.0.1") == "lab"; }));
  ip("link set lab7 down");
  ip("link set lab7 name other");
  EXPECT_TRUE(wait_until([] { return holders("10.7.0.1") == "default"; }));
  ip("link set other name wan0x");
  const uint32_t renamed = iod("wan0x");
  EXPECT_TRUE(wait_until([&] { return std::string(im_get_if_name(renamed)) == "wan0x"; }));
  EXPECT_EQ(holders("10.7.0.1"), "default") << "a pattern is for the whole name";
  ip("link set wan0x name lx1");
  EXPECT_TRUE(wait_until([] { return holders("10.7.0.1") == "wan"; }));
}

}  // namespace
