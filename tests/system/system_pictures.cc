// SPDX-License-Identifier: Apache-2.0
#include "system_pictures.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "im.h"
#include "im/im_writer.h"
#include "ip_api.h"
#include "ip_db.h"
#include "support/process.h"
#include "tsp.h"

namespace test_support {
namespace {

struct Interface {
  std::string name;
  bool up = false, admin_up = false, loopback = false, multicast = false;
  uint32_t mtu = 0;
  std::string addresses;
};

std::string print(const std::map<uint32_t, Interface> &interfaces) {
  std::string out;
  for (const auto &[ifindex, interface] : interfaces) {
    out += std::to_string(ifindex) + " " + interface.name + " mtu " + std::to_string(interface.mtu);
    if (interface.up) out += " up";
    if (interface.admin_up) out += " admin-up";
    if (interface.loopback) out += " loopback";
    if (interface.multicast) out += " multicast";
    out += "\n" + interface.addresses;
  }
  return out;
}

std::string address_line(const std::string &address, unsigned mask_len) {
  return "    " + address + "/" + std::to_string(mask_len) + "\n";
}

}  // namespace

std::string kernels_picture() {
  std::string text;
  if (run({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip -j addr"}, &text) != 0) return "";
  std::map<uint32_t, Interface> interfaces;
  for (const auto &link : nlohmann::json::parse(text)) {
    if (!link.contains("ifindex")) continue;  // ip prints an empty object for a link that has gone meanwhile
    Interface interface;
    const auto has = [&link](const char *flag) {
      return std::find(link["flags"].begin(), link["flags"].end(), flag) != link["flags"].end();
    };
    interface.name = link["ifname"];
    interface.admin_up = has("UP");
    interface.up = has("UP") && !has("NO-CARRIER");
    interface.loopback = has("LOOPBACK");
    interface.multicast = has("MULTICAST");
    interface.mtu = link["mtu"];
    for (const auto &address : link["addr_info"]) {
      if (address["family"] != "inet") continue;
      const bool has_peer = address.contains("address") && address["address"] != address["local"];
      const std::string line = address_line(address["local"], has_peer ? 32 : address["prefixlen"].get<unsigned>());
      // Addresses that differ in their peers only are one to readers, at the place of the first.
      if (interface.addresses.find(line) == std::string::npos) interface.addresses += line;
    }
    interfaces[link["ifindex"]] = interface;
  }
  return print(interfaces);
}

std::string published_picture() {
  std::map<uint32_t, Interface> interfaces;
  tsp_lock_acquire_rdlock(ip_client.rwsem_lock);
  for (uint32_t iod = rsw::im_next_iod(0); iod != 0; iod = rsw::im_next_iod(iod)) {
    rsw::ImView view{};
    const auto *record = static_cast<const ip_iftype *>(lcache_im_get_extension1(iod, IP_COMPONENT));
    if (!rsw::im_view(iod, &view) || record == nullptr) continue;
    Interface interface {
      .name = view.name, .up = view.up, .admin_up = view.admin_up, .loopback = view.loopback,
      .multicast = record->mcast_enabled != 0, .mtu = view.mtu, .addresses = ""
    };
    for (const ip_addrtype *address = record->addr_list; address != nullptr; address = address->next) {
      const uint32_t addr = address->addr;
      interface.addresses += address_line(std::to_string(addr >> 24) + "." + std::to_string((addr >> 16) & 255) + "." +
                                              std::to_string((addr >> 8) & 255) + "." + std::to_string(addr & 255),
                                          address->mask_len);
    }
    interfaces[view.ifindex] = interface;
  }
  tsp_lock_release_rdlock(ip_client.rwsem_lock);
  return print(interfaces);
}

}  // namespace test_support
