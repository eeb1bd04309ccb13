// SPDX-License-Identifier: Apache-2.0
// Whose is an address of a context, as its tree of local addresses knows it: held by an interface, virtual, active; and
// which address comes next.
//
// A virtual address is one that this system holds only while it is the active one of several. The tree says that an
// address is virtual, the URIB says whether it is active: there is a live local route for it then. The questions about
// one address are one lookup and differ on purpose:
//
//                                  the context is   starts the URIB late   answers for
//   ip_is_addr_local_intf          an id            no                     any address
//   ip_is_addr_local_vip           an id            yes                    virtual ones, active or not
//   ip_is_addr_local_active        a name           yes                    others, and virtual ones that are active
//
// Walks meet the nodes in ascending order; nodes that are not of 32 bits are subnets and are passed over. A walk goes
// on after the key where it stands, so it may see the tree change, but does not turn back; it ends after max_steps in
// any case.
//
// The URIB's lock is taken inside this library's, by ip_urib_is_addr_active_local.
#include "guard.h"
#include "ip_api.h"
#include "ip_api_urib.h"
#include "local_tree.h"
#include "walks.h"

namespace libip {
namespace {

// What the context knows about exactly this address; null: nothing, or no context. Under the guard.
const ip_local_addr_info *info_in(const ip_api_context_type *context, uint32_t addr) {
  if (context == nullptr) return nullptr;
  void *tree = context->local_pt;
  return tree == nullptr ? nullptr : info_of_address(tree, addr);
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_is_addr_local_intf(uint32_t context_id, uint32_t addr) {
  using namespace libip;
  if (!attached() || context_id == 0) return 0;
  const ReadGuard guard;
  const ip_local_addr_info *info = info_in(ip_get_api_context(context_id), addr);
  return info == nullptr ? 0 : first_iod(*info);
}

uint32_t ip_is_addr_local_vip(uint32_t context_id, uint32_t addr) {
  using namespace libip;
  start_urib();
  if (!attached() || context_id == 0) return 0;
  const ReadGuard guard;
  const ip_local_addr_info *info = info_in(ip_get_api_context(context_id), addr);
  return info == nullptr || info->vip == 0 ? 0 : first_iod(*info);
}

uint32_t ip_is_addr_local_active(const char *name, uint32_t addr) {
  using namespace libip;
  start_urib();
  if (!attached() || name == nullptr) return 0;
  const ReadGuard guard;
  const ip_api_context_type *context = ip_get_api_context_by_name(name);
  const ip_local_addr_info *info = info_in(context, addr);
  if (info == nullptr) return 0;
  if (info->vip != 0 && ip_urib_is_addr_active_local(context->table_id, addr) == 0) return 0;
  return first_iod(*info);
}

uint32_t ip_is_addr_local(const char *name, uint32_t addr) {
  return ip_is_addr_local_active(name, addr);
}

uint32_t ip_get_active_local_address(uint32_t context_id) {
  using namespace libip;
  if (!attached() || context_id == 0) return 0;
  const ip_api_context_type *context = ip_get_api_context(context_id);
  if (context == nullptr || context->local_pt.get() == nullptr) return 0;
  const ReadGuard guard;
  if (!attached()) return 0;
  void *tree = context->local_pt;
  TreeKey key{};
  uint32_t key_bits = 0;
  uint32_t left = max_steps;
  for (const void *node = pt_get_first_node(tree, &key, &key_bits, 0); node != nullptr && left != 0;
       node = pt_get_next_node(tree, &key, &key_bits, 0), left--) {
    if (key_bits != address_bits) continue;
    const ip_local_addr_info *info = info_of(node);
    if (info == nullptr) continue;
    const uint32_t iod = first_iod(*info);
    if (iod == 0 || im_is_if_up(iod) == 0) continue;
    const uint32_t addr = swapped(key.addr_net);
    if (info->vip == 0 || ip_urib_is_addr_active_local(context->table_id, addr) != 0) return addr;
  }
  return 0;
}

uint32_t ip_get_next_address(const char *name, uint32_t addr) {
  using namespace libip;
  if (name == nullptr) return 0;
  const ReadGuard guard;
  const ip_api_context_type *context = ip_get_api_context_by_name(name);
  if (context == nullptr) return 0;
  void *tree = context->local_pt;
  if (tree == nullptr) return 0;
  TreeKey key = key_of(addr);
  uint32_t key_bits = address_bits;
  for (uint32_t left = max_steps; left != 0; left--) {
    if (pt_get_next_node(tree, &key, &key_bits, 0) == nullptr) return 0;
    if (key_bits == address_bits) return swapped(key.addr_net);
  }
  return 0;
}

uint32_t ip_get_next_all_address(const char *name, uint32_t addr) {
  return ip_get_next_address(name, addr);
}

}  // extern "C"
