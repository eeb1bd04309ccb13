// SPDX-License-Identifier: Apache-2.0
// Questions to a context: which interface holds an address, which virtual address has an interface, is an address local
// as far as the URIB knows.
//
// The first two go to the context's tree of local addresses. It is the tree library's, a node at a time: the key is the
// address in network order, 32 bits long, and a node leads to what is known about the address. A tree changes by one
// store of its root, so one lookup sees one whole tree; a walk from node to node may see it change in between, and then
// goes on after the key where it stands.
//
// ip_get_iod_for_local_address stands in inner loops: one context lookup, one tree lookup, three words of the node.
// ip_get_iod_for_local saves the context lookup and says nothing about what is wrong. It starts URIB without asking it
// anything: its callers go on to route queries that count on that.
#include "guard.h"
#include "ip_api.h"
#include "ip_api_urib.h"
#include "local_tree.h"
#include "report.h"
#include "urib.h"
#include "walks.h"

namespace libip {
namespace {

constexpr uint32_t dead_next_hop = 0xdeadbeef;

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_get_iod_for_local_address(const char *name, uint32_t addr) {
  using namespace libip;
  return ask_tree_of_context(name, [addr](void *tree) -> uint32_t {
    const ip_local_addr_info *info = info_of_address(tree, addr);
    return info == nullptr ? 0 : first_iod(*info);
  });
}

uint32_t ip_get_alliod_for_address(const char *name, uint32_t addr) {
  return ip_get_iod_for_local_address(name, addr);
}

uint32_t ip_get_iod_for_local(struct ip_api_context_type *context, uint32_t addr) {
  using namespace libip;
  start_urib();
  if (!attached()) return 0;
  const ReadGuard guard;
  if (!attached() || context == nullptr) return 0;
  void *tree = context->local_pt;
  if (tree == nullptr) return 0;
  const ip_local_addr_info *info = info_of_address(tree, addr);
  return info == nullptr ? 0 : first_iod(*info);
}

uint32_t ip_get_best_intf_vip(uint32_t context_id, uint32_t addr, uint32_t iod, uint32_t *out) {
  using namespace libip;
  if (out == nullptr) return 0;
  const ReadGuard guard;
  const ip_api_context_type *context = ip_get_api_context(context_id);
  if (context == nullptr) return 0;
  void *tree = context->local_pt;
  if (tree == nullptr) return 0;
  // The tree library does not look at what the buffers hold at the start.
  TreeKey key = key_of(addr);
  uint32_t key_bits = ip_get_local_mask_len(addr, iod);
  uint32_t left = max_steps;
  for (const void *node = pt_get_first_node(tree, &key, &key_bits, 0); node != nullptr && left != 0;
       node = pt_get_next_node(tree, &key, &key_bits, 0), left--) {
    const ip_local_addr_info *info = info_of(node);
    if (info == nullptr || read_word(info->vip) == 0) continue;
    *out = swapped(key.addr_net);
    if (first_iod(*info) == iod) return 1;
  }
  return 0;
}

uint32_t ip_urib_is_addr_active_local(uint32_t table_id, uint32_t addr) {
  using namespace libip;
  uint32_t active = 0;
  if (table_id != 0) {
    urib_acquire_rdlock();
    void *route = urib_get_best_route(table_id, addr, 0, 0);
    if (route != nullptr && urib_is_route_local(route) != 0 &&
        urib_route_first_bnh_nib_data_get(route) != dead_next_hop) {
      active = 1;
    }
  }
  // Released for table 0 as well, where it was not taken: the URIB client counts on the pair of calls it always saw.
  urib_release_rdlock();
  return active;
}

}  // extern "C"
