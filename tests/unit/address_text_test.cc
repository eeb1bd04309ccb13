// SPDX-License-Identifier: Apache-2.0
// Addresses and prefixes as text: the ring of eight slots, its counter, and inet_ntoa beside the C library's.
#include <dlfcn.h>

#include <climits>
#include <cstring>
#include <string>

#include "unit/library_test.h"
#include "unit/random_words.h"

extern "C" const char *text_of_address_bytes(const unsigned char bytes[4]);

namespace unit {
namespace {

class AddressTextTest : public LibraryTest {
 protected:
  // The address of these four bytes as a packet holds them.
  static uint32_t net(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    const uint8_t bytes[4] = {a, b, c, d};
    uint32_t word;
    memcpy(&word, bytes, 4);
    return word;
  }
};

TEST_F(AddressTextTest, AddressesAreDotted) {
  EXPECT_STREQ(ip_print_addr(address(10, 1, 2, 3)), "10.1.2.3");
  EXPECT_STREQ(ip_print_addr(0), "0.0.0.0");
  EXPECT_STREQ(ip_print_addr(0xffffffff), "255.255.255.255");
  EXPECT_STREQ(ip_print_addr(address(9, 99, 100, 200)), "9.99.100.200");
  EXPECT_STREQ(ip_print_addr(address(100, 10, 109, 1)), "100.10.109.1");
}

TEST_F(AddressTextTest, EveryOctetHasItsText) {
  for (uint32_t octet = 0; octet < 256; octet++) {
    const std::string digits = std::to_string(octet);
    const uint32_t addr = address(octet, octet, octet, octet);
    EXPECT_EQ(ip_print_addr(addr), digits + "." + digits + "." + digits + "." + digits);
  }
}

TEST_F(AddressTextTest, PrefixesCarryTheirLength) {
  const ip_prefixtype net_16 = {address(10, 1, 0, 0), 16};
  EXPECT_STREQ(ip_print_prefix(&net_16), "10.1.0.0/16");
  const ip_prefixtype all = {0, 0};
  EXPECT_STREQ(ip_print_prefix(&all), "0.0.0.0/0");
  const ip_prefixtype host_bits = {address(10, 1, 2, 3), 8};
  EXPECT_STREQ(ip_print_prefix(&host_bits), "10.1.2.3/8");
}

TEST_F(AddressTextTest, EveryValidLengthHasItsText) {
  for (uint8_t length = 0; length <= 32; length++) {
    const ip_prefixtype prefix = {address(192, 0, 2, 0), length};
    EXPECT_EQ(ip_print_prefix(&prefix), "192.0.2.0/" + std::to_string(length));
  }
}

TEST_F(AddressTextTest, TheLongestValidPrefixFills19BytesOfItsSlot) {
  memset(ip_address_string, 0x7e, sizeof ip_address_string);
  const ip_prefixtype longest = {0xffffffff, 32};
  const char *text = ip_print_prefix(&longest);
  EXPECT_EQ(text, ip_address_string[0]);
  EXPECT_STREQ(text, "255.255.255.255/32");
  EXPECT_EQ(strlen(text) + 1, 19u);
  EXPECT_EQ(ip_address_string[1][0], 0x7e);
}

TEST_F(AddressTextTest, AThreeDigitLengthStaysInItsSlot) {
  memset(ip_address_string, 0x7e, sizeof ip_address_string);
  const ip_prefixtype invalid = {0xffffffff, 255};
  EXPECT_STREQ(ip_print_prefix(&invalid), "255.255.255.255/255");
  EXPECT_EQ(ip_address_string[1][0], 0x7e);
}

TEST_F(AddressTextTest, EightSlotsAreUsedInTurn) {
  for (int i = 0; i < 8; i++) {
    EXPECT_EQ(ip_address_string_next, i);
    EXPECT_EQ(ip_print_addr(address(10, 0, 0, static_cast<uint32_t>(i))), ip_address_string[i]);
  }
  for (int i = 0; i < 8; i++) EXPECT_EQ(ip_address_string[i], "10.0.0." + std::to_string(i)) << "all eight are valid";
  const ip_prefixtype ninth = {address(10, 0, 0, 9), 24};
  EXPECT_EQ(ip_print_prefix(&ninth), ip_address_string[0]) << "the ninth takes the first slot";
  EXPECT_STREQ(ip_address_string[0], "10.0.0.9/24");
  EXPECT_EQ(ip_address_string_next, 9);
}

TEST_F(AddressTextTest, AShorterTextHidesTheLongerOneBefore) {
  ip_print_addr(0xffffffff);
  ip_address_string_next = 0;
  EXPECT_STREQ(ip_print_addr(address(1, 2, 3, 4)), "1.2.3.4");
}

struct CounterRow {
  const char *name;
  int32_t counter;
  int slot;
  int32_t after;
};

class RingCounter : public LibraryTest, public testing::WithParamInterface<CounterRow> {};

TEST_P(RingCounter, ChoosesItsSlotByTheLowThreeBits) {
  ip_address_string_next = GetParam().counter;
  EXPECT_EQ(ip_print_addr(address(1, 1, 1, 1)), ip_address_string[GetParam().slot]);
  EXPECT_EQ(ip_address_string_next, GetParam().after);
  const ip_prefixtype prefix = {address(1, 1, 1, 1), 8};
  ip_address_string_next = GetParam().counter;
  EXPECT_EQ(ip_print_prefix(&prefix), ip_address_string[GetParam().slot]);
  EXPECT_EQ(ip_address_string_next, GetParam().after);
}

INSTANTIATE_TEST_SUITE_P(Counters, RingCounter,
                         testing::Values(CounterRow{"Zero", 0, 0, 1}, CounterRow{"Seven", 7, 7, 8},
                                         CounterRow{"Eight", 8, 0, 9}, CounterRow{"Last", INT32_MAX, 7, INT32_MIN},
                                         CounterRow{"First", INT32_MIN, 0, INT32_MIN + 1},
                                         CounterRow{"MinusOne", -1, 7, 0}, CounterRow{"MinusSix", -6, 2, -5}),
                         [](const auto &of) { return std::string(of.param.name); });

TEST_F(AddressTextTest, TheRingIs160Bytes) {
  EXPECT_EQ(sizeof ip_address_string, 160u);
}

TEST_F(AddressTextTest, InetNtoaTakesBytesInMemoryOrder) {
  EXPECT_STREQ(inet_ntoa(net(192, 0, 2, 7)), "192.0.2.7");
  EXPECT_STREQ(inet_ntoa(0), "0.0.0.0");
  EXPECT_STREQ(inet_ntoa(0xffffffff), "255.255.255.255");
}

TEST_F(AddressTextTest, InetNtoaHasABufferOfItsOwn) {
  const char *ring = ip_print_addr(address(10, 0, 0, 1));
  const char *first = inet_ntoa(net(1, 2, 3, 4));
  const char *next = inet_ntoa(net(5, 6, 7, 8));
  EXPECT_EQ(first, next);
  EXPECT_STREQ(next, "5.6.7.8");
  EXPECT_STREQ(ring, "10.0.0.1");
  EXPECT_EQ(ip_address_string_next, 1);
  EXPECT_TRUE(first < ip_address_string[0] || first >= ip_address_string[8]);
}

TEST_F(AddressTextTest, ACallerOfTheCLibrarysInetNtoaGetsTheRightText) {
  const unsigned char bytes[4] = {198, 51, 100, 23};
  EXPECT_STREQ(text_of_address_bytes(bytes), "198.51.100.23");
  EXPECT_EQ(text_of_address_bytes(bytes), inet_ntoa(0)) << "it is this library's function that was called";
}

TEST_F(AddressTextTest, AgreesWithTheCLibraryOnRandomAddresses) {
  void *libc = dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD);
  ASSERT_NE(libc, nullptr);
  const auto theirs = reinterpret_cast<const char *(*)(int, const void *, char *, unsigned)>(dlsym(libc, "inet_ntop"));
  ASSERT_NE(theirs, nullptr);
  RandomWords random;
  for (int i = 0; i < 20000; i++) {
    const uint32_t addr_net = random();
    char text[16];
    ASSERT_NE(theirs(2 /* AF_INET */, &addr_net, text, sizeof text), nullptr);
    ASSERT_STREQ(inet_ntoa(addr_net), text);
    ASSERT_STREQ(ip_print_addr(__builtin_bswap32(addr_net)), text);
  }
  dlclose(libc);
}

TEST_F(AddressTextTest, CallsNobody) {
  const ip_prefixtype prefix = {address(10, 0, 0, 0), 8};
  ip_print_addr(1);
  ip_print_prefix(&prefix);
  inet_ntoa(1);
  EXPECT_EQ(calls(), Calls{});
  EXPECT_EQ(platform().formatted.size(), 0u);
}

}  // namespace
}  // namespace unit
