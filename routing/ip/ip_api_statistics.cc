// SPDX-License-Identifier: Apache-2.0
// Counters and settings that protocols read: groups and PIM asserts of an interface, its multicast counters, how
// equal-cost paths share the load.
//
// The counters lie in the interface's statistics block, which the IP process keeps beside the interface's record and
// counts up in place. So a reader may see one counter before a packet and the next one after it; each by itself is
// whole. A 64-bit counter is two words, because a 32-bit program has no 64-bit load: its high word is read before and
// after the low one, and both times the same high word means that no carry came in between.
//
// The two queries without _orig in their names are kept for programs that call them and do not want the counters.
#include <bit>

#include "byte_order.h"
#include "guard.h"
#include "ip_api.h"
#include "report.h"
#include "walks.h"

namespace libip {
namespace {

// A writer carries into the high word once in 4 GiB: more reads than a few mean that the memory is not a counter's.
constexpr int most_reads = 4;

constexpr bool little_endian = std::endian::native == std::endian::little;

uint64_t read_counter(const ip_counter64 &counter) {
  const uint32_t &high_word = counter.words[little_endian ? 1 : 0];
  const uint32_t &low_word = counter.words[little_endian ? 0 : 1];
  // Acquire, both: the three loads happen in the order in which they stand. The partner is the IP process's store of
  // the counter, which is one store of 64 bits.
  uint32_t high = __atomic_load_n(&high_word, __ATOMIC_ACQUIRE);
  uint32_t low = 0;
  for (int reads = 0; reads < most_reads; reads++) {
    low = __atomic_load_n(&low_word, __ATOMIC_ACQUIRE);
    const uint32_t again = read_word(high_word);
    if (again == high) break;
    high = again;
  }
  return uint64_t{high} << 32 | low;
}

// Mode and value are one setting: the mode is read before and after the value, as the high word of a counter is.
void read_load_share(const ip_root &root, ip_ecmp_loadshare_status &result) {
  for (int reads = 0; reads < most_reads; reads++) {
    // Acquire, both: as above. The partner is the IP process's one store of mode and value.
    const uint8_t mode = __atomic_load_n(&root.ecmp_loadshare_mode, __ATOMIC_ACQUIRE);
    result.mode = mode;
    result.value = swapped(__atomic_load_n(&root.ecmp_loadshare_value, __ATOMIC_ACQUIRE));
    if (read_byte(root.ecmp_loadshare_mode) == mode) return;
  }
}

// Stores a counter for a caller who wants it.
void hand_out(uint32_t *wanted, const uint32_t &counter) {
  if (wanted != nullptr) *wanted = read_word(counter);
}
void hand_out(uint64_t *wanted, const ip_counter64 &counter) {
  if (wanted != nullptr) *wanted = read_counter(counter);
}

// The statistics block of an interface; null: none. The interface's record names it by its first byte.
const ip_if_stats *statistics_of(const ip_iftype &interface) {
  return reinterpret_cast<const ip_if_stats *>(follow(interface.stats));
}

// A question to the statistics block of an interface, which then answers 1; 0 without a block.
template <class Question>
uint32_t ask_statistics(uint32_t iod, Question question) {
  return ask_interface(iod, 0u, [&question](const ip_iftype &interface) -> uint32_t {
    const ip_if_stats *statistics = statistics_of(interface);
    if (statistics == nullptr) return 0;
    question(*statistics);
    return 1;
  });
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_get_pim_assert_sent_count(uint32_t iod) {
  using namespace libip;
  if (!attached()) {
    report(msg_error_IP_IP_INTERNAL_ERROR, "IP API not initialised when calling ip_get_pim_assert_sent_count()");
    return 0;
  }
  return ask_interface(iod, 0u, [](const ip_iftype &interface) { return read_word(interface.pim_assert_sent); });
}

void ip_get_each_group(uint32_t iod, uint32_t (*callback)(uint32_t group, uint32_t group_data, uint32_t arg),
                       uint32_t arg) {
  using namespace libip;
  if (iod == 0 || callback == nullptr) return;
  const ReadGuard guard;
  const ip_iftype *interface = interface_record(iod);
  if (interface == nullptr) return;
  for (const ip_maddrtype &group : groups_of(*interface)) {
    if (callback(read_word(group.group), read_word(group.group_data), arg) != 0) return;
  }
}

uint32_t ip_get_ecmp_loadshare_status(ip_ecmp_loadshare_status *result) {
  using namespace libip;
  if (!attached()) {
    report(msg_error_IP_IP_INTERNAL_ERROR, "IP API not initialised when calling ip_get_ecmp_loadshare_status()");
    return 0;
  }
  if (ip_api_data == nullptr) return 0;
  const ReadGuard guard;
  read_load_share(*static_cast<const ip_root *>(ip_api_data), *result);
  return 1;
}

uint32_t ip_get_mcast_pkt_stats_orig(uint32_t iod, uint32_t *c1, uint32_t *c2, uint32_t *c3, uint32_t *c4,
                                     uint32_t *c5) {
  using namespace libip;
  return ask_statistics(iod, [=](const ip_if_stats &statistics) {
    hand_out(c1, statistics.mcast_packets1);
    hand_out(c2, statistics.mcast_packets2);
    hand_out(c3, statistics.mcast_packets3);
    hand_out(c4, statistics.mcast_packets4);
    hand_out(c5, statistics.mcast_packets5);
  });
}

uint32_t ip_get_mcast_byte_stats_orig(uint32_t iod, uint64_t *b1, uint64_t *b2) {
  using namespace libip;
  return ask_statistics(iod, [=](const ip_if_stats &statistics) {
    hand_out(b1, statistics.mcast_bytes1);
    hand_out(b2, statistics.mcast_bytes2);
  });
}

uint32_t ip_get_mcast_pkt_stats(uint32_t, uint32_t *, uint32_t *, uint32_t *, uint32_t *, uint32_t *) {
  return 0;
}

uint32_t ip_get_mcast_byte_stats(uint32_t, uint64_t *, uint64_t *) {
  return 0;
}

}  // extern "C"
