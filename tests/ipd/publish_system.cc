// SPDX-License-Identifier: Apache-2.0
#include "ipd/publish_system.h"

#include <endian.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "im.h"
#include "pt.h"
#include "sm/run_dir.h"

namespace publish_test {
namespace {

Holding holding(const void *node, uint32_t network, uint32_t len) {
  Holding result{.network = network, .len = len, .iods = {}, .vip = false};
  if (node == nullptr) return result;
  const ip_local_addr_info *info = static_cast<const ip_local_addr_node *>(node)->info;
  if (info == nullptr) return result;
  result.vip = __atomic_load_n(&info->vip, __ATOMIC_RELAXED) != 0;
  // Elements are longer than what the library reads of them: the next one's address stands behind the iod.
  struct Element {
    uint32_t iod;
    IP_SHM_PTR(Element) next;
  };
  for (const auto *each = reinterpret_cast<const Element *>(info->iod_list.get()); each != nullptr; each = each->next) {
    result.iods.push_back(each->iod);
  }
  return result;
}

}  // namespace

System::System(std::chrono::milliseconds quarantine) {
  std::string reason;
  publisher = ipd::Publisher::open(&reason, quarantine);
  if (publisher == nullptr) throw std::runtime_error("cannot open the publisher: " + reason);
}

System::~System() {
  detach();
}

void System::go_live() {
  ASSERT_TRUE(commit()) << publisher->last_error();
  attach();
}

void System::attach() {
  ASSERT_NE(ip_shm_api_init(), nullptr);
  attached_ = true;
}

void System::detach() {
  if (attached_) ip_api_close();
  attached_ = false;
}

bool System::commit() {
  const bool done = publisher->commit();
  publisher->tick(std::chrono::steady_clock::now());
  return done;
}

bool attach_when_published() {
  const std::string path = rsw::segment_path("/rsw/shm/ip");
  return test_support::wait_until([&] { return access(path.c_str(), R_OK) == 0; }) && ip_shm_api_init() != nullptr;
}

ipd::ContextState context(uint32_t id, const std::string &name) {
  return {.id = id, .name = name, .table_id = 1000 + id, .router_id = 0};
}

ipd::InterfaceState interface(uint32_t ifindex, const std::string &name) {
  return {.ifindex = ifindex,
          .name = name.empty() ? "port" + std::to_string(ifindex) : name,
          .up = true,
          .admin_up = true,
          .loopback = false,
          .multicast = true,
          .forwarding = true,
          .directed_broadcast = false,
          .mtu = 1500,
          .context_id = 1};
}

ipd::AddressState primary(uint32_t addr, uint8_t mask_len, uint8_t scope) {
  return {.addr = addr, .mask_len = mask_len, .secondary = false, .scope = scope};
}

ipd::AddressState secondary(uint32_t addr, uint8_t mask_len) {
  return {.addr = addr, .mask_len = mask_len, .secondary = true, .scope = 0};
}

const ip_iftype *interface_record(uint32_t iod) {
  return static_cast<const ip_iftype *>(lcache_im_get_extension1(iod, IP_COMPONENT));
}

Addresses addresses_of(uint32_t iod) {
  Addresses result;
  const ip_iftype *record = interface_record(iod);
  if (record == nullptr) return result;
  for (const ip_addrtype *each = record->addr_list; each != nullptr; each = each->next) {
    result.emplace_back(each->addr, each->mask_len);
  }
  return result;
}

std::vector<uint32_t> context_ids() {
  std::vector<uint32_t> result;
  const auto *root = static_cast<const ip_root *>(ip_api_data);
  for (const ip_api_context_type *each = root->contexts; each != nullptr; each = each->next) {
    result.push_back(each->context_id);
  }
  return result;
}

std::vector<ipd::GroupState> groups_of(uint32_t iod) {
  static thread_local std::vector<ipd::GroupState> found;
  found.clear();
  ip_get_each_group(
      iod,
      [](uint32_t group, uint32_t data, uint32_t) -> uint32_t {
        found.push_back({.group = group, .data = data});
        return 0;
      },
      0);
  return found;
}

std::optional<ipd::MulticastCounters> counters_of(uint32_t iod) {
  ipd::MulticastCounters found{};
  auto &[p, b] = found;
  const uint32_t packets = ip_get_mcast_pkt_stats_orig(iod, &p[0], &p[1], &p[2], &p[3], &p[4]);
  const uint32_t bytes = ip_get_mcast_byte_stats_orig(iod, &b[0], &b[1]);
  EXPECT_EQ(packets, bytes);
  return packets == 1 ? std::optional(found) : std::nullopt;
}

std::vector<Holding> holdings_of(uint32_t context_id) {
  std::vector<Holding> result;
  const ip_api_context_type *record = ip_get_api_context(context_id);
  if (record == nullptr) return result;
  uint32_t key[4] = {};
  uint32_t len = 0;
  void *tree = record->local_pt;
  for (void *node = pt_get_first_node(tree, key, &len, 0); node != nullptr;
       node = pt_get_next_node(tree, key, &len, 0)) {
    result.push_back(holding(node, be32toh(key[0]), len));
  }
  return result;
}

Holding holding_of(uint32_t context_id, uint32_t network, uint32_t len) {
  const ip_api_context_type *record = ip_get_api_context(context_id);
  if (record == nullptr) return holding(nullptr, network, len);
  const uint32_t key[4] = {htobe32(network), 0, 0, 0};
  return holding(pt_lookup(record->local_pt, key, len, 1), network, len);
}

}  // namespace publish_test
