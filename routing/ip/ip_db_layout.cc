// SPDX-License-Identifier: Apache-2.0
// The layout hash of the shared database.
//
// The IP process stamps its segment with RSW_LAYOUT_IP_DB, and the platform refuses a client that was built with
// another value. So the value has to change whenever a record does, and nobody may forget it: here it is computed from
// the records themselves, and the build stops when the constant in sm.h is not what comes out. The records are made of
// words of fixed width, hence both widths compute the same value; a 32-bit and a 64-bit client may share a segment.
//
// To change a record: change ip_db.h and the rows below, then put the value that the failed assertion prints into sm.h.
#include <cstddef>
#include <cstdint>

#include "ip_db.h"

namespace libip {
namespace {

// FNV-1a, 32 bits, over the words given: spreads a change of any offset or size over the whole value.
constexpr uint32_t fnv1a(uint32_t hash, uint32_t word) {
  for (unsigned shift = 0; shift < 32; shift += 8) hash = (hash ^ ((word >> shift) & 0xffu)) * 16777619u;
  return hash;
}

template <class... Words>
constexpr uint32_t hash_of(Words... words) {
  uint32_t hash = 2166136261u;
  ((hash = fnv1a(hash, static_cast<uint32_t>(words))), ...);
  return hash;
}

#define SIZE_OF(record) sizeof(record)
#define FIELD(record, field) offsetof(record, field), sizeof(record::field)

constexpr uint32_t layout_hash = hash_of(
    SIZE_OF(ip_addrtype), FIELD(ip_addrtype, next), FIELD(ip_addrtype, addr), FIELD(ip_addrtype, mask_len),

    SIZE_OF(ip_maddrtype), FIELD(ip_maddrtype, next), FIELD(ip_maddrtype, group), FIELD(ip_maddrtype, group_data),

    SIZE_OF(ip_unnumbered), FIELD(ip_unnumbered, name),

    SIZE_OF(ip_counter64), SIZE_OF(ip_if_stats), FIELD(ip_if_stats, mcast_packets1), FIELD(ip_if_stats, mcast_packets2),
    FIELD(ip_if_stats, mcast_bytes1), FIELD(ip_if_stats, mcast_packets3), FIELD(ip_if_stats, mcast_bytes2),
    FIELD(ip_if_stats, mcast_packets5), FIELD(ip_if_stats, mcast_packets4),

    SIZE_OF(ip_iftype), FIELD(ip_iftype, addr_list), FIELD(ip_iftype, unnum_src_iod), FIELD(ip_iftype, unnum_data),
    FIELD(ip_iftype, group_list), FIELD(ip_iftype, directed_bcast), FIELD(ip_iftype, mcast_enabled),
    FIELD(ip_iftype, pim_assert_sent), FIELD(ip_iftype, stats), FIELD(ip_iftype, vaddr_count),
    FIELD(ip_iftype, fwd_enabled),

    SIZE_OF(ip_api_context_type), FIELD(ip_api_context_type, next), FIELD(ip_api_context_type, context_id),
    FIELD(ip_api_context_type, name), FIELD(ip_api_context_type, table_id), FIELD(ip_api_context_type, local_pt),
    FIELD(ip_api_context_type, router_id), FIELD(ip_api_context_type, router_id_iod),

    SIZE_OF(ip_root), FIELD(ip_root, contexts), FIELD(ip_root, second_part), FIELD(ip_root, ecmp_loadshare_mode),
    FIELD(ip_root, ecmp_loadshare_value),

    SIZE_OF(ip_iod_elem), FIELD(ip_iod_elem, iod),

    SIZE_OF(ip_local_addr_info), FIELD(ip_local_addr_info, iod_list), FIELD(ip_local_addr_info, vip),

    SIZE_OF(ip_local_addr_node), FIELD(ip_local_addr_node, pt_links), FIELD(ip_local_addr_node, info));

#undef FIELD
#undef SIZE_OF

// The value in the message of a failed assertion: LayoutHashIs<computed>::expected is not the constant.
template <uint32_t computed>
struct LayoutHashIs {
  static constexpr bool expected = computed == RSW_LAYOUT_IP_DB;
  static_assert(expected, "ip_db.h changed: put the value of `computed` into RSW_LAYOUT_IP_DB, sm.h");
};
static_assert(LayoutHashIs<layout_hash>::expected);

}  // namespace
}  // namespace libip
