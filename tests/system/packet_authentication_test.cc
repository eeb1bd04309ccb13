// SPDX-License-Identifier: Apache-2.0
// The authentication header on the wire, as tshark reads it and as python computes its check value.
#include <optional>
#include <string>
#include <vector>

#include "ipd_fixture.h"
#include "packet_wire.h"

namespace {

using ipd_test::IpdTest;
using test_support::PacketWire;

constexpr const char *key = "0123456789abcdef";
constexpr const char *data = "00112233445566778899aabbccddeeff";

// HMAC-MD5 (RFC 2403) of the header, its check value zero, and the data.
std::string check_value(const std::string &header_and_data) {
  std::string output;
  const int status = test_support::run(
      {"python3", "-c",
       "import hmac, sys; print(hmac.new(sys.argv[1].encode(), bytes.fromhex(sys.argv[2]), 'md5').hexdigest())", key,
       header_and_data},
      &output);
  return status == 0 ? output.substr(0, output.find('\n')) : "python3 failed: " + output;
}

class PacketAuthenticationTest : public IpdTest {
 protected:
  test_support::PeerNamespace peer_;
};

TEST_F(PacketAuthenticationTest, AHeaderOfTheLibraryIsReadByOthers) {
  const std::string problem = test_support::connect("va", "10.0.0.1/24", peer_, "vb", "10.0.0.2/24");
  ASSERT_TRUE(problem.empty()) << problem;
  start_ipd();
  attach();
  expect_same_as_kernel();
  PacketWire wire(
      peer_, "vb", "ah",
      {"ip.proto", "ip.len", "ip.checksum.status", "ah.next_header", "ah.length", "ah.spi", "ah.sequence", "ah.icv"});
  ASSERT_TRUE(wire.captures("10.0.0.2")) << wire.output();
  for (const char *carriage : {"reference", "segments"}) {
    std::string output;
    ASSERT_EQ(test_support::run({OUTPUT_CLIENT, "attach", carriage, "ah", "0x01020304", "7", key, "10.0.0.1",
                                 "10.0.0.2", data, "output", "va", "0.0.0.0", "0", "0"},
                                &output),
              0)
        << output;
    EXPECT_NE(output.find("output 1"), std::string::npos) << output;
  }
  // Next header 253, a length of 7 words less 2, reserved, SPI, sequence number, 16 zeros, and the data.
  const std::string icv = check_value(std::string("fd050000") + "01020304" + "00000007" + std::string(32, '0') + data);
  ASSERT_EQ(icv.size(), 32u) << icv;
  auto seen = wire.wait_for(2);
  ASSERT_EQ(seen.size(), 2u) << wire.output() << ipd_.output();
  for (auto &packet : seen) {
    EXPECT_EQ(packet["ip.proto"], "51");
    EXPECT_EQ(packet["ip.len"], "64");
    EXPECT_EQ(packet["ip.checksum.status"], "1");
    EXPECT_EQ(packet["ah.next_header"], "253");
    EXPECT_EQ(packet["ah.length"], "5");
    EXPECT_EQ(packet["ah.spi"], "0x01020304");
    EXPECT_EQ(packet["ah.sequence"], "7");
    EXPECT_EQ(packet["ah.icv"], icv);
  }
}

}  // namespace
