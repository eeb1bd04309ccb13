// SPDX-License-Identifier: Apache-2.0
// A context's tree of local addresses, as its readers see it.
//
// The tree is the tree library's: a node is found by a prefix in network order. Addresses that an interface holds are
// nodes of 32 bits, its subnets are shorter ones. What lies behind a node is this library's: what is known about the
// prefix, and the interfaces that hold it. Either may be missing.
#ifndef IP_LOCAL_TREE_H
#define IP_LOCAL_TREE_H

#include "byte_order.h"
#include "guard.h"
#include "pt.h"
#include "report.h"
#include "walks.h"

namespace libip {

inline constexpr uint32_t address_bits = 32;

// A key of the tree library, which asks for 16 bytes of room.
struct TreeKey {
  uint32_t addr_net;
  uint32_t room[3];
};
static_assert(sizeof(TreeKey) == 16);

inline TreeKey key_of(uint32_t addr) {
  return {swapped(addr), {}};
}

// What is known about the prefix of a node; null: nothing. `node` may be null.
inline const ip_local_addr_info *info_of(const void *node) {
  return node == nullptr ? nullptr : follow(static_cast<const ip_local_addr_node *>(node)->info);
}

// The first interface that holds the prefix; null: none.
inline const ip_iod_elem *first_holder(const ip_local_addr_info &info) {
  return follow(info.iod_list);
}

// Its iod; 0: none.
inline uint32_t first_iod(const ip_local_addr_info &info) {
  const ip_iod_elem *holder = first_holder(info);
  return holder == nullptr ? 0 : holder->iod;
}

// What is known about exactly this address; null: nothing. Under the guard.
inline const ip_local_addr_info *info_of_address(void *tree, uint32_t addr) {
  const TreeKey key = key_of(addr);
  return info_of(pt_lookup(tree, &key, address_bits, 1));
}

// A question to the local tree of a named context, under the guard: 0 with the reason in the log or in the error text
// when there is no such tree.
template <class Question>
inline uint32_t ask_tree_of_context(const char *name, Question question, const char *query = __builtin_FUNCTION()) {
  clear_error_text();
  if (name == nullptr) {
    report(msg_error_IP_IP_INTERNAL_ERROR, "context name not specified");
    return 0;
  }
  if (!attached()) {
    report(msg_error_IP_IP_INTERNAL_ERROR, "client not attached");
    return 0;
  }
  const ReadGuard guard(query);
  const ip_api_context_type *context = ip_get_api_context_by_name(name);
  if (context == nullptr) {
    set_error_text("Failed to get ctxt_type for context %s", name);
    return 0;
  }
  void *tree = context->local_pt;
  if (tree == nullptr) {
    set_error_text("Local PT not found for context %s", name);
    return 0;
  }
  return question(tree);
}

}  // namespace libip

#endif
