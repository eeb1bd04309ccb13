// SPDX-License-Identifier: Apache-2.0
// Who holds which prefix of a context: the nodes of its local-address tree, their lists of interfaces, and what a
// router id may be taken from.
#ifndef IPD_PUBLISH_PREFIX_CLAIMS_H
#define IPD_PUBLISH_PREFIX_CLAIMS_H

#include <cstdint>
#include <map>

#include "ipd/publish/picture.h"

namespace ipd {

using Claims = std::map<uint64_t, Claim>;

enum class ClaimKind { address, vip };

// The interface holds the prefix once more. `claims` is the interface's. False: no storage, nothing changed.
[[nodiscard]] bool claim_prefix(rsw::Arena &arena, Context &context, Interface &interface, Claims &claims, uint64_t key,
                                ClaimKind kind);

// Undoes one claim_prefix of the same kind.
void release_prefix(rsw::Arena &arena, Context &context, Claims &claims, uint64_t key, ClaimKind kind);

// Takes out the nodes for which there was no storage when their last holder went.
void bury_abandoned(rsw::Arena &arena, Context &context);

// Undoes all.
void release_all_prefixes(rsw::Arena &arena, Context &context, Claims &claims);

// An address and its subnet, or neither. A /32 is both in one node.
[[nodiscard]] bool claim_address(rsw::Arena &arena, Context &context, Interface &interface, Claims &claims,
                                 const AddressState &address);
void release_address(rsw::Arena &arena, Context &context, Claims &claims, const AddressState &address);

// To be called around a change of the interface's loopback property: before it with false, after it with true.
void count_loopback_claims(Context &context, Interface &interface, bool add);

}  // namespace ipd

#endif
