// SPDX-License-Identifier: Apache-2.0
// Masks, prefixes and martians: known values, the ends of every range, and random values beside twins that look at one
// bit or one octet at a time.
#include <gtest/gtest.h>

#include <array>

#include "fake_platform/database.h"
#include "ip_api.h"
#include "unit/random_words.h"

namespace unit {
namespace {

using fake_platform::address;

struct LengthRow {
  uint8_t length;
  uint32_t mask;
  uint32_t wildcard;
};

// Above 32 the shift count wraps at 32.
const LengthRow lengths[] = {
    {0, 0, 0},
    {1, 0x80000000, 0x7fffffff},
    {2, 0xc0000000, 0x3fffffff},
    {8, 0xff000000, 0x00ffffff},
    {16, 0xffff0000, 0x0000ffff},
    {24, 0xffffff00, 0x000000ff},
    {31, 0xfffffffe, 0x00000001},
    {32, 0xffffffff, 0},
    {33, 0x80000000, 0x7fffffff},
    {40, 0xff000000, 0x00ffffff},
    {64, 0xffffffff, 0},
    {255, 0xfffffffe, 0x00000001},
};

TEST(Masks, MaskOfALength) {
  for (const LengthRow &row : lengths) EXPECT_EQ(ip_bits2mask(row.length), row.mask) << +row.length;
}

TEST(Masks, WildcardOfALengthIsZeroForZero) {
  for (const LengthRow &row : lengths) EXPECT_EQ(ip_wildcard_mask(row.length), row.wildcard) << +row.length;
}

struct MaskRow {
  uint32_t mask;
  uint8_t length;
  uint32_t octets;
  uint32_t contiguous;
};

const MaskRow masks[] = {
    {0, 0, 1, 1},           {0x80000000, 1, 1, 1},  {0xff000000, 8, 1, 1},  {0xff800000, 9, 2, 1},
    {0xffff0000, 16, 2, 1}, {0xffffff00, 24, 3, 1}, {0xffffff80, 25, 4, 1}, {0xfffffffe, 31, 4, 1},
    {0xffffffff, 32, 4, 1}, {0xff00ff00, 24, 3, 0}, {0x7fffffff, 32, 4, 0}, {0x00000001, 32, 4, 0},
    {0x00010000, 16, 2, 0}, {0x0000ff00, 24, 3, 0}, {0x40000000, 2, 1, 0},  {0xfffffffd, 32, 4, 0},
};

TEST(Masks, LengthOfAMaskIsSetByItsLowestBit) {
  for (const MaskRow &row : masks) EXPECT_EQ(ip_mask2bits(row.mask), row.length) << std::hex << row.mask;
}

TEST(Masks, OctetsThatAMaskTouches) {
  for (const MaskRow &row : masks) EXPECT_EQ(ip_bytesinmask(row.mask), row.octets) << std::hex << row.mask;
}

TEST(Masks, ContiguousFromTheTop) {
  for (const MaskRow &row : masks) EXPECT_EQ(ip_is_mask_contiguous(row.mask), row.contiguous) << std::hex << row.mask;
}

struct AddressRow {
  uint32_t addr;
  uint32_t natural_mask;
  uint32_t prefix_martian;
  uint32_t address_martian;
  uint32_t multicast;
};

const AddressRow addresses[] = {
    {address(0, 0, 0, 0), 0xff000000, 0, 1, 0},
    {address(0, 0, 0, 1), 0xff000000, 1, 1, 0},
    {address(0, 1, 2, 3), 0xff000000, 1, 1, 0},
    {address(0, 255, 255, 255), 0xff000000, 1, 1, 0},
    {address(1, 0, 0, 0), 0xff000000, 0, 0, 0},
    {address(10, 1, 1, 1), 0xff000000, 0, 0, 0},
    {address(126, 255, 255, 255), 0xff000000, 0, 0, 0},
    {address(127, 0, 0, 0), 0xff000000, 1, 1, 0},
    {address(127, 0, 0, 1), 0xff000000, 1, 1, 0},
    {address(127, 255, 255, 255), 0xff000000, 1, 1, 0},
    {address(128, 0, 0, 0), 0xffff0000, 0, 0, 0},
    {address(191, 255, 255, 255), 0xffff0000, 0, 0, 0},
    {address(192, 0, 0, 0), 0xffffff00, 0, 0, 0},
    {address(223, 255, 255, 255), 0xffffff00, 0, 0, 0},
    {address(224, 0, 0, 1), 0, 0, 0, 1},
    {address(224, 0, 0, 5), 0, 0, 0, 1},
    {address(239, 255, 255, 255), 0, 0, 0, 1},
    {address(240, 0, 0, 1), 0, 0, 0, 0},
    {address(255, 255, 255, 254), 0, 0, 0, 0},
    {address(255, 255, 255, 255), 0, 1, 1, 0},
};

TEST(Addresses, NaturalMask) {
  for (const AddressRow &row : addresses) {
    EXPECT_EQ(ip_natural_mask(row.addr), row.natural_mask) << fake_platform::dotted(row.addr);
  }
}

TEST(Addresses, MartianPrefixes) {
  for (const AddressRow &row : addresses) {
    EXPECT_EQ(ip_prefix_martian(row.addr), row.prefix_martian) << fake_platform::dotted(row.addr);
  }
}

TEST(Addresses, MartianHostAddresses) {
  for (const AddressRow &row : addresses) {
    EXPECT_EQ(ip_address_martian(row.addr), row.address_martian) << fake_platform::dotted(row.addr);
  }
}

TEST(Addresses, Multicast) {
  for (const AddressRow &row : addresses) {
    EXPECT_EQ(ip_is_addr_multicast(row.addr), row.multicast) << fake_platform::dotted(row.addr);
  }
}

TEST(Addresses, NoneIsASyslogServer) {
  for (const AddressRow &row : addresses) EXPECT_EQ(ip_is_syslog_svr_address(row.addr), 0u);
}

struct BroadcastRow {
  uint32_t addr, mask, broadcast;
};

TEST(Addresses, BroadcastUnderAMask) {
  const BroadcastRow rows[] = {
      {address(10, 1, 1, 0), 0xffffff00, 1},
      {address(10, 1, 1, 255), 0xffffff00, 1},
      {address(10, 1, 1, 1), 0xffffff00, 0},
      {address(10, 1, 1, 254), 0xffffff00, 0},
      {address(10, 1, 1, 255), 0xfffffe00, 1},
      {address(10, 1, 0, 255), 0xfffffe00, 0},
      {address(10, 1, 1, 1), 0xffffffff, 1},
      {address(255, 255, 255, 255), 0xff000000, 1},
      {address(255, 255, 255, 255), 0, 1},
      {0, 0, 1},
      {1, 0, 0},
      {address(10, 0, 0, 0), 0, 0},
      {address(10, 1, 1, 1), 0xfffffffe, 1},
      {address(10, 1, 1, 0), 0xfffffffe, 1},
      {address(255, 255, 255, 255), 0xff00ff00, 1},
      {address(10, 0, 1, 0), 0xff00ff00, 1},
  };
  for (const BroadcastRow &row : rows) {
    EXPECT_EQ(ip_is_addr_broadcast(row.addr, row.mask), row.broadcast)
        << fake_platform::dotted(row.addr) << " under " << std::hex << row.mask;
  }
}

TEST(Prefixes, DirectedBroadcast) {
  EXPECT_EQ(ip_get_broadcast_address(0, 24), 0u);
  EXPECT_EQ(ip_get_broadcast_address(0, 0), 0u);
  EXPECT_EQ(ip_get_broadcast_address(address(10, 1, 1, 1), 24), address(10, 1, 1, 255));
  EXPECT_EQ(ip_get_broadcast_address(address(10, 1, 1, 1), 32), address(10, 1, 1, 1));
  EXPECT_EQ(ip_get_broadcast_address(address(10, 1, 1, 1), 31), address(10, 1, 1, 1));
  EXPECT_EQ(ip_get_broadcast_address(address(10, 1, 1, 1), 0), 0xffffffffu);
  EXPECT_EQ(ip_get_broadcast_address(address(10, 1, 1, 1), 33), address(127, 255, 255, 255));
}

TEST(Prefixes, ContainTheirAddresses) {
  EXPECT_EQ(ip_is_addr_in_prefix(address(10, 1, 2, 3), address(10, 1, 0, 0), 16), 1u);
  EXPECT_EQ(ip_is_addr_in_prefix(address(10, 2, 2, 3), address(10, 1, 0, 0), 16), 0u);
  EXPECT_EQ(ip_is_addr_in_prefix(address(10, 1, 2, 3), address(10, 1, 255, 255), 16), 1u) << "bits beyond do not count";
  EXPECT_EQ(ip_is_addr_in_prefix(address(10, 1, 2, 3), address(192, 0, 2, 1), 0), 1u) << "length 0 holds all";
  EXPECT_EQ(ip_is_addr_in_prefix(address(10, 1, 2, 3), address(10, 1, 2, 3), 32), 1u);
  EXPECT_EQ(ip_is_addr_in_prefix(address(10, 1, 2, 3), address(10, 1, 2, 2), 32), 0u);
  EXPECT_EQ(ip_is_addr_in_prefix(address(10, 1, 2, 3), address(10, 1, 2, 2), 31), 1u);
}

TEST(Prefixes, MatchOnlyWhenBothFieldsDo) {
  const ip_prefixtype net = {address(10, 0, 0, 0), 8};
  const ip_prefixtype same = {address(10, 0, 0, 0), 8};
  const ip_prefixtype host = {address(10, 0, 0, 1), 8};
  const ip_prefixtype longer = {address(10, 0, 0, 0), 9};
  EXPECT_EQ(ip_match_prefix(&net, &same), 1u);
  EXPECT_EQ(ip_match_prefix(&net, &net), 1u);
  EXPECT_EQ(ip_match_prefix(&net, &host), 0u) << "addresses are compared unmasked";
  EXPECT_EQ(ip_match_prefix(&net, &longer), 0u);
}

TEST(Prefixes, CopyTakesBothFieldsAsTheyAre) {
  const ip_prefixtype from = {address(10, 0, 0, 1), 77};
  ip_prefixtype to = {1, 2};
  ip_copy_prefix(&from, &to);
  EXPECT_EQ(to.addr, address(10, 0, 0, 1));
  EXPECT_EQ(to.mask_len, 77);
  EXPECT_EQ(from.addr, address(10, 0, 0, 1));
}

using Mac = std::array<uint8_t, 8>;

Mac mac_of(uint32_t group) {
  Mac mac;
  mac.fill(0xee);
  ip_get_mac_multicast(group, mac.data());
  return mac;
}

// RFC 1112, section 6.4: the low 23 bits of the group behind 01-00-5e.
TEST(Addresses, EthernetAddressOfAGroup) {
  EXPECT_EQ(mac_of(address(239, 129, 1, 2)), (Mac{0x01, 0x00, 0x5e, 0x01, 0x01, 0x02, 0xee, 0xee}));
  EXPECT_EQ(mac_of(address(224, 0, 0, 5)), (Mac{0x01, 0x00, 0x5e, 0x00, 0x00, 0x05, 0xee, 0xee}));
  EXPECT_EQ(mac_of(0xffffffff), (Mac{0x01, 0x00, 0x5e, 0x7f, 0xff, 0xff, 0xee, 0xee}));
  EXPECT_EQ(mac_of(address(10, 1, 2, 3)), (Mac{0x01, 0x00, 0x5e, 0x01, 0x02, 0x03, 0xee, 0xee})) << "not checked";
}

// ------------------------------------------------------------ random values beside twins

namespace twin {

bool bit(uint32_t value, uint32_t from_top) {
  return ((value >> (31 - from_top)) & 1) != 0;
}

uint32_t mask(uint32_t length) {
  uint32_t result = 0;
  for (uint32_t i = 0; i < length; i++) result += 1u << (31 - i);
  return result;
}

uint32_t wildcard(uint32_t length) {
  uint32_t result = 0;
  for (uint32_t i = length; length != 0 && i < 32; i++) result += 1u << (31 - i);
  return result;
}

uint32_t length(uint32_t of) {
  uint32_t last = 0;
  for (uint32_t i = 0; i < 32; i++) {
    if (bit(of, i)) last = i + 1;
  }
  return last;
}

uint32_t octets(uint32_t of) {
  uint32_t last = 1;
  for (uint32_t i = 0; i < 4; i++) {
    for (uint32_t j = 0; j < 8; j++) {
      if (bit(of, i * 8 + j)) last = i + 1;
    }
  }
  return last;
}

bool contiguous(uint32_t of) {
  for (uint32_t n = 0; n <= 32; n++) {
    if (of == mask(n)) return true;
  }
  return false;
}

bool in_prefix(uint32_t addr, uint32_t prefix, uint32_t n) {
  for (uint32_t i = 0; i < n; i++) {
    if (bit(addr, i) != bit(prefix, i)) return false;
  }
  return true;
}

bool prefix_martian(uint32_t addr) {
  const uint32_t top = addr / 0x1000000;
  return top == 127 || addr == address(255, 255, 255, 255) || (top == 0 && addr != 0);
}

bool address_martian(uint32_t addr) {
  const uint32_t top = addr / 0x1000000;
  return top == 0 || top == 127 || addr == address(255, 255, 255, 255);
}

uint32_t natural_mask(uint32_t addr) {
  const uint32_t top = addr / 0x1000000;
  return top < 128 ? mask(8) : top < 192 ? mask(16) : top < 224 ? mask(24) : 0;
}

bool broadcast(uint32_t addr, uint32_t under) {
  bool zeros = true;
  bool ones = true;
  for (uint32_t i = 0; i < 32; i++) {
    if (bit(under, i)) continue;
    if (bit(addr, i)) zeros = false;
    if (!bit(addr, i)) ones = false;
  }
  return zeros || ones || addr == address(255, 255, 255, 255);
}

uint32_t directed_broadcast(uint32_t addr, uint32_t n) {
  if (addr == 0) return 0;
  uint32_t result = addr;
  for (uint32_t i = n; i < 32; i++) result |= 1u << (31 - i);
  return result;
}

}  // namespace twin

class RandomMasks : public testing::Test {
 protected:
  // Values that sit near the edges as often as anywhere else.
  uint32_t any_word() {
    const uint32_t word = random_();
    const uint32_t n = random_.below(33);
    switch (random_.below(6)) {
      case 0:
        return twin::mask(n);
      case 1:
        return twin::mask(n) ^ (1u << random_.below(32));
      case 2:
        return word & ~(0xffu << 24);
      case 3:
        return word | twin::mask(n);
      case 4:
        return (word & 0x00ffffff) | 127u << 24;
      default:
        return word;
    }
  }
  uint8_t any_length() { return static_cast<uint8_t>(random_.below(33)); }

  RandomWords random_;
};

constexpr int rounds = 20000;

TEST_F(RandomMasks, MaskFunctionsAgreeWithTheirTwins) {
  for (int i = 0; i < rounds; i++) {
    const uint32_t mask = any_word();
    const uint8_t n = any_length();
    ASSERT_EQ(ip_bits2mask(n), twin::mask(n)) << +n;
    ASSERT_EQ(ip_wildcard_mask(n), twin::wildcard(n)) << +n;
    ASSERT_EQ(ip_mask2bits(mask), twin::length(mask)) << std::hex << mask;
    ASSERT_EQ(ip_bytesinmask(mask), twin::octets(mask)) << std::hex << mask;
    ASSERT_EQ(ip_is_mask_contiguous(mask), twin::contiguous(mask) ? 1u : 0u) << std::hex << mask;
  }
}

TEST_F(RandomMasks, AddressFunctionsAgreeWithTheirTwins) {
  for (int i = 0; i < rounds; i++) {
    const uint32_t addr = any_word();
    const uint32_t mask = any_word();
    ASSERT_EQ(ip_natural_mask(addr), twin::natural_mask(addr)) << fake_platform::dotted(addr);
    ASSERT_EQ(ip_prefix_martian(addr), twin::prefix_martian(addr) ? 1u : 0u) << fake_platform::dotted(addr);
    ASSERT_EQ(ip_address_martian(addr), twin::address_martian(addr) ? 1u : 0u) << fake_platform::dotted(addr);
    ASSERT_EQ(ip_is_addr_multicast(addr), addr / 0x10000000 == 14 ? 1u : 0u) << fake_platform::dotted(addr);
    ASSERT_EQ(ip_is_addr_broadcast(addr, mask), twin::broadcast(addr, mask) ? 1u : 0u)
        << fake_platform::dotted(addr) << " under " << std::hex << mask;
  }
}

TEST_F(RandomMasks, PrefixFunctionsAgreeWithTheirTwins) {
  for (int i = 0; i < rounds; i++) {
    const uint32_t prefix = any_word();
    const uint8_t n = any_length();
    // Half of the time an address that shares a stretch of leading bits with the prefix.
    const uint32_t addr = random_.below(2) == 0 ? any_word() : prefix ^ (any_word() & ~twin::mask(any_length()));
    ASSERT_EQ(ip_is_addr_in_prefix(addr, prefix, n), twin::in_prefix(addr, prefix, n) ? 1u : 0u)
        << fake_platform::dotted(addr) << " in " << fake_platform::dotted(prefix) << "/" << +n;
    ASSERT_EQ(ip_get_broadcast_address(addr, n), twin::directed_broadcast(addr, n))
        << fake_platform::dotted(addr) << "/" << +n;
    const ip_prefixtype one = {addr, n};
    const ip_prefixtype other = {prefix, n};
    ASSERT_EQ(ip_match_prefix(&one, &other), addr == prefix ? 1u : 0u);
  }
}

TEST_F(RandomMasks, ALengthSurvivesTheWayThroughItsMask) {
  for (uint32_t n = 0; n <= 32; n++) EXPECT_EQ(ip_mask2bits(ip_bits2mask(static_cast<uint8_t>(n))), n);
}

}  // namespace
}  // namespace unit
