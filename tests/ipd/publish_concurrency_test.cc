// SPDX-License-Identifier: Apache-2.0
// Questions in threads and in another process while everything around the answers changes: each answer must have been
// true at some time.
//
// What a reader of the lock sees is not reused before it has left, so these questions are asked while each retired
// record comes back as soon as the lock lets it (quarantine 0), the hardest case. A question without the lock has only
// the quarantine: it may find the interface's record, or an address's, reused as that of another interface, and then
// miss an address. That is so when the reader stands still between two loads for longer than the quarantine; with
// quarantine 0 every preemption is long enough. So these questions are asked while nothing is reused.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "im.h"
#include "ipd/publish_system.h"
#include "l3vm.h"
#include "support/process.h"
#include "tsp.h"
#include "unit/random_words.h"

namespace publish_test {
namespace {

constexpr uint32_t permanent = ip(10, 0, 0, 1);    // on interface 2, always a primary
constexpr uint32_t promoted = ip(10, 0, 0, 2);     // on interface 2, always, primary or secondary
constexpr uint32_t handed_over = ip(10, 5, 0, 1);  // on interface 3, on 4, or on both
constexpr uint32_t virtual_one = ip(10, 6, 0, 1);  // always virtual, of 3 or of 4 or of both
constexpr uint32_t travelling = ip(10, 7, 0, 1);   // on interface 5, which moves between contexts 1 and 7
constexpr uint32_t flipping = ip(10, 8, 0, 1);     // on interface 2 or nowhere
constexpr uint32_t stop_word = ip(10, 9, 0, 1);    // there when the readers may stop
constexpr uint32_t never = ip(10, 99, 0, 1);

constexpr uint32_t permanent_group = ip(224, 0, 0, 1);  // on interface 2, always, between others or alone
constexpr uint32_t least_data = 77;                     // of each group; what is added is the group's last byte

// Counters that say of each other what they must be: a torn one would not fit any number.
ipd::MulticastCounters counters(uint32_t number) {
  return {.packets = {number, number + 1, number + 2, number + 3, number + 4},
          .bytes = {uint64_t{number} << 32 | (number ^ 0xffffffffu), uint64_t{number ^ 0xffffffffu} << 32 | number}};
}

bool torn(uint64_t bytes) {
  return static_cast<uint32_t>(bytes >> 32) != (static_cast<uint32_t>(bytes) ^ 0xffffffffu);
}

struct Iods {
  uint32_t port2, port3, port4, port5;
};

bool is(uint32_t answer, std::initializer_list<uint32_t> possible) {
  for (const uint32_t each : possible) {
    if (answer == each) return true;
  }
  return false;
}

// A record stays what it is only while the reader is in the lock: this one is replaced with each new name.
uint32_t table_of_context(uint32_t id) {
  tsp_lock_acquire_rdlock(ip_client.rwsem_lock);
  const ip_api_context_type *record = ip_get_api_context(id);
  const uint32_t table_id = record == nullptr ? 0 : __atomic_load_n(&record->table_id, __ATOMIC_RELAXED);
  tsp_lock_release_rdlock(ip_client.rwsem_lock);
  return table_id;
}

// A round of questions. Null: all answers were possible.
using Round = const char *(const Iods &);

const char *ask_without_lock(const Iods &iods) {
  if (ip_is_address_on_interface(permanent, iods.port2) != 1) return "permanent address not on its interface";
  if (ip_is_address_on_interface(promoted, iods.port2) != 1) return "promoted address not on its interface";
  if (ip_is_address_on_interface(travelling, iods.port5) != 1) return "travelling address not on its interface";
  if (!is(ip_is_address_on_interface(flipping, iods.port2), {0, 1})) return "flipping address on the interface";
  if (ip_is_address_on_interface(never, iods.port2) != 0) return "an address that never was, on the interface";
  return nullptr;
}

const char *ask(const Iods &iods) {
  if (ip_get_iod_for_local_address("default", permanent) != iods.port2) return "permanent address not local";
  if (ip_get_local_mask_len(permanent, iods.port2) != 24) return "mask of the permanent address";
  if (ip_get_local_mask_len(promoted, iods.port2) != 24) return "mask of the promoted address";
  if (ip_get_iod_for_local_address("default", promoted) != iods.port2) return "promoted address not local";
  if (!is(ip_get_iod_for_local_address("default", handed_over), {iods.port3, iods.port4})) return "handed-over address";
  if (!is(ip_get_iod_for_local_address("default", virtual_one), {iods.port3, iods.port4})) return "virtual address";
  if (!is(ip_get_iod_for_local_address("default", flipping), {0, iods.port2})) return "flipping address";
  if (!is(ip_get_iod_for_local_address("default", travelling), {0, iods.port5})) return "travelling address, context 1";
  if (!is(l3vm_if_get_context_id(iods.port5), {1, 7})) return "context of the travelling interface";
  if (ip_get_iod_for_local_address("default", never) != 0) return "an address that never was";
  // Without the lock, but no reuse can make up an address.
  if (ip_is_address_on_interface(never, iods.port2) != 0) return "an address that never was, on the interface";
  // At least permanent and promoted; there is no upper bound: an address that leaves behind the walk and comes back in
  // front of it is counted twice.
  if (ip_get_secondary_count(iods.port2) < 1) return "no secondaries";
  if (!is(ip_allow_directed_broadcast(iods.port2), {0, 1})) return "directed broadcast";
  if (ip_is_multicast_enabled(iods.port2) != 1) return "multicast";
  if (!is(ip_is_iod_unnumbered(iods.port4), {0, 1})) return "unnumbered";
  if (!is(table_of_context(7), {1007, 2007})) return "table of context 7";
  const std::vector<ipd::GroupState> groups = groups_of(iods.port2);
  uint32_t permanent_ones = 0;
  for (const ipd::GroupState &group : groups) {
    if (group.data != least_data + (group.group & 0xff)) return "a group with the data of another";
    if (group.group == permanent_group) ++permanent_ones;
  }
  if (permanent_ones != 1) return "the permanent group";
  // Every list that was ever set is ascending: what is not was put together from two.
  for (size_t i = 1; i < groups.size(); ++i) {
    if (groups[i].group <= groups[i - 1].group) return "a list of groups that never was";
  }
  const auto counted = counters_of(iods.port2);
  if (!counted || torn(counted->bytes[0]) || torn(counted->bytes[1])) return "a torn counter";
  const auto [p1, p2, p3, p4, p5] = counted->packets;
  if (p1 > p2 || p2 > p3 || p3 > p4 || p4 > p5) return "a packet counter that never was";
  ip_ecmp_loadshare_status load_share{};
  if (ip_get_ecmp_loadshare_status(&load_share) != 1 || load_share.value != load_share.mode * 1000u) {
    return "a load-share setting that never was";
  }
  uint32_t vip = 0;
  if (ip_get_best_intf_vip(1, permanent, iods.port3, &vip) == 1 && vip != virtual_one) return "best virtual address";
  uint32_t addr = 0;
  uint8_t len = 0;
  int steps = 0;
  do {
    ip_get_next_secondary(iods.port2, &addr, &len);
    if (addr == never || (addr != 0 && len != 24)) return "a secondary that never was";
  } while (addr != 0 && ++steps < 100);
  if (steps == 100) return "endless secondaries";
  return nullptr;
}

Iods iods_of(const ipd::Publisher &publisher) {
  return {publisher.iod(2), publisher.iod(3), publisher.iod(4), publisher.iod(5)};
}

class Changes {
 public:
  explicit Changes(ipd::Publisher &publisher) : publisher_(publisher) {
    publisher.set_context(default_context);
    publisher.set_context(context(7, "blue"));
    for (const uint32_t ifindex : {2u, 3u, 4u, 5u}) publisher.set_interface(interface(ifindex));
    publisher.set_address(2, primary(permanent, 24));
    publisher.set_address(2, secondary(promoted, 24));
    publisher.set_address(3, primary(handed_over, 32));
    publisher.set_vip({.ifindex = 3, .addr = virtual_one});
    publisher.set_address(5, primary(travelling, 24));
    publisher.set_groups(2, {group_state(0)});
    publisher.set_multicast_counters(2, counters(0));
  }

  void one() {
    const bool add = random_.below(2) == 0;
    const uint32_t other = random_.below(3);
    switch (random_.below(12)) {
      case 0:
        change_address(2, primary(flipping, 24), add);
        break;
      case 1:
        change_address(2, secondary(ip(10, 0, 0, 10) + other, 24), add);
        break;
      case 2:
        publisher_.set_address(2, add ? primary(promoted, 24) : secondary(promoted, 24));
        break;
      case 3:  // the next holder first, then the previous one goes
        hand_over(holder_);
        break;
      case 4:
        publisher_.set_vip({.ifindex = 7 - vip_holder_, .addr = virtual_one});
        publisher_.remove_vip({.ifindex = vip_holder_, .addr = virtual_one});
        vip_holder_ = 7 - vip_holder_;
        break;
      case 5: {
        auto state = interface(5);
        state.context_id = add ? 1 : 7;
        publisher_.set_interface(state);
        break;
      }
      case 6: {
        auto state = interface(2);
        state.directed_broadcast = add;
        state.name = add ? "port2" : "uplink";
        publisher_.set_interface(state);
        break;
      }
      case 7:
        publisher_.set_unnumbered(4, add ? 2 : 0, add ? "port2" : "");
        break;
      case 8:
        change_groups();
        break;
      case 9:  // only upwards, as counters do: a later one that is read later is never less
        publisher_.set_multicast_counters(2, counters(++number_));
        break;
      case 10: {
        const auto mode = static_cast<uint8_t>(1 + other);
        publisher_.set_load_share(mode, mode * 1000u);
        break;
      }
      default:
        publisher_.set_context(
            {.id = 7, .name = add ? "blue" : "green", .table_id = add ? 1007u : 2007u, .router_id = 0});
        break;
    }
    publisher_.commit();
    publisher_.tick(std::chrono::steady_clock::now());
  }

  void finish() {
    publisher_.set_address(3, primary(stop_word, 24));
    publisher_.commit();
  }

 private:
  static ipd::GroupState group_state(uint32_t i) {
    return {.group = permanent_group + i, .data = least_data + ((permanent_group + i) & 0xff)};
  }
  void change_groups() {
    std::vector<ipd::GroupState> groups{group_state(0)};
    for (uint32_t i = 1; i < 8; ++i) {
      if (random_.below(2) == 0) groups.push_back(group_state(i));
    }
    publisher_.set_groups(2, groups);
  }
  void change_address(uint32_t ifindex, const ipd::AddressState &state, bool add) {
    if (add) {
      publisher_.set_address(ifindex, state);
    } else {
      publisher_.remove_address(ifindex, state.addr, state.mask_len);
    }
  }
  void hand_over(uint32_t from) {
    publisher_.set_address(7 - from, primary(handed_over, 32));
    publisher_.remove_address(from, handed_over, 32);
    holder_ = 7 - from;
  }

  ipd::Publisher &publisher_;
  uint32_t holder_ = 3;
  uint32_t vip_holder_ = 3;
  uint32_t number_ = 0;
  unit::RandomWords random_;
};

// Two threads ask while this one makes 6000 changes.
void ask_in_threads(std::chrono::milliseconds quarantine, Round *round) {
  System system(quarantine);
  Changes changes(*system);
  system.go_live();
  const Iods iods = iods_of(*system);
  std::atomic<bool> stop{false};
  std::atomic<const char *> wrong{nullptr};
  std::atomic<uint64_t> rounds{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      while (!stop) {
        if (const char *answer = round(iods); answer != nullptr) wrong = answer;
        ++rounds;
      }
    });
  }
  test_support::wait_until([&] { return rounds > 10; });
  for (int i = 0; i < 6000; ++i) changes.one();
  stop = true;
  for (std::thread &reader : readers) reader.join();
  EXPECT_EQ(wrong.load(), nullptr) << wrong.load();
  EXPECT_GT(rounds.load(), 10u);
}

// Another process asks while this one makes 20000 changes.
void ask_in_another_process(std::chrono::milliseconds quarantine, Round *round) {
  test_support::RunDirectory directory;
  const auto body = [round] {
    if (!attach_when_published()) return 10;
    Iods iods{};
    if (im_get_iod_frm_ifindex(2, &iods.port2) != 0 || im_get_iod_frm_ifindex(3, &iods.port3) != 0 ||
        im_get_iod_frm_ifindex(4, &iods.port4) != 0 || im_get_iod_frm_ifindex(5, &iods.port5) != 0) {
      return 11;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (ip_get_iod_for_local_address("default", stop_word) == 0) {
      if (std::chrono::steady_clock::now() > deadline) return 12;
      if (const char *answer = round(iods); answer != nullptr) {
        fprintf(stderr, "%s\n", answer);
        return 13;
      }
    }
    return 0;
  };
  test_support::Process reader(body);
  std::string reason;
  const auto publisher = ipd::Publisher::open(&reason, quarantine);
  ASSERT_NE(publisher, nullptr) << reason;
  Changes changes(*publisher);
  ASSERT_TRUE(publisher->commit());
  for (int i = 0; i < 20000 && reader.running(); ++i) changes.one();
  changes.finish();
  EXPECT_EQ(reader.wait(std::chrono::seconds(90)), 0) << reader.output();
}

constexpr std::chrono::milliseconds reuse_at_once{0};
constexpr std::chrono::hours no_reuse{1};

TEST(PublishConcurrency, ThreadsGetNoAnswerThatWasNeverTrue) {
  ask_in_threads(reuse_at_once, ask);
}

TEST(PublishConcurrency, ThreadsWithoutTheLockGetNoAnswerThatWasNeverTrue) {
  ask_in_threads(no_reuse, ask_without_lock);
}

TEST(PublishConcurrency, AnotherProcessGetsNoAnswerThatWasNeverTrue) {
  ask_in_another_process(reuse_at_once, ask);
}

TEST(PublishConcurrency, AnotherProcessWithoutTheLockGetsNoAnswerThatWasNeverTrue) {
  ask_in_another_process(no_reuse, ask_without_lock);
}

}  // namespace
}  // namespace publish_test
