// SPDX-License-Identifier: Apache-2.0
// Only needed when the whole list was read again (after lost events, after a dump): single events say themselves what
// changed. Then the common case is "nothing did", and the next common one is "one more at the end".
//
// Kinds do not mix in the list: primaries of one scope stand together, and so do the secondaries. Within a kind both
// lists are walked side by side. As long as they agree nothing is to do; from the first difference on, every address of
// that kind is set anew in the order wanted.
#include "ipd/state/address_plan.h"

#include <map>
#include <utility>

namespace ipd {
namespace {

using Kind = std::pair<bool, uint8_t>;
using Key = std::pair<uint32_t, uint8_t>;

Kind kind_of(const AddressState &address) {
  return {address.secondary, address.secondary ? uint8_t{0} : address.scope};
}
Key key_of(const AddressState &address) {
  return {address.addr, address.mask_len};
}

}  // namespace

AddressPlan plan_addresses(const std::vector<AddressState> &told, const std::vector<AddressState> &wanted) {
  AddressPlan plan;
  std::map<Key, Kind> wanted_kind;
  for (const AddressState &address : wanted) wanted_kind[key_of(address)] = kind_of(address);

  std::map<Kind, std::vector<AddressState>> staying;  // told ones that are wanted, and as the same kind
  std::map<Key, bool> placed;                         // told: true while it stands where it should
  for (const AddressState &address : told) {
    const auto want = wanted_kind.find(key_of(address));
    if (want == wanted_kind.end()) {
      plan.remove.push_back(address);
    } else if (want->second == kind_of(address)) {
      staying[kind_of(address)].push_back(address);
      placed[key_of(address)] = false;
    }
  }
  std::map<Kind, size_t> agreed;
  std::map<Kind, bool> differs;
  for (const AddressState &address : wanted) {
    const Kind kind = kind_of(address);
    const auto &there = staying[kind];
    size_t &next = agreed[kind];
    if (!differs[kind] && next < there.size() && key_of(there[next]) == key_of(address)) {
      placed[key_of(address)] = true;
      if (there[next] != address) plan.set.push_back(address);
      ++next;
      continue;
    }
    differs[kind] = true;
    plan.set.push_back(address);
  }
  for (const AddressState &address : told) {
    const auto stands = placed.find(key_of(address));
    if (stands != placed.end() && !stands->second) plan.remove.push_back(address);
  }
  return plan;
}

}  // namespace ipd
