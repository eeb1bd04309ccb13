// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/published_addresses.h"

#include "ip_api.h"

namespace ipd::packet {

// Most packets are for an address that is no virtual one, and then no name and no route is asked for.
bool PublishedAddresses::is_local(uint32_t context_id, uint32_t addr) const {
  if (context_id == 0 || ip_is_addr_local_intf(context_id, addr) == 0) return false;
  if (ip_is_addr_local_vip(context_id, addr) == 0) return true;
  return ip_is_addr_local_active(ip_get_api_context_name(context_id), addr) != 0;
}

bool PublishedAddresses::is_broadcast(uint32_t iod, uint32_t addr) const {
  return iod != 0 && ip_is_addr_directed_broadcast(addr, iod) != 0;
}

bool PublishedAddresses::has_context(uint32_t context_id) const {
  return context_id != 0 && ip_get_api_context_name(context_id) != nullptr;
}

}  // namespace ipd::packet
