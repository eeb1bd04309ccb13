// SPDX-License-Identifier: Apache-2.0
// Patricia trees in shared memory: prefixes of 32 bits, found exactly, by cover, or in order.
//
// A tree is named by its handle, an address in a shared segment; a node is a record of the tree's owner whose first 12
// bytes belong to the tree (struct ip_local_addr_node in libip). A writer changes a tree while clients read it: one
// call answers from one state of the tree, two calls may differ by what was changed between them.
//
// A key is given by address and stands in network order; its buffer has 16 bytes, so that the same calls can serve
// longer keys. A length is in bits, 0 to 32. Key order is ascending; a prefix stands before the longer ones with the
// same bits.
//
// For all calls: Threads: any. Blocks: no. Owns: nothing; a node is good as long as the lock that guards the tree is
// held (for IP the database lock, taken before the call). A tree, node or key that is null finds nothing.
#ifndef RSW_PT_H
#define RSW_PT_H

#include "contract.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// The node of exactly this prefix.
//   tree          the handle
//   key           the prefix; bits beyond len are not looked at
//   len           its length, by value
// Results: the node. Null: the prefix is not in the tree.
void *pt_lookup(void *tree, const void *key, uint32_t len, uint32_t one);

// All nodes whose prefix covers this one, itself included: shortest first.
//   tree          the handle
//   key, len      the prefix
//   nodes         out: room for 33 of them
//   count         out: how many there are, 0 to 33
// Results: nonzero: at least one. 0: none; *count is 0.
uint32_t pt_lookup_return_leafs(void *tree, void *key, uint32_t len, void **nodes, uint32_t *count);

// The first node, in key order, whose prefix lies inside this one and is longer.
//   tree          the handle
//   key           the prefix; out: the key of the node that is returned, else as it was
//   len           its length, by value
// Results: the node. Null: nothing more specific is in the tree.
void *pt_lookup_more_specific(void *tree, void *key, uint32_t len);

// The first node in key order.
//   key, len      out: its prefix; what they held is not looked at, and stays when there is no node
// Results: the node. Null: the tree is empty.
void *pt_get_first_node(void *tree, void *key, uint32_t *len, uint32_t zero);

// The next node in key order, strictly after a prefix, which need not be in the tree. A loop that goes on with what it
// was given ends, whatever the writer does meanwhile.
//   key, len      the prefix; out: the returned node's, else as they were
// Results: the node. Null: there is none after it.
void *pt_get_next_node(void *tree, void *key, uint32_t *len, uint32_t zero);

// The prefix of a node.
//   node          as one of the calls above returned it
//   key, len      out; not null
void pt_get_key(void *node, void *key, uint32_t *len);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
