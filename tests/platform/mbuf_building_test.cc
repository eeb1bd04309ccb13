// SPDX-License-Identifier: Apache-2.0
// Packets that are built piece by piece, and shown to a developer.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "log/log_writer.h"
#include "mbuf.h"
#include "mbuf/buffers.h"
#include "support/run_directory.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct MbufBuildingTest : testing::Test {
  static Bytes numbered(size_t count) {
    Bytes bytes(count);
    std::iota(bytes.begin(), bytes.end(), uint8_t{1});
    return bytes;
  }
  static Bytes bytes_of(const struct mbuf *m) {
    Bytes bytes;
    for (; m != nullptr; m = m_next(m)) bytes.insert(bytes.end(), m_bytes(m), m_bytes(m) + m->m_len);
    return bytes;
  }
  static std::string dump(const char *title, struct mbuf *m) {
    setenv("RSW_DEBUG", "1", 1);
    rsw::read_log_environment();
    testing::internal::CaptureStderr();
    mbuf_dump(title, m, 0, 0);
    const std::string text = testing::internal::GetCapturedStderr();
    unsetenv("RSW_DEBUG");
    rsw::read_log_environment();
    return text;
  }
  static std::string hex(const void *pointer) {
    char text[16];
    snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer)));
    return text;
  }

  test_support::RunDirectory directory;
};

TEST_F(MbufBuildingTest, ANewPacketIsOneOwnBufferWithoutBytesAndWithRoomInFront) {
  struct mbuf *packet = m_gethdr();
  ASSERT_NE(packet, nullptr);
  EXPECT_EQ(m_length(packet), 0u);
  EXPECT_EQ(m_next(packet), nullptr);
  EXPECT_EQ(packet->owner, getpid());
  EXPECT_EQ(m_bytes(packet) - rsw::buffer_of(packet)->room, static_cast<ptrdiff_t>(rsw::packet_buffer_front));
  m_freem(packet);
}

TEST_F(MbufBuildingTest, BytesAreAddedBehindTheLastWhereverThatLies) {
  struct mbuf *packet = m_gethdr();
  Bytes expected;
  for (const size_t count : {size_t{0}, size_t{1}, size_t{1855}, size_t{1}, size_t{1984}, size_t{5000}, size_t{7}}) {
    const Bytes more = numbered(count);
    ASSERT_EQ(m_append(packet, more.data(), static_cast<uint32_t>(count)), 1u);
    expected.insert(expected.end(), more.begin(), more.end());
    ASSERT_EQ(bytes_of(packet), expected);
  }
  m_freem(packet);
  EXPECT_EQ(rsw::buffers_in_use(), 0u);
}

TEST_F(MbufBuildingTest, BuffersThatAreAddedBelongToWhomThePacketDoes) {
  struct mbuf *packet = m_gethdr();
  m_set_owner(packet, 1);
  const Bytes bytes = numbered(4000);
  ASSERT_EQ(m_append(packet, bytes.data(), 4000), 1u);
  for (const struct mbuf *each = packet; each != nullptr; each = m_next(each)) EXPECT_EQ(each->owner, 1);
  m_freem(packet);
}

TEST_F(MbufBuildingTest, WithoutABufferThePacketStaysAsItWas) {
  struct mbuf *packet = m_gethdr();
  const Bytes bytes = numbered(100);
  ASSERT_EQ(m_append(packet, bytes.data(), 100), 1u);
  std::vector<struct mbuf *> all;
  for (struct mbuf *each; (each = m_gethdr()) != nullptr;) all.push_back(each);
  const Bytes more = numbered(3000);
  EXPECT_EQ(m_append(packet, more.data(), 3000), 0u);
  EXPECT_EQ(bytes_of(packet), bytes);
  EXPECT_EQ(m_append(packet, more.data(), 1000), 1u) << "there is room for these";
  m_freem(packet);
  for (struct mbuf *each : all) m_freem(each);
}

TEST_F(MbufBuildingTest, ADumpShowsThePacketItsBuffersAndTheirBytes) {
  struct mbuf *packet = m_gethdr();
  const Bytes bytes = numbered(18);
  ASSERT_EQ(m_append(packet, bytes.data(), 18), 1u);
  packet->next = rsw::make_packet(Bytes{0xab});
  const std::string text = dump("lost", packet);
  const std::string owner = ", owner " + std::to_string(getpid()) + "\n";
  size_t at = 0;
  for (const std::string &line :
       {"lost: packet " + hex(packet) + ", 19 bytes\n", "  buffer " + hex(packet) + ": 18 bytes" + owner,
        std::string("    0000: 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10\n"), std::string("    0010: 11 12\n"),
        "  buffer " + hex(m_next(packet)) + ": 1 bytes" + owner, std::string("    0000: ab\n")}) {
    const size_t found = text.find(line, at);
    ASSERT_NE(found, std::string::npos) << line << "in\n" << text;
    at = found + line.size();
  }
  EXPECT_EQ(at, text.size());
  m_freem(packet);
}

TEST_F(MbufBuildingTest, ADumpOfNoPacketSaysSo) {
  EXPECT_NE(dump("lost", nullptr).find("lost: no packet\n"), std::string::npos);
}

}  // namespace
