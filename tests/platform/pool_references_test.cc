// SPDX-License-Identifier: Apache-2.0
// Packets that a client names by reference: what is good is read, and nothing else is followed. The test's process
// plays ipd and, where no other one is needed, the client: the client's buffers then belong to a process id of their
// own.
#include <gtest/gtest.h>

#include <random>

#include "pool_rig.h"

namespace {

using namespace pool_rig;
using rsw::PacketReading;

// No process has it: the greatest that there can be is one less than 2^22.
constexpr int32_t client = 0x3fffff;

class References : public PoolTest {
 protected:
  // A packet of the client with `size` bytes.
  static struct mbuf *packet_of(size_t size) {
    struct mbuf *packet = rsw::make_packet(numbered(size));
    EXPECT_NE(packet, nullptr);
    m_set_owner(packet, client);
    return packet;
  }

  PacketReading read(uint32_t reference, int32_t owner = client) {
    return rsw::read_packet(reference, owner, room_, &length_, &words_);
  }
  PacketReading read(const struct mbuf *m) { return read(reference_of(m)); }

  [[nodiscard]] Bytes copied() const {
    Bytes bytes;
    for (size_t i = 0; i < length_; i++) bytes.push_back(std::to_integer<uint8_t>(room_[i]));
    return bytes;
  }

  std::vector<std::byte> room_ = std::vector<std::byte>(rsw::longest_packet_bytes);
  size_t length_ = 77;
  rsw::PacketWords words_;
};

TEST_F(References, AChainsBytesAndWordsAreRead) {
  struct mbuf *packet = packet_of(5000);
  packet->hdr_byte = 7;
  packet->hdr_word = 0x1234;
  EXPECT_EQ(read(packet), PacketReading::ok);
  EXPECT_EQ(copied(), numbered(5000));
  EXPECT_EQ(words_.hdr_byte, 7);
  EXPECT_EQ(words_.hdr_word, 0x1234);
  EXPECT_EQ(rsw::free_packet_of(reference_of(packet), client), 3u);
  EXPECT_EQ(in_use(), 0u);
}

TEST_F(References, APacketWithoutBytesIsOne) {
  struct mbuf *packet = packet_of(0);
  EXPECT_EQ(read(packet), PacketReading::ok);
  EXPECT_EQ(length_, 0u);
  rsw::free_packet_of(reference_of(packet), client);
}

TEST_F(References, WhatIsOutsideThePoolIsNotFollowed) {
  const uint32_t base = rsw::pool::window_base;
  for (const uint32_t reference : {0u, 1u, 0x1000u, 0x60000000u, base, base + 4096, base + 0x70000, base - 2048,
                                   base + rsw::pool::window_bytes, 0x7c000000u, 0x80000000u, 0xfffff800u}) {
    EXPECT_EQ(read(reference), PacketReading::not_in_pool) << std::hex << reference;
    EXPECT_EQ(rsw::free_packet_of(reference, client), 0u);
  }
  EXPECT_EQ(length_, 0u);
}

TEST_F(References, GroupsThatWereNeverUsedAreNotFollowed) {
  struct mbuf *packet = packet_of(10);
  EXPECT_EQ(read(reference_of(packet) + rsw::pool::group_bytes), PacketReading::not_in_pool);
  rsw::free_packet_of(reference_of(packet), client);
}

TEST_F(References, AMisalignedReferenceIsNone) {
  struct mbuf *packet = packet_of(10);
  for (const uint32_t off : {1u, 4u, 64u, 1024u, 2047u}) {
    EXPECT_EQ(read(reference_of(packet) + off), PacketReading::not_in_pool) << off;
  }
  rsw::free_packet_of(reference_of(packet), client);
}

TEST_F(References, AnotherProcessesPacketIsRefusedAndNotFreed) {
  struct mbuf *packet = packet_of(10);
  EXPECT_EQ(read(reference_of(packet), client - 1), PacketReading::not_owned);
  EXPECT_EQ(rsw::free_packet_of(reference_of(packet), client - 1), 0u);
  EXPECT_EQ(in_use(), 1u);
  rsw::free_packet_of(reference_of(packet), client);
}

TEST_F(References, AFreeBufferIsNobodys) {
  struct mbuf *packet = packet_of(10);
  EXPECT_EQ(rsw::free_packet_of(reference_of(packet), client), 1u);
  EXPECT_EQ(read(packet), PacketReading::not_owned);
  EXPECT_EQ(rsw::free_packet_of(reference_of(packet), client), 0u) << "once";
  EXPECT_EQ(report().damaged, 0u);
}

TEST_F(References, AChainIntoSomebodyElsesBufferIsDamaged) {
  struct mbuf *packet = packet_of(5000);
  struct mbuf *foreign = rsw::make_packet(numbered(10));
  struct mbuf *rest = packet->next->next;
  packet->next->next = foreign;
  EXPECT_EQ(read(packet), PacketReading::damaged);
  EXPECT_EQ(rsw::free_packet_of(reference_of(packet), client), 2u) << "up to there they are its own";
  EXPECT_EQ(in_use(), 2u);
  EXPECT_EQ(foreign->owner, getpid());
  m_freem(foreign);
  rsw::free_packet_of(reference_of(rest), client);
}

TEST_F(References, AChainOutOfThePoolIsDamaged) {
  struct mbuf *packet = packet_of(10);
  for (const uint32_t next : {4u, 0x7c000000u, reference_of(packet) + 1, 0xffffffffu}) {
    packet->next.word = next;
    EXPECT_EQ(read(packet), PacketReading::damaged) << std::hex << next;
  }
  EXPECT_EQ(rsw::free_packet_of(reference_of(packet), client), 1u);
}

TEST_F(References, AChainWithoutEndIsDamagedAndFreedOnce) {
  struct mbuf *packet = packet_of(3000);
  packet->m_len = 0;
  packet->next->m_len = 0;
  packet->next->next = packet;
  EXPECT_EQ(read(packet), PacketReading::damaged);
  EXPECT_EQ(rsw::free_packet_of(reference_of(packet), client), 2u);
  EXPECT_EQ(in_use(), 0u);
  EXPECT_EQ(report().damaged, 0u);
}

TEST_F(References, BytesOutsideTheBuffersRoomAreDamaged) {
  struct mbuf *packet = packet_of(10);
  const uint32_t room = reference_of(packet) + 64;
  const struct {
    uint32_t data, length;
    PacketReading result;
  } rows[] = {
      {room, 1984, PacketReading::ok},
      {room + 1984, 0, PacketReading::ok},
      {room, 1985, PacketReading::damaged},
      {room - 1, 1, PacketReading::damaged},
      {room + 1984, 1, PacketReading::damaged},
      {room + 1985, 0, PacketReading::damaged},
      {0, 0, PacketReading::damaged},
      {room, 0xffffffff, PacketReading::damaged},
      {room + 10, 0xfffffff6, PacketReading::damaged},
      {reference_of(packet), 24, PacketReading::damaged},
  };
  for (const auto &row : rows) {
    packet->data.word = row.data;
    packet->m_len = row.length;
    EXPECT_EQ(read(packet), row.result) << std::hex << row.data << " " << row.length;
  }
  rsw::free_packet_of(reference_of(packet), client);
}

TEST_F(References, TheLongestPacketIsReadAndNoLongerOne) {
  struct mbuf *packet = packet_of(65535);
  EXPECT_EQ(read(packet), PacketReading::ok);
  EXPECT_EQ(length_, 65535u);
  EXPECT_EQ(copied(), numbered(65535));
  struct mbuf *last = packet;
  while (m_next(last) != nullptr) last = m_next(last);
  last->m_len++;
  EXPECT_EQ(read(packet), PacketReading::too_long);
  EXPECT_EQ(length_, 0u);
  last->m_len--;
  EXPECT_EQ(rsw::read_packet(reference_of(packet), client, std::span(room_).first(65534), &length_),
            PacketReading::too_long);
  EXPECT_EQ(rsw::free_packet_of(reference_of(packet), client), 36u);
  EXPECT_EQ(in_use(), 0u);
}

TEST_F(References, APacketThatIsTakenOverIsTheCallers) {
  struct mbuf *packet = packet_of(5000);
  EXPECT_EQ(rsw::take_packet_over(reference_of(packet), client), 3u);
  EXPECT_EQ(rsw::take_packet_over(reference_of(packet), client), 0u);
  EXPECT_EQ(read(packet), PacketReading::not_owned);
  EXPECT_EQ(m_packet_at(reference_of(packet)), packet);
  m_freem(packet);
  EXPECT_EQ(in_use(), 0u);
}

TEST_F(References, WithoutAPoolEveryReferenceIsForeign) {
  rsw::mbuf_leave();
  EXPECT_EQ(read(rsw::pool::window_base + 0x80000), PacketReading::not_in_pool);
  EXPECT_EQ(rsw::take_packet_over(rsw::pool::window_base + 0x80000, client), 0u);
}

// What a process without pool sends lies where no other process has a buffer.
TEST_F(References, APrivateBufferIsForeign) {
  struct mbuf *own = nullptr;
  rsw::mbuf_leave();
  ASSERT_EQ(unlink((directory_.path() + "/mbuf").c_str()), 0);
  own = rsw::take_buffer();
  open();
  EXPECT_EQ(read(reference_of(own), getpid()), PacketReading::not_in_pool);
  m_freem(own);
}

// The sender goes on writing into its packet: whatever it writes, reading ends, without a fault, with one of the
// results.
TEST_F(References, ASenderThatWritesMeanwhileCannotLeadAnywhere) {
  const uint32_t seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  struct mbuf *packet = packet_of(20000);
  std::vector<struct mbuf *> buffers;
  for (struct mbuf *m = packet; m != nullptr; m = m_next(m)) buffers.push_back(m);
  for (int round = 0; round < 20000; round++) {
    struct mbuf *m = buffers[random() % buffers.size()];
    const uint32_t near = reference_of(buffers[random() % buffers.size()]) +
                          (random() % 3 == 0 ? static_cast<uint32_t>(random()) % 4096 : 0);
    const uint32_t value = random() % 4 == 0 ? static_cast<uint32_t>(random()) : near;
    switch (random() % 4) {
      case 0:
        m->next.word = value;
        break;
      case 1:
        m->data.word = value;
        break;
      case 2:
        m->m_len = random() % 2 == 0 ? value : static_cast<uint32_t>(random()) % 4096;
        break;
      default:
        m->owner = random() % 4 == 0 ? static_cast<int32_t>(random()) : client;
    }
    const PacketReading result = read(buffers[random() % buffers.size()]);
    ASSERT_LE(result, PacketReading::too_long);
    ASSERT_LE(length_, rsw::longest_packet_bytes);
  }
  for (struct mbuf *m : buffers) {
    m->next = nullptr;
    m->owner = getpid();
    m_freem(m);
  }
  EXPECT_EQ(in_use(), 0u);
}

}  // namespace
