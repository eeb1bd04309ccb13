// SPDX-License-Identifier: Apache-2.0
// Questions in threads and in another process while everything around the answers changes: each answer must have been
// true at some time.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "im.h"
#include "ipd/publish_system.h"
#include "l3vm.h"
#include "support/process.h"

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

struct Iods {
  uint32_t port2, port3, port4, port5;
};

// One round of questions. Null: all answers were possible.
const char *ask(const Iods &iods) {
  const auto is = [](uint32_t answer, std::initializer_list<uint32_t> possible) {
    for (const uint32_t each : possible) {
      if (answer == each) return true;
    }
    return false;
  };
  if (ip_get_iod_for_local_address("default", permanent) != iods.port2) return "permanent address not local";
  if (ip_is_address_on_interface(permanent, iods.port2) != 1) return "permanent address not on its interface";
  if (ip_get_local_mask_len(permanent, iods.port2) != 24) return "mask of the permanent address";
  if (ip_get_local_mask_len(promoted, iods.port2) != 24) return "mask of the promoted address";
  if (ip_get_iod_for_local_address("default", promoted) != iods.port2) return "promoted address not local";
  if (!is(ip_get_iod_for_local_address("default", handed_over), {iods.port3, iods.port4})) return "handed-over address";
  if (!is(ip_get_iod_for_local_address("default", virtual_one), {iods.port3, iods.port4})) return "virtual address";
  if (!is(ip_get_iod_for_local_address("default", flipping), {0, iods.port2})) return "flipping address";
  if (!is(ip_get_iod_for_local_address("default", travelling), {0, iods.port5})) return "travelling address, context 1";
  if (ip_is_address_on_interface(travelling, iods.port5) != 1) return "travelling address not on its interface";
  if (!is(l3vm_if_get_context_id(iods.port5), {1, 7})) return "context of the travelling interface";
  if (ip_get_iod_for_local_address("default", never) != 0) return "an address that never was";
  if (ip_is_address_on_interface(never, iods.port2) != 0) return "an address that never was, on the interface";
  // At least permanent and promoted; there is no upper bound: an address that leaves behind the walk and comes back in
  // front of it is counted twice.
  if (ip_get_secondary_count(iods.port2) < 1) return "no secondaries";
  if (!is(ip_allow_directed_broadcast(iods.port2), {0, 1})) return "directed broadcast";
  if (ip_is_multicast_enabled(iods.port2) != 1) return "multicast";
  if (!is(ip_is_iod_unnumbered(iods.port4), {0, 1})) return "unnumbered";
  const ip_api_context_type *blue = ip_get_api_context(7);
  if (blue == nullptr || !is(__atomic_load_n(&blue->table_id, __ATOMIC_RELAXED), {1007, 2007}))
    return "table of context 7";
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
  }

  void one() {
    const bool add = random() % 2 == 0;
    const auto other = static_cast<uint32_t>(random() % 3);
    switch (random() % 9) {
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
  uint32_t random() { return static_cast<uint32_t>(engine_()); }
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
  std::mt19937 engine_{std::random_device()()};
};

TEST(PublishConcurrency, ThreadsGetNoAnswerThatWasNeverTrue) {
  System system;
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
        if (const char *answer = ask(iods); answer != nullptr) wrong = answer;
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

TEST(PublishConcurrency, AnotherProcessGetsNoAnswerThatWasNeverTrue) {
  test_support::RunDirectory directory;
  const auto body = [] {
    if (!attach_when_published()) return 10;
    Iods iods{};
    if (im_get_iod_frm_ifindex(2, &iods.port2) != 0 || im_get_iod_frm_ifindex(3, &iods.port3) != 0 ||
        im_get_iod_frm_ifindex(4, &iods.port4) != 0 || im_get_iod_frm_ifindex(5, &iods.port5) != 0) {
      return 11;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (ip_get_iod_for_local_address("default", stop_word) == 0) {
      if (std::chrono::steady_clock::now() > deadline) return 12;
      if (const char *answer = ask(iods); answer != nullptr) {
        fprintf(stderr, "%s\n", answer);
        return 13;
      }
    }
    return 0;
  };
  test_support::Process reader(body);
  std::string reason;
  const auto publisher = ipd::Publisher::open(&reason, std::chrono::milliseconds(0));
  ASSERT_NE(publisher, nullptr) << reason;
  Changes changes(*publisher);
  ASSERT_TRUE(publisher->commit());
  for (int i = 0; i < 20000 && reader.running(); ++i) changes.one();
  changes.finish();
  EXPECT_EQ(reader.wait(), 0) << reader.output();
}

}  // namespace
}  // namespace publish_test
