// SPDX-License-Identifier: Apache-2.0
// May this prefix be configured, beside what the kernel's interfaces hold?
#include <random>

#include "im.h"
#include "ip_api.h"
#include "ipd_fixture.h"
#include "support/kernel_routes.h"

namespace {

using ipd_test::IpdTest;
using test_support::dotted;
using test_support::host_order;
using test_support::wait_until;

// va holds 10.1.0.1/16, vb 10.2.3.1/24.
class IpdOverlapTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    add_pair("va", "vb");
    ip("addr add 10.1.0.1/16 dev va");
    ip("addr add 10.2.3.1/24 dev vb");
    start_ipd();
    attach();
    va_ = iod("va");
    vb_ = iod("vb");
    context_ = ip_get_api_context_by_name("default");
    ASSERT_NE(context_, nullptr);
  }

  // The interface that each question names; 0: no overlap.
  struct Collisions {
    uint32_t search, with_state, no_state;
    bool operator==(const Collisions &) const = default;
  };
  static void PrintTo(const Collisions &collisions, std::ostream *out) {
    *out << collisions.search << " " << collisions.with_state << " " << collisions.no_state;
  }

  Collisions ask(const std::string &addr, uint8_t len, uint32_t ignored = 0) {
    Collisions found{};
    const uint32_t prefix = host_order(addr);
    const uint32_t search = ip_find_overlap_interface(context_, prefix, len, ignored, &found.search);
    const uint32_t with_state = ip_check_for_prefix_overlap(context_, prefix, len, &found.with_state);
    const uint32_t no_state = ip_check_for_prefix_overlap_no_state(context_, prefix, len, &found.no_state);
    EXPECT_EQ(search, found.search != 0 ? 1u : 0u);
    EXPECT_EQ(with_state, found.with_state != 0 ? 1u : 0u);
    EXPECT_EQ(no_state, found.no_state != 0 ? 1u : 0u);
    return found;
  }

  void set(const std::string &device, const std::string &state, bool up) {
    ip("link set " + device + " " + state);
    EXPECT_TRUE(wait_until([&] { return (im_is_adminup(iod(device)) != 0) == up; }));
  }

  uint32_t va_ = 0;
  uint32_t vb_ = 0;
  ip_api_context_type *context_ = nullptr;
};

TEST_F(IpdOverlapTest, APrefixInsideAnInterfacesSubnetCollides) {
  EXPECT_EQ(ask("10.1.200.1", 24), (Collisions{va_, va_, va_}));
  EXPECT_EQ(ask("10.2.3.128", 25), (Collisions{vb_, vb_, vb_}));
  EXPECT_EQ(ask("10.2.4.1", 24), (Collisions{0, 0, 0}));
}

TEST_F(IpdOverlapTest, APrefixAroundAnInterfacesSubnetCollides) {
  EXPECT_EQ(ask("10.2.0.1", 16), (Collisions{vb_, vb_, vb_}));
  EXPECT_EQ(ask("10.0.0.1", 8), (Collisions{va_, va_, va_}));
  EXPECT_EQ(ask("11.0.0.1", 8), (Collisions{0, 0, 0}));
}

TEST_F(IpdOverlapTest, TheInterfaceThatIsToHaveTheAddressIsNoCollision) {
  EXPECT_EQ(ask("10.1.200.1", 24, va_).search, 0u);
  EXPECT_EQ(ask("10.0.0.1", 8, va_).search, vb_) << "but the next one inside is";
  EXPECT_EQ(ask("10.0.0.1", 8, vb_).search, va_);
}

// va goes down: around the new prefix it does not count any more, inside it still does for the search.
TEST_F(IpdOverlapTest, AnInterfaceThatIsDownCountsOnlyInsideTheNewPrefix) {
  set("va", "down", false);
  EXPECT_EQ(ask("10.1.200.1", 24), (Collisions{0, 0, va_}));
  EXPECT_EQ(ask("10.0.0.1", 14), (Collisions{va_, 0, va_}));
  set("va", "up", true);
  EXPECT_EQ(ask("10.1.200.1", 24), (Collisions{va_, va_, va_}));
}

TEST_F(IpdOverlapTest, AMissingCarrierIsNoExcuse) {
  set("vb", "down", false);
  EXPECT_TRUE(wait_until([&] { return im_is_if_up(va_) == 0; }));
  EXPECT_EQ(ask("10.1.200.1", 24), (Collisions{va_, va_, va_}));
}

TEST_F(IpdOverlapTest, ARemovedAddressLeavesItsPrefixFree) {
  ip("addr del 10.2.3.1/24 dev vb");
  EXPECT_TRUE(wait_until([&] { return ip_is_address_on_interface(host_order("10.2.3.1"), vb_) == 0; }));
  // The address goes by one store and its subnet by another.
  EXPECT_TRUE(wait_until([&] { return ask("10.2.3.128", 25) == Collisions{0, 0, 0}; }));
  EXPECT_TRUE(wait_until([&] { return ask("10.2.0.1", 16) == Collisions{0, 0, 0}; }));
}

TEST_F(IpdOverlapTest, WhichInterfaceHasExactlyThisPrefix) {
  EXPECT_EQ(ip_get_iod_for_local_subnet("default", host_order("10.1.0.0"), 16), va_);
  EXPECT_EQ(ip_get_iod_for_local_subnet("default", host_order("10.2.3.0"), 24), vb_);
  EXPECT_EQ(ip_get_iod_for_local_subnet("default", host_order("10.1.0.0"), 17), 0u);
  EXPECT_STREQ(ip_api_get_error(), "Local PT node not found for context default ip 10.1.0.0/17");
  ip("link set vb down");
  EXPECT_TRUE(wait_until([&] { return im_is_adminup(vb_) == 0; }));
  EXPECT_EQ(ip_get_iod_for_local_subnet("default", host_order("10.2.3.0"), 24), vb_) << "down or not";
}

// Random addresses on two interfaces of which one is down, and random new prefixes, beside plain loops.
TEST_F(IpdOverlapTest, AgreesWithAPlainSearchOfTheKernelsAddresses) {
  constexpr uint32_t seed = 90210;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  struct Held {
    uint32_t addr, mask;
    bool up;
  };
  std::vector<Held> held{{host_order("10.1.0.1"), 0xffff0000u, true}, {host_order("10.2.3.1"), 0xffffff00u, false}};
  test_support::AddressChanger changer;
  for (int i = 0; i < 60; ++i) {
    const auto len = static_cast<uint8_t>(20 + random() % 13);
    const uint32_t addr = 0x0a400000u + static_cast<uint32_t>(random() % 0x100000) + 1;
    const bool on_va = i % 2 == 0;
    if (changer.add(ifindex(on_va ? "va" : "vb"), addr, len) != 0) continue;
    held.push_back({addr, ~0u << (32 - len), on_va});
  }
  set("vb", "down", false);
  EXPECT_TRUE(wait_until([&] { return ip_is_addr_local_intf(1, held.back().addr) != 0; }));
  int collisions = 0;
  for (int i = 0; i < 3000; ++i) {
    const auto len = static_cast<uint8_t>(8 + random() % 25);
    const uint32_t mask = ~0u << (32 - len);
    const uint32_t addr = 0x0a400000u + static_cast<uint32_t>(random() % 0x200000);
    bool around = false;
    bool around_up = false;
    bool inside = false;
    for (const Held &each : held) {
      // An address is in the tree with its subnet, and by itself.
      for (const uint32_t held_mask : {each.mask, ~0u}) {
        const bool covers = held_mask <= mask && (each.addr & held_mask) == (addr & held_mask);
        around |= covers;
        around_up |= covers && each.up;
        inside |= held_mask > mask && (each.addr & mask) == (addr & mask);
      }
    }
    const std::string what = dotted(addr) + "/" + std::to_string(len);
    const Collisions found = ask(dotted(addr), len);
    EXPECT_EQ(found.no_state != 0, around || inside) << what;
    EXPECT_EQ(found.search != 0, around_up || inside) << what;
    collisions += found.search != 0 ? 1 : 0;
  }
  EXPECT_GT(collisions, 300);
  EXPECT_LT(collisions, 2700);
}

}  // namespace
