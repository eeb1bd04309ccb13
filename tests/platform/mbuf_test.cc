// SPDX-License-Identifier: Apache-2.0
// Packet buffers: who owns a packet.
#include "mbuf.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

namespace {

// Buffers point to each other by 32-bit words, so they lie where such a word reaches.
class MbufTest : public testing::Test {
 protected:
  void SetUp() override {
    void *wanted = reinterpret_cast<void *>(uintptr_t{0x74000000});
    memory_ = mmap(wanted, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    ASSERT_EQ(memory_, wanted) << "something else lies there";
    buffers = static_cast<mbuf *>(memory_);
  }
  void TearDown() override {
    if (memory_ != MAP_FAILED) munmap(memory_, size);
  }

  static constexpr size_t size = 4096;
  mbuf *buffers = nullptr;

 private:
  void *memory_ = MAP_FAILED;
};

TEST_F(MbufTest, EveryBufferOfAPacketHasTheNewOwner) {
  buffers[0].next = &buffers[2];
  buffers[2].next = &buffers[1];
  m_set_owner(&buffers[0], -7);
  for (int i = 0; i < 3; i++) EXPECT_EQ(buffers[i].owner, -7) << i;
  EXPECT_EQ(buffers[3].owner, 0);
}

TEST_F(MbufTest, TheNextPacketOfAListKeepsItsOwner) {
  buffers[0].next_packet = &buffers[1];
  m_set_owner(&buffers[0], 4711);
  EXPECT_EQ(buffers[0].owner, 4711);
  EXPECT_EQ(buffers[1].owner, 0);
}

TEST_F(MbufTest, NothingElseOfABufferIsWritten) {
  buffers[0].m_len = 5;
  buffers[0].type = 6;
  buffers[0].hdr_byte = 7;
  buffers[0].hdr_word = 8;
  m_set_owner(&buffers[0], 9);
  EXPECT_EQ(buffers[0].m_len, 5u);
  EXPECT_EQ(buffers[0].type, 6);
  EXPECT_EQ(buffers[0].hdr_byte, 7);
  EXPECT_EQ(buffers[0].hdr_word, 8);
  EXPECT_EQ(buffers[0].data.get(), nullptr);
}

TEST_F(MbufTest, SettingTheOwnerAgainIsHarmless) {
  m_set_owner(&buffers[0], 9);
  m_set_owner(&buffers[0], 9);
  EXPECT_EQ(buffers[0].owner, 9);
}

TEST_F(MbufTest, NoPacketHasNoOwner) {
  m_set_owner(nullptr, 9);
  EXPECT_EQ(buffers[0].owner, 0);
}

}  // namespace
