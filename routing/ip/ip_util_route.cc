// SPDX-License-Identifier: Apache-2.0
// Questions that a route answers: by which interface is an address reached, attached, local, and which source address
// does a packet to it carry.
//
// They differ in which lookup they make and which kind of route counts:
//
//   query                      lookup                   counts     starts URIB  reports
//   ip_is_route_direct         longest, direct only     any        no           no
//   ip_get_iod_from_addr       longest, direct only     any        yes          no
//   ip_is_addr_attached        longest, direct only     attached   no           yes
//   ip_is_addr_on_iod          longest, direct only     any        yes          no
//   ip_is_addr_local_in_urib   longest of all           local      yes          no
//   ip_get_iod_for_address     exactly the address      local      yes          no
//   ip_get_iod_for_subnet      exactly the prefix       attached   yes          no
//   ip_get_route               the whole path           any        yes          no
//
// So an address of this system is direct, but not attached: its own route is a local one. Those that do not start URIB
// are asked by modules that started it themselves; without it there is no route.
//
// The first best next hop of no route is interface 0: a lookup's result is handed on unchecked where any kind counts.
#include "byte_order.h"
#include "ip_api.h"
#include "ip_api_urib.h"
#include "l3vm.h"
#include "report.h"
#include "routes.h"

namespace libip {
namespace {

using IsOfKind = uint32_t(void *);

// The first interface of a direct route of any kind. Under the URIB's lock, as the next one.
uint32_t direct_iod(uint32_t table, uint32_t addr) {
  return urib_route_first_bnh_iod_get(urib_get_best_direct_route(table, addr));
}

// The first interface of a route, if there is one and it is of that kind.
uint32_t iod_of_kind(void *route, IsOfKind *is_of_kind) {
  return route != nullptr && is_of_kind(route) != 0 ? urib_route_first_bnh_iod_get(route) : 0;
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_is_route_direct(const char *name, uint32_t addr) {
  using namespace libip;
  return ask_table(table_of(name), [addr](uint32_t table) { return direct_iod(table, addr); });
}

uint32_t ip_get_iod_from_addr(const char *name, uint32_t addr) {
  libip::start_urib();
  return ip_is_route_direct(name, addr);
}

uint32_t ip_is_addr_attached(const char *name, uint32_t addr) {
  using namespace libip;
  if (name == nullptr) {
    report(msg_error_IP_IP_INTERNAL_ERROR, "context name not specified");
    return 0;
  }
  if (ip_api_attached == 0) {
    report(msg_error_IP_IP_INTERNAL_ERROR, "IP API not initialized");
    return 0;
  }
  const ip_api_context_type *context = ip_get_api_context_by_name(name);
  if (context == nullptr) {
    report_formatted(msg_error_IP_IP_INTERNAL_ERROR, "Failed to get ctxt_type for context %s", name);
    return 0;
  }
  const uint32_t context_table = read_word(context->table_id);
  if (context_table == 0) {
    report_formatted(msg_error_IP_IP_INTERNAL_ERROR, "Bad table_id for context %s", name);
    return 0;
  }
  return ask_table(context_table, [addr](uint32_t table) {
    return iod_of_kind(urib_get_best_direct_route(table, addr), urib_is_route_attached);
  });
}

uint32_t ip_is_addr_on_iod(const void *, uint32_t addr, uint32_t iod) {
  using namespace libip;
  start_urib();
  const uint32_t interface_table = l3vm_if_get_table_id(iod, 1, "base");
  // Nobody knows yet where the interface belongs: it gets the benefit of the doubt.
  if (interface_table == 0) return iod;
  return ask_table(interface_table,
                   [addr, iod](uint32_t table) -> uint32_t { return direct_iod(table, addr) == iod ? 1 : 0; });
}

uint32_t ip_is_addr_local_in_urib(const char *name, uint32_t addr) {
  using namespace libip;
  start_urib();
  return ask_table(table_of(name), [addr](uint32_t table) {
    return iod_of_kind(urib_get_best_route(table, addr, 0, 0), urib_is_route_local);
  });
}

uint32_t ip_get_iod_for_address(const char *name, uint32_t addr) {
  using namespace libip;
  start_urib();
  return ask_table(table_of(name), [addr](uint32_t table) {
    return iod_of_kind(urib_get_route(table, addr, host_route), urib_is_route_local);
  });
}

uint32_t ip_get_iod_for_subnet(const char *name, uint32_t addr, uint8_t len) {
  using namespace libip;
  start_urib();
  return ask_table(table_of(name), [addr, len](uint32_t table) {
    return iod_of_kind(urib_get_route(table, addr, len), urib_is_route_attached);
  });
}

uint32_t ip_get_route(uint32_t context_id, uint32_t dest_net, uint32_t *iod) {
  using namespace libip;
  start_urib();
  const uint32_t dest = swapped(dest_net);
  const ip_api_context_type *context = ip_get_api_context(context_id);
  if (context == nullptr || ip_is_addr_multicast(dest) != 0 || iod == nullptr) return 0;
  const uint32_t table = read_word(context->table_id);
  if (table == 0) return 0;
  // The path is a copy, and its lookup takes the lock by itself: none is held here.
  urib_path path{};
  uint32_t platform_words[2] = {};
  if (urib_get_path_v2(table, dest, 0, 0, 0, &path, &platform_words[0], &platform_words[1], 1) == 0) return 0;
  *iod = path.iod;
  // A route that another context leaked: the interface is not one of this context, its addresses are not to be used.
  const uint32_t source = path.table_id == table ? ip_get_best_local_addr(path.iod, dest) : 0;
  return source != 0 ? source : ip_get_active_local_address(context_id);
}

}  // extern "C"
