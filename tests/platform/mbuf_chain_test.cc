// SPDX-License-Identifier: Apache-2.0
// Operations on a packet's chain of buffers: bytes beside a plain vector, and no buffer lost.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <numeric>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "mbuf.h"
#include "mbuf/buffers.h"
#include "mtrack.h"
#include "support/run_directory.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes numbered(size_t count) {
  Bytes bytes(count);
  std::iota(bytes.begin(), bytes.end(), uint8_t{1});
  return bytes;
}

// A packet whose buffers hold these parts.
struct mbuf *chain(const std::vector<Bytes> &parts) {
  struct mbuf *first = nullptr;
  for (auto part = parts.rbegin(); part != parts.rend(); ++part) {
    struct mbuf *buffer = rsw::make_packet(*part);
    buffer->next = first;
    first = buffer;
  }
  return first;
}

Bytes bytes_of(struct mbuf *m) {
  Bytes bytes;
  for (; m != nullptr; m = m->next.get()) bytes.insert(bytes.end(), m->data.get(), m->data.get() + m->m_len);
  return bytes;
}

size_t buffers_of(struct mbuf *m) {
  size_t count = 0;
  for (; m != nullptr; m = m->next.get()) count++;
  return count;
}

// Without a pool: the chains are the same on private buffers.
class MbufChainTest : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(rsw::buffers_in_use(), 0u) << "a buffer is lost, or was given back twice"; }

 private:
  test_support::RunDirectory directory_;
};

TEST_F(MbufChainTest, ABufferLiesWhereA32BitWordReachesAndIsEmpty) {
  struct mbuf *buffer = rsw::take_buffer();
  ASSERT_NE(buffer, nullptr);
  EXPECT_LT(reinterpret_cast<uintptr_t>(buffer), uintptr_t{1} << 31);
  EXPECT_EQ(buffer->m_len, 0u);
  EXPECT_EQ(buffer->next.get(), nullptr);
  EXPECT_EQ(buffer->next_packet.get(), nullptr);
  EXPECT_EQ(buffer->owner, getpid());
  EXPECT_EQ(buffer->data.get(), rsw::buffer_of(buffer)->room + rsw::packet_buffer_front);
  EXPECT_EQ(rsw::buffers_in_use(), 1u);
  m_freem(buffer);
}

TEST_F(MbufChainTest, ABufferThatWasGivenBackIsEmptyAgain) {
  struct mbuf *first = rsw::make_packet(numbered(100));
  first->hdr_byte = 7;
  first->hdr_word = 8;
  m_freem(first);
  struct mbuf *again = rsw::take_buffer();
  EXPECT_EQ(again, first) << "the last one back is the first one out";
  EXPECT_EQ(again->m_len, 0u);
  EXPECT_EQ(again->hdr_byte, 0);
  EXPECT_EQ(again->hdr_word, 0);
  m_freem(again);
}

TEST_F(MbufChainTest, ALargePacketTakesAsManyBuffersAsItNeeds) {
  for (const size_t size : {size_t{0}, size_t{1856}, size_t{1857}, size_t{9000}}) {
    struct mbuf *packet = rsw::make_packet(numbered(size));
    EXPECT_EQ(bytes_of(packet), numbered(size));
    EXPECT_EQ(m_length(packet), size);
    EXPECT_EQ(buffers_of(packet), size <= 1856 ? 1 : (size + 1855) / 1856);
    m_freem(packet);
  }
}

TEST_F(MbufChainTest, TheRoomInFrontIsUsedFirst) {
  struct mbuf *packet = rsw::make_packet(numbered(10));
  const uint8_t *data = packet->data.get();
  ASSERT_EQ(m_prepend(packet, 128, 1), packet);
  EXPECT_EQ(packet->data.get(), data - 128);
  EXPECT_EQ(packet->m_len, 138u);
  m_freem(packet);
}

TEST_F(MbufChainTest, ABufferIsPutInFrontWhenThereIsNoRoom) {
  struct mbuf *packet = m_prepend(rsw::make_packet(numbered(10)), 120, 1);
  packet->hdr_byte = 7;
  packet->hdr_word = 8;
  struct mbuf *longer = m_prepend(packet, 20, 1);
  ASSERT_NE(longer, nullptr);
  EXPECT_NE(longer, packet);
  EXPECT_EQ(longer->m_len, 20u) << "all of them in one buffer";
  EXPECT_EQ(longer->next.get(), packet);
  EXPECT_EQ(longer->hdr_byte, 7) << "the packet's first buffer carries its words";
  EXPECT_EQ(longer->hdr_word, 8);
  EXPECT_EQ(m_prepend(longer, 20, 1), longer) << "there is room in front of those";
  EXPECT_EQ(m_length(longer), 170u);
  m_freem(longer);
}

TEST_F(MbufChainTest, MoreThanABufferHoldsCannotBePrependedNorPulledUp) {
  EXPECT_EQ(m_prepend(rsw::make_packet(numbered(10)), 1985, 1), nullptr);
  EXPECT_EQ(m_prepend(rsw::make_packet(numbered(10)), -1, 1), nullptr);
  EXPECT_EQ(m_pullup(rsw::make_packet(numbered(5000)), 1985), nullptr);
  EXPECT_EQ(m_pullup(rsw::make_packet(numbered(10)), -1), nullptr);
}

TEST_F(MbufChainTest, APullUpTakesBytesAndEmptyBuffersOutOfTheChain) {
  struct mbuf *packet = m_pullup(chain({{1, 2}, {}, {3}, {4, 5, 6}}), 5);
  ASSERT_NE(packet, nullptr);
  EXPECT_EQ(packet->m_len, 5u);
  EXPECT_EQ(bytes_of(packet), (Bytes{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(buffers_of(packet), 2u);
  m_freem(packet);
}

TEST_F(MbufChainTest, WhatIsThereAlreadyIsNotMoved) {
  struct mbuf *packet = chain({{1, 2, 3}, {4}});
  EXPECT_EQ(m_pullup(packet, 3), packet);
  EXPECT_EQ(buffers_of(packet), 2u);
  m_freem(packet);
}

TEST_F(MbufChainTest, APullUpThatNeedsTheWholeRoomMovesTheFirstBytes) {
  struct mbuf *packet = m_pullup(rsw::make_packet(numbered(4000)), 1984);
  ASSERT_NE(packet, nullptr);
  EXPECT_EQ(packet->m_len, 1984u);
  EXPECT_EQ(bytes_of(packet), numbered(4000));
  m_freem(packet);
}

TEST_F(MbufChainTest, APacketThatIsTooShortToPullUpIsFreed) {
  EXPECT_EQ(m_pullup(chain({{1, 2}, {3}}), 4), nullptr);
  EXPECT_EQ(m_pullup(nullptr, 4), nullptr);
}

TEST_F(MbufChainTest, CopiedBytesMayCrossBuffers) {
  struct mbuf *packet = chain({{1, 2}, {}, {3, 4}, {5}});
  for (int32_t offset = 0; offset <= 5; offset++) {
    for (int32_t length = 0; offset + length <= 5; length++) {
      Bytes copy(5, 0);
      EXPECT_EQ(m_copydata(packet, offset, length, copy.data()) & 0xffffu, 0u);
      Bytes expected(5, 0);
      std::copy_n(numbered(5).begin() + offset, length, expected.begin());
      EXPECT_EQ(copy, expected) << offset << " " << length;
    }
  }
  m_freem(packet);
}

TEST_F(MbufChainTest, APartThatIsNotThereIsNotCopied) {
  struct mbuf *packet = chain({{1, 2}, {3}});
  uint8_t copy[8];
  EXPECT_NE(m_copydata(packet, 0, 4, copy) & 0xffffu, 0u);
  EXPECT_NE(m_copydata(packet, 3, 1, copy) & 0xffffu, 0u);
  EXPECT_NE(m_copydata(packet, -1, 1, copy) & 0xffffu, 0u);
  EXPECT_NE(m_copydata(packet, 0, -1, copy) & 0xffffu, 0u);
  EXPECT_NE(m_copydata(nullptr, 0, 1, copy) & 0xffffu, 0u);
  m_freem(packet);
}

struct Vector {
  explicit Vector(struct mbuf *m, uint32_t limit = 8) {
    pieces = m_convert_mbuf_to_iovec_limited(m, limit, &count, &overflow, &total, &copied, &allocated);
  }
  ~Vector() {
    mtrack_free(overflow);
    if (allocated != 0) mtrack_free(pieces);
  }
  Vector(const Vector &) = delete;
  Vector &operator=(const Vector &) = delete;
  [[nodiscard]] Bytes bytes() const {
    Bytes all;
    for (uint32_t i = 0; i < count; i++) {
      const auto *base = static_cast<const uint8_t *>(pieces[i].base);
      all.insert(all.end(), base, base + pieces[i].len);
    }
    return all;
  }
  struct mts_iovec *pieces;
  uint32_t count = 77, total = 77, copied = 77, allocated = 77;
  void *overflow = &count;
};

TEST_F(MbufChainTest, UpToTheLimitEachBufferIsAPiece) {
  struct mbuf *packet = chain({{1}, {2}, {}, {3}, {4}, {5}, {6}, {7}, {8}});
  {
    const Vector vector(packet);
    ASSERT_NE(vector.pieces, nullptr);
    EXPECT_EQ(vector.count, 8u) << "an empty buffer is none";
    EXPECT_EQ(vector.total, 8u);
    EXPECT_EQ(vector.copied, 0u);
    EXPECT_EQ(vector.overflow, nullptr);
    EXPECT_EQ(vector.pieces[0].base, packet->data.get()) << "where it lies";
    EXPECT_EQ(vector.bytes(), numbered(8));
  }
  m_freem(packet);
}

TEST_F(MbufChainTest, WhatExceedsTheLimitIsCopiedIntoOnePiece) {
  struct mbuf *packet = chain({{1}, {2}, {3}, {4}, {5}, {6}, {7}, {8}, {}, {9, 10}});
  {
    const Vector vector(packet);
    ASSERT_NE(vector.pieces, nullptr);
    EXPECT_EQ(vector.count, 8u);
    EXPECT_EQ(vector.total, 10u);
    EXPECT_EQ(vector.copied, 3u);
    EXPECT_EQ(vector.pieces[7].base, vector.overflow);
    EXPECT_EQ(vector.bytes(), numbered(10));
  }
  m_freem(packet);
}

TEST_F(MbufChainTest, AnEmptyPacketHasNoPieces) {
  struct mbuf *packet = chain({{}});
  {
    const Vector vector(packet);
    EXPECT_NE(vector.pieces, nullptr);
    EXPECT_EQ(vector.count, 0u);
    EXPECT_EQ(vector.total, 0u);
  }
  m_freem(packet);
}

TEST_F(MbufChainTest, RandomOperationsKeepTheBytesOfAVector) {
  const uint32_t seed = std::random_device()();
  std::printf("seed %u\n", seed);
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int run = 0; run < 300; run++) {
    Bytes twin = numbered(1 + random() % 4000);
    struct mbuf *packet = rsw::make_packet(twin);
    for (int step = 0; step < 20; step++) {
      if (random() % 2 == 0) {
        const auto bytes = static_cast<int32_t>(random() % 200);
        packet = m_prepend(packet, bytes, 1);
        ASSERT_NE(packet, nullptr);
        for (int32_t i = 0; i < bytes; i++) packet->data.get()[i] = static_cast<uint8_t>(i);
        Bytes front(static_cast<size_t>(bytes));
        std::iota(front.begin(), front.end(), uint8_t{0});
        twin.insert(twin.begin(), front.begin(), front.end());
      } else {
        const auto bytes = static_cast<uint32_t>(random() % std::min<size_t>(twin.size() + 1, 1985));
        packet = m_pullup(packet, static_cast<int32_t>(bytes));
        ASSERT_NE(packet, nullptr);
        ASSERT_GE(packet->m_len, bytes);
      }
      ASSERT_EQ(bytes_of(packet), twin);
    }
    m_freem(packet);
  }
}

TEST_F(MbufChainTest, ThreadsShareTheBuffers) {
  const auto work = [](uint8_t mark) {
    for (int i = 0; i < 2000; i++) {
      const Bytes bytes(3000, mark);
      struct mbuf *packet = rsw::make_packet(bytes);
      ASSERT_EQ(bytes_of(packet), bytes);
      m_freem(packet);
    }
  };
  std::thread other(work, uint8_t{2});
  work(1);
  other.join();
}

// As many packets as a process may have, and then none; what comes back is there again.
TEST_F(MbufChainTest, WhenAllBuffersAreUsedThereIsNone) {
  std::vector<struct mbuf *> all;
  for (struct mbuf *buffer; (buffer = rsw::take_buffer()) != nullptr;) all.push_back(buffer);
  EXPECT_EQ(all.size(), 16384u);
  EXPECT_EQ(std::set(all.begin(), all.end()).size(), all.size());
  EXPECT_EQ(rsw::make_packet(numbered(10)), nullptr);
  m_freem(all.back());
  all.pop_back();
  EXPECT_EQ(rsw::make_packet(numbered(5000)), nullptr) << "one is not enough";
  struct mbuf *full = all.back();
  full->data = rsw::buffer_of(full)->room;
  full->m_len = 10;
  all.pop_back();
  struct mbuf *last = rsw::take_buffer();
  ASSERT_NE(last, nullptr) << "what was taken for it is back";
  EXPECT_EQ(m_prepend(full, 20, 1), nullptr) << "no buffer to put in front: the packet is gone";
  m_freem(last);
  for (struct mbuf *buffer : all) m_freem(buffer);
}

}  // namespace
