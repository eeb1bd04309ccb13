// SPDX-License-Identifier: Apache-2.0
// Keyed digests: the vectors of RFC 2202, lengths of every kind beside code of our own, and what a call leaves alone.
#include "hmac.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "hmac/hmac_plain.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes text(const std::string &letters) {
  return {letters.begin(), letters.end()};
}

Bytes numbers_up_to(uint8_t last) {
  Bytes bytes(last);
  std::iota(bytes.begin(), bytes.end(), uint8_t{1});
  return bytes;
}

std::string hexadecimal(const Bytes &bytes) {
  std::string digits;
  for (const uint8_t byte : bytes) {
    char two[3];
    snprintf(two, sizeof two, "%02x", byte);
    digits += two;
  }
  return digits;
}

uint32_t size_of(const Bytes &bytes) {
  return static_cast<uint32_t>(bytes.size());
}

Bytes md5(const Bytes &data, const Bytes &key) {
  Bytes digest(16);
  hmac_md5(data.data(), size_of(data), key.data(), size_of(key), digest.data());
  return digest;
}

Bytes sha(const Bytes &data, const Bytes &key, uint32_t out_len = 20) {
  Bytes digest(out_len);
  hmac_sha(data.data(), size_of(data), key.data(), size_of(key), out_len, digest.data());
  return digest;
}

Bytes plain_md5(const Bytes &data, const Bytes &key) {
  Bytes digest(16);
  rsw::plain::hmac_md5(data.data(), data.size(), key.data(), key.size(), digest.data());
  return digest;
}

Bytes plain_sha1(const Bytes &data, const Bytes &key) {
  Bytes digest(20);
  rsw::plain::hmac_sha1(data.data(), data.size(), key.data(), key.size(), digest.size(), digest.data());
  return digest;
}

struct Vector {
  Bytes key;
  Bytes data;
  std::string digest;
};

const std::string larger_key = "Test Using Larger Than Block-Size Key - Hash Key First";
const std::string larger_both = "Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data";

// RFC 2202, section 2.
const std::vector<Vector> &md5_vectors() {
  static const std::vector<Vector> all = {
      {Bytes(16, 0x0b), text("Hi There"), "9294727a3638bb1c13f48ef8158bfc9d"},
      {text("Jefe"), text("what do ya want for nothing?"), "750c783e6ab0b503eaa86e310a5db738"},
      {Bytes(16, 0xaa), Bytes(50, 0xdd), "56be34521d144c88dbb8c733f0e8b3f6"},
      {numbers_up_to(25), Bytes(50, 0xcd), "697eaf0aca3a3aea3a75164746ffaa79"},
      {Bytes(16, 0x0c), text("Test With Truncation"), "56461ef2342edc00f9bab995690efd4c"},
      {Bytes(80, 0xaa), text(larger_key), "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd"},
      {Bytes(80, 0xaa), text(larger_both), "6f630fad67cda0ee1fb1f562db3aa53e"},
  };
  return all;
}

// RFC 2202, section 3.
const std::vector<Vector> &sha1_vectors() {
  static const std::vector<Vector> all = {
      {Bytes(20, 0x0b), text("Hi There"), "b617318655057264e28bc0b6fb378c8ef146be00"},
      {text("Jefe"), text("what do ya want for nothing?"), "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
      {Bytes(20, 0xaa), Bytes(50, 0xdd), "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
      {numbers_up_to(25), Bytes(50, 0xcd), "4c9007f4026250c6bc8414f9bf50c86c2d7235da"},
      {Bytes(20, 0x0c), text("Test With Truncation"), "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04"},
      {Bytes(80, 0xaa), text(larger_key), "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
      {Bytes(80, 0xaa), text(larger_both), "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"},
  };
  return all;
}

TEST(HmacTest, Md5HasTheDigestsOfRfc2202) {
  for (const Vector &vector : md5_vectors()) {
    EXPECT_EQ(hexadecimal(md5(vector.data, vector.key)), vector.digest);
    EXPECT_EQ(hexadecimal(plain_md5(vector.data, vector.key)), vector.digest);
  }
}

TEST(HmacTest, ShaHasTheSha1DigestsOfRfc2202) {
  for (const Vector &vector : sha1_vectors()) {
    EXPECT_EQ(hexadecimal(sha(vector.data, vector.key)), vector.digest);
    EXPECT_EQ(hexadecimal(plain_sha1(vector.data, vector.key)), vector.digest);
  }
}

TEST(HmacTest, AShorterDigestIsTheBeginningOfTheWholeOne) {
  const Vector &vector = sha1_vectors()[4];
  for (uint32_t wanted = 0; wanted <= 20; wanted++) {
    EXPECT_EQ(hexadecimal(sha(vector.data, vector.key, wanted)), vector.digest.substr(0, 2 * size_t{wanted}));
  }
}

TEST(HmacTest, BeyondTheWholeDigestAreZeros) {
  const Vector &vector = sha1_vectors()[0];
  EXPECT_EQ(hexadecimal(sha(vector.data, vector.key, 24)), vector.digest + "00000000");
}

TEST(HmacTest, NotAByteBehindTheDigestIsWritten) {
  std::array<uint8_t, 32> room;
  room.fill(0x7e);
  hmac_sha("abc", 3, "key", 3, 16, room.data());
  for (size_t i = 16; i < room.size(); i++) EXPECT_EQ(room[i], 0x7e) << i;
  room.fill(0x7e);
  hmac_md5("abc", 3, "key", 3, room.data());
  for (size_t i = 16; i < room.size(); i++) EXPECT_EQ(room[i], 0x7e) << i;
}

TEST(HmacTest, NoBytesAndNoKeyHaveADigest) {
  EXPECT_EQ(md5({}, {}), plain_md5({}, {}));
  EXPECT_EQ(sha({}, {}), plain_sha1({}, {}));
  EXPECT_NE(md5({}, {1}), md5({}, {}));
}

// Lengths around the edges of blocks, of data and of key.
TEST(HmacTest, EveryLengthAgreesWithItsTwin) {
  const uint32_t seed = std::random_device()();
  std::printf("seed %u\n", seed);
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (size_t length = 0; length < 300; length++) {
    Bytes data(length);
    for (uint8_t &byte : data) byte = static_cast<uint8_t>(random());
    Bytes key(random() % 140);
    for (uint8_t &byte : key) byte = static_cast<uint8_t>(random());
    EXPECT_EQ(md5(data, key), plain_md5(data, key)) << length << " " << key.size();
    EXPECT_EQ(sha(data, key), plain_sha1(data, key)) << length << " " << key.size();
  }
}

}  // namespace
