// SPDX-License-Identifier: Apache-2.0
// The authentication header: its bytes, what the digest covers and with which key, and what verifying leaves behind.
#include <string>

#include "hmac.h"
#include "unit/packet_headers.h"

namespace unit {
namespace {

constexpr uint32_t with_md5 = 1;
constexpr uint32_t with_sha = 0;
constexpr size_t header_size = 28;

class AuthenticationTest : public PacketTest, public testing::WithParamInterface<uint32_t> {
 protected:
  // A header in front of five bytes of data.
  Bytes built(uint32_t use_md5, uint32_t data_len = 5) {
    Bytes bytes(header_size, 0xee);
    bytes = joined(bytes, {1, 2, 3, 4, 5});
    ip_build_ah_header(bytes.data(), 89, 0x01020304, 0xa1a2a3a4, data_len, key.data(), use_md5);
    return bytes;
  }
  static uint32_t verify(Bytes bytes, const Bytes &with_key, uint32_t use_md5, uint32_t data_len = 5) {
    return ip_verify_ah_header(bytes.data(), data_len, with_key.data(), use_md5);
  }
  void expect_check_value() {
    const Bytes bytes = built(GetParam());
    Bytes covered = bytes;
    std::fill(covered.begin() + 12, covered.begin() + 28, uint8_t{0});
    uint8_t digest[64];
    if (GetParam() == with_md5) {
      hmac_md5(covered.data(), 33, key.data(), 16, digest);
    } else {
      hmac_sha(covered.data(), 33, key.data(), 19, 16, digest);
    }
    EXPECT_EQ(Bytes(bytes.begin() + 12, bytes.begin() + 28), Bytes(digest, digest + 16));
  }
  // 16 bytes, and text for SHA: its NUL is the last of 20.
  Bytes key = {'s', 'e', 'c', 'r', 'e', 't', ' ', 'o', 'f', ' ', '1', '9', ' ', 'l', 'e', 't', 't', 'e', 'r', 0};
};

TEST_P(AuthenticationTest, EveryFieldOfAHeaderIsWritten) {
  const Bytes bytes = built(GetParam());
  EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 12), (Bytes{89, 5, 0, 0, 1, 2, 3, 4, 0xa1, 0xa2, 0xa3, 0xa4}));
  EXPECT_EQ(Bytes(bytes.begin() + 28, bytes.end()), (Bytes{1, 2, 3, 4, 5})) << "the data stays";
}

TEST_P(AuthenticationTest, TheCheckValueIsTheDigestOfTheHeaderWithoutItAndTheData) {
  expect_check_value();
}

TEST_P(AuthenticationTest, OfADigestThatThePlatformDoesNotCutTheFirst16BytesAreUsed) {
  platform().whole_digests = true;
  expect_check_value();
  EXPECT_EQ(verify(built(GetParam()), key, GetParam()), 1u);
}

TEST_P(AuthenticationTest, AHeaderThatWasBuiltVerifies) {
  EXPECT_EQ(verify(built(GetParam()), key, GetParam()), 1u);
  EXPECT_EQ(verify(built(GetParam(), 0), key, GetParam(), 0), 1u);
}

TEST_P(AuthenticationTest, EveryByteOfHeaderAndDataIsProtected) {
  const Bytes bytes = built(GetParam());
  for (size_t at = 0; at < bytes.size(); at++) {
    Bytes changed = bytes;
    changed[at] ^= 0x10;
    EXPECT_EQ(verify(changed, key, GetParam()), 0u) << at;
  }
}

TEST_P(AuthenticationTest, AnotherLengthOrAnotherKeyDoesNotVerify) {
  const Bytes bytes = built(GetParam());
  EXPECT_EQ(verify(bytes, key, GetParam(), 4), 0u);
  Bytes other = key;
  other[15] ^= 1;
  EXPECT_EQ(verify(bytes, other, GetParam()), 0u);
}

TEST_P(AuthenticationTest, TheOtherAlgorithmDoesNotVerify) {
  EXPECT_EQ(verify(built(GetParam()), key, GetParam() == with_md5 ? with_sha : with_md5), 0u);
}

TEST_P(AuthenticationTest, WithoutDataJustTheHeaderIsCovered) {
  Bytes bytes = built(GetParam(), 0);
  bytes[28] ^= 1;
  EXPECT_EQ(verify(bytes, key, GetParam(), 0), 1u);
}

TEST_P(AuthenticationTest, VerifyingLeavesZerosForTheCheckValue) {
  for (const bool good : {true, false}) {
    Bytes bytes = built(GetParam());
    if (!good) bytes[0] ^= 1;
    Bytes expected = bytes;
    std::fill(expected.begin() + 12, expected.begin() + 28, uint8_t{0});
    EXPECT_EQ(ip_verify_ah_header(bytes.data(), 5, key.data(), GetParam()), good ? 1u : 0u);
    EXPECT_EQ(bytes, expected);
  }
}

TEST_P(AuthenticationTest, TheOtherFieldsOfAReceivedHeaderAreNotLookedAt) {
  Bytes bytes(header_size, 0xee);
  uint8_t digest[16];
  std::fill(bytes.begin() + 12, bytes.end(), uint8_t{0});
  if (GetParam() == with_md5) {
    hmac_md5(bytes.data(), 28, key.data(), 16, digest);
  } else {
    hmac_sha(bytes.data(), 28, key.data(), 19, 16, digest);
  }
  std::copy_n(digest, 16, bytes.begin() + 12);
  EXPECT_EQ(verify(bytes, key, GetParam(), 0), 1u) << "payload length and reserved bytes of 0xee";
}

TEST_P(AuthenticationTest, AHeaderMayLieAtAnyAddress) {
  const Bytes expected = built(GetParam());
  alignas(8) uint8_t room[64] = {};
  for (size_t shift = 1; shift < 8; shift++) {
    const uint8_t data[] = {1, 2, 3, 4, 5};
    std::copy_n(data, 5, room + shift + header_size);
    ip_build_ah_header(room + shift, 89, 0x01020304, 0xa1a2a3a4, 5, key.data(), GetParam());
    EXPECT_EQ(Bytes(room + shift, room + shift + 33), expected) << shift;
    EXPECT_EQ(ip_verify_ah_header(room + shift, 5, key.data(), GetParam()), 1u) << shift;
  }
}

INSTANTIATE_TEST_SUITE_P(Algorithms, AuthenticationTest, testing::Values(with_md5, with_sha),
                         [](const auto &of) { return of.param == with_md5 ? "Md5" : "Sha"; });

using AuthenticationKeyTest = AuthenticationTest;

TEST_F(AuthenticationKeyTest, AnMd5KeyIsAlwaysSixteenBytes) {
  built(with_md5);
  EXPECT_EQ(calls(), (Calls{"hmac_md5(33, 16)"}));
  key[3] = 0;
  const Bytes bytes = built(with_md5);
  Bytes other = key;
  other[4] ^= 1;
  EXPECT_EQ(verify(bytes, other, with_md5), 0u) << "bytes behind a zero count";
  other = key;
  other[16] ^= 1;
  EXPECT_EQ(verify(bytes, other, with_md5), 1u) << "the seventeenth does not";
}

TEST_F(AuthenticationKeyTest, AShaKeyEndsAtItsFirstZero) {
  built(with_sha);
  EXPECT_EQ(calls(), (Calls{"hmac_sha(33, 19, 16)"}));
  key[3] = 0;
  const Bytes bytes = built(with_sha);
  EXPECT_EQ(calls().back(), "hmac_sha(33, 3, 16)");
  Bytes other = key;
  other[4] ^= 1;
  EXPECT_EQ(verify(bytes, other, with_sha), 1u);
  other[2] ^= 1;
  EXPECT_EQ(verify(bytes, other, with_sha), 0u);
}

TEST_F(AuthenticationKeyTest, AnyFlagButZeroMeansMd5) {
  EXPECT_EQ(verify(built(0x80000000), key, with_md5), 1u);
}

}  // namespace
}  // namespace unit
