// SPDX-License-Identifier: Apache-2.0
// The fake platform itself: what other tests rely on without seeing it.
#include <cstdio>
#include <cstring>

#include "fake_platform/console.h"
#include "fake_platform/packets.h"
#include "mtrack.h"
#include "mts.h"
#include "pt.h"
#include "sysmgr.h"
#include "tsp.h"
#include "unit/library_test.h"
#include "urib.h"

namespace unit {
namespace {

using FakePlatformTest = LibraryTest;
using Bytes = std::vector<uint8_t>;

TEST_F(FakePlatformTest, RecordsLieBelowFourGibibytes) {
  auto *record = platform().memory.make<ip_addrtype>();
  const auto where = reinterpret_cast<uintptr_t>(record);
  EXPECT_EQ(where, static_cast<uint32_t>(where));
  EXPECT_GE(where, platform().memory.bottom());
  EXPECT_LT(where, platform().memory.top() - 4096);
  ip_shm_ptr<ip_addrtype> pointer{};
  pointer = record;
  EXPECT_EQ(pointer.get(), record);
}

TEST_F(FakePlatformTest, MemoryIsZeroAgainAfterAReset) {
  auto *block = static_cast<uint8_t *>(platform().memory.allocate(5000));
  memset(block, 0xff, 5000);
  platform().memory.reset();
  auto *again = static_cast<uint8_t *>(platform().memory.allocate(5000));
  EXPECT_EQ(Bytes(again, again + 5000), Bytes(5000, 0));
}

TEST_F(FakePlatformTest, ScriptsAnswerTheCallTheyNameAndNoOther) {
  platform().supervisor_state = 1;
  platform().scripts.answer_call("sysmgr_supstate_get", 2, 77);
  platform().scripts.fail_call("sysmgr_supstate_get", 3);
  EXPECT_EQ(sysmgr_supstate_get(), 1u);
  EXPECT_EQ(sysmgr_supstate_get(), 77u);
  EXPECT_EQ(sysmgr_supstate_get(), 0u);
  EXPECT_EQ(sysmgr_supstate_get(), 1u);
}

TEST_F(FakePlatformTest, AScriptCountsFromTheMomentItIsGiven) {
  sysmgr_supstate_get();
  platform().scripts.answer_call("sysmgr_supstate_get", 1, 5);
  EXPECT_EQ(sysmgr_supstate_get(), 5u);
}

TEST_F(FakePlatformTest, AnswersThatNobodyAskedForAreNamed) {
  platform().scripts.fail("no_such_function");
  platform().scripts.answer_call("sm_open", 2, 0);
  EXPECT_EQ(platform().scripts.unused(), (Calls{"no_such_function", "sm_open, call 2"}));
  platform().scripts.reset();
}

TEST_F(FakePlatformTest, AReleaseWithoutItsAcquisitionIsSeen) {
  tsp_lock_release_rdlock(3);
  EXPECT_TRUE(platform().locks.released_unheld);
  tsp_lock_acquire_rdlock(3);
  platform().locks.released_unheld = false;
}

TEST_F(FakePlatformTest, ADatabaseLockUnderUribsIsSeen) {
  tsp_lock_acquire_rdlock(3);
  urib_acquire_rdlock();
  EXPECT_FALSE(platform().locks.taken_in_wrong_order);
  tsp_lock_acquire_rdlock(3);
  EXPECT_TRUE(platform().locks.taken_in_wrong_order);
  tsp_lock_release_rdlock(3);
  urib_release_rdlock();
  tsp_lock_release_rdlock(3);
  platform().locks.taken_in_wrong_order = false;
}

TEST_F(FakePlatformTest, ARouteThatIsUsedWithoutItsLockIsSeen) {
  platform().routes.push_back({.table = 20, .addr = 1, .first_iod = 5});
  urib_acquire_rdlock();
  void *route = urib_get_best_route(20, 1, 0, 0);
  EXPECT_EQ(urib_route_first_bnh_iod_get(route), 5u);
  urib_release_rdlock();
  EXPECT_FALSE(platform().locks.route_used_unlocked);
  EXPECT_EQ(urib_route_first_bnh_iod_get(route), 5u);
  EXPECT_TRUE(platform().locks.route_used_unlocked);
  platform().locks.route_used_unlocked = false;
}

TEST_F(FakePlatformTest, APathEndsInTheTableThatItsRouteLeadsTo) {
  platform().routes.push_back({.table = 20, .length = 0, .first_iod = 5});
  platform().routes.push_back({.table = 20, .addr = 1, .first_iod = 6, .path_table = 30});
  urib_path path = {.iod = 1, .table_id = 2, .next_hop = 3, .reserved = {}};
  uint32_t words[2] = {};
  EXPECT_NE(urib_get_path_v2(20, 2, 0, 0, 0, &path, &words[0], &words[1], 1), 0u);
  EXPECT_EQ(path.iod, 5u);
  EXPECT_EQ(path.table_id, 20u);
  EXPECT_NE(urib_get_path_v2(20, 1, 0, 0, 0, &path, &words[0], &words[1], 1), 0u);
  EXPECT_EQ(path.iod, 6u);
  EXPECT_EQ(path.table_id, 30u);
  EXPECT_EQ(urib_get_path_v2(21, 1, 0, 0, 0, &path, &words[0], &words[1], 1), 0u);
  ASSERT_EQ(platform().paths_handed_in.size(), 3u);
  EXPECT_EQ(platform().paths_handed_in[0].next_hop, 3u) << "as it was on entry";
}

TEST_F(FakePlatformTest, StandardOutputIsCaptured) {
  fake_platform::ConsoleCapture console;
  printf("one %d\n", 2);
  EXPECT_EQ(console.text(), "one 2\n");
}

TEST_F(FakePlatformTest, TrackedBlocksAreListedUntilTheyAreFreed) {
  void *block = mtrack_alloc(267, 1, 232);
  ASSERT_EQ(platform().allocations.count(block), 1u);
  EXPECT_EQ(platform().allocations[block].size, 232u);
  mtrack_free(block);
  EXPECT_TRUE(platform().allocations.empty());
  platform().scripts.fail("mtrack_alloc");
  EXPECT_EQ(mtrack_alloc(267, 1, 232), nullptr);
}

TEST_F(FakePlatformTest, MessagesAreKeptAndRepliesHandedOut) {
  char payload[] = "ping";
  EXPECT_GE(mts_send(5, 0, 263, 0x14c01, payload, 4, nullptr, 0, nullptr), 0);
  ASSERT_EQ(platform().sent.size(), 1u);
  EXPECT_EQ(platform().sent[0].payload, (Bytes{'p', 'i', 'n', 'g'}));
  mts_msg_ref_t reply = nullptr;
  EXPECT_LT(mts_recv(5, &reply, nullptr), 0) << "nothing waits";
  platform().replies.push_back({.opcode = 7, .payload = {1, 2, 3}});
  ASSERT_GE(mts_recv(5, &reply, nullptr), 0);
  EXPECT_EQ(mts_opc_get(reply), 7u);
  EXPECT_EQ(mts_payload_size(reply), 3u);
  EXPECT_EQ(mts_drop(5, reply), 0);
  EXPECT_EQ(mts_payload_size(reply), 0u) << "a dropped message is empty";
}

// ------------------------------------------------------------ packets

TEST_F(FakePlatformTest, APulledUpPacketHasTheSameBytes) {
  struct mbuf *packet = fake_platform::packet_chain({{1, 2}, {3}, {4, 5, 6}});
  EXPECT_EQ(m_length(packet), 6u);
  ASSERT_EQ(m_pullup(packet, 4), packet);
  EXPECT_EQ(packet->m_len, 4u);
  EXPECT_EQ(fake_platform::packet_bytes(packet), (Bytes{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(m_pullup(packet, 7), nullptr) << "longer than the packet: freed";
  EXPECT_EQ(packet->owner, -1);
}

TEST_F(FakePlatformTest, PrependedBytesStandInFront) {
  struct mbuf *packet = fake_platform::packet_buffer(Bytes{9});
  ASSERT_EQ(m_prepend(packet, 2, 1), packet);
  packet->data.get()[0] = 7;
  packet->data.get()[1] = 8;
  EXPECT_EQ(fake_platform::packet_bytes(packet), (Bytes{7, 8, 9}));
}

TEST_F(FakePlatformTest, CopiedBytesMayCrossBuffers) {
  struct mbuf *packet = fake_platform::packet_chain({{1, 2}, {3, 4}});
  uint8_t copy[2] = {};
  EXPECT_EQ(m_copydata(packet, 1, 2, copy), 0u);
  EXPECT_EQ(copy[0], 2);
  EXPECT_EQ(copy[1], 3);
  EXPECT_NE(m_copydata(packet, 3, 2, copy), 0u);
}

TEST_F(FakePlatformTest, ALongChainEndsInAnOverflowBlock) {
  struct mbuf *packet = fake_platform::packet_chain({{1}, {2}, {3}, {4}});
  uint32_t count = 0, total = 0, copied = 0, allocated = 0;
  void *overflow = nullptr;
  struct mts_iovec *vector = m_convert_mbuf_to_iovec_limited(packet, 3, &count, &overflow, &total, &copied, &allocated);
  ASSERT_NE(vector, nullptr);
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(total, 4u);
  EXPECT_EQ(copied, 2u);
  EXPECT_EQ(vector[2].base, overflow);
  EXPECT_EQ(memcmp(overflow, "\3\4", 2), 0);
  mtrack_free(overflow);
  mtrack_free(vector);
}

// ------------------------------------------------------------ trees

class FakeTreeTest : public LibraryTest {
 protected:
  FakeTreeTest() {
    auto *context = database.context(2, "red");
    tree = context->local_pt.get();
    wide = database.node(context, address(10, 0, 0, 0), {}, {.length = 8});
    host = database.node(context, address(10, 1, 0, 1), {});
    narrow = database.node(context, address(10, 1, 0, 0), {}, {.length = 16});
  }
  struct Key {
    explicit Key(uint32_t addr) { words[0] = in_network_order(addr); }
    [[nodiscard]] uint32_t addr() const { return in_network_order(words[0]); }
    uint32_t words[4] = {};
  };

  void *tree;
  void *wide, *host, *narrow;
};

TEST_F(FakeTreeTest, ExactLookupComparesTheLengthToo) {
  const Key key(address(10, 0, 0, 0));
  EXPECT_EQ(pt_lookup(tree, &key, 8, 1), wide);
  EXPECT_EQ(pt_lookup(tree, &key, 9, 1), nullptr);
}

TEST_F(FakeTreeTest, NodesComeInKeyOrder) {
  Key key(address(255, 0, 0, 0));
  uint32_t length = 32;
  EXPECT_EQ(pt_get_first_node(tree, &key, &length, 0), wide) << "what the buffers held does not matter";
  EXPECT_EQ(length, 8u);
  EXPECT_EQ(pt_get_next_node(tree, &key, &length, 0), narrow);
  EXPECT_EQ(pt_get_next_node(tree, &key, &length, 0), host);
  EXPECT_EQ(key.addr(), address(10, 1, 0, 1));
  EXPECT_EQ(pt_get_next_node(tree, &key, &length, 0), nullptr);
  EXPECT_EQ(key.addr(), address(10, 1, 0, 1)) << "left alone at the end";
}

TEST_F(FakeTreeTest, CoveringNodesComeShortestFirst) {
  Key key(address(10, 1, 0, 1));
  void *nodes[33] = {};
  uint32_t count = 0;
  pt_lookup_return_leafs(tree, &key, 32, nodes, &count);
  ASSERT_EQ(count, 3u);
  EXPECT_EQ(nodes[0], wide);
  EXPECT_EQ(nodes[1], narrow);
  EXPECT_EQ(nodes[2], host);
}

TEST_F(FakeTreeTest, TheFirstMoreSpecificNodeHandsOutItsKey) {
  Key key(address(10, 0, 0, 0));
  EXPECT_EQ(pt_lookup_more_specific(tree, &key, 8), narrow);
  EXPECT_EQ(key.addr(), address(10, 1, 0, 0));
  Key other(address(11, 0, 0, 0));
  EXPECT_EQ(pt_lookup_more_specific(tree, &other, 8), nullptr);
}

TEST_F(FakeTreeTest, ANodeKnowsItsKey) {
  Key key(0);
  uint32_t length = 0;
  pt_get_key(narrow, &key, &length);
  EXPECT_EQ(key.addr(), address(10, 1, 0, 0));
  EXPECT_EQ(length, 16u);
}

}  // namespace
}  // namespace unit
