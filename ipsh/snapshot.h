// SPDX-License-Identifier: Apache-2.0
// What the shared database says now, copied into plain rows: contexts, interfaces, addresses.
//
// Each function needs an Attachment. The picture is read in short steps, one interface at a time, so that a big system
// is not held up by a listing; each row is of one moment, the whole table is not. An interface or a context that goes
// away while the table is read is left out. Threads: any. Blocks: no.
#ifndef IPSH_SNAPSHOT_H
#define IPSH_SNAPSHOT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ipsh {

struct ContextRow {
  uint32_t id;
  std::string name;
  uint32_t table_id;
  uint32_t router_id;      // host order; 0: none
  uint32_t router_id_iod;  // 0: none
  std::string router_id_interface;
  bool operator==(const ContextRow &) const = default;
};

struct InterfaceRow {
  uint32_t iod, ifindex;
  std::string name;
  uint32_t context_id;
  std::string context;
  uint32_t table_id;
  bool up, admin_up, loopback;
  uint32_t mtu;
  bool has_ip;               // has an IP record; else all that follows is empty
  uint32_t primary;          // host order; 0: no address
  uint8_t primary_mask_len;  // of primary
  uint32_t secondary_count;
  uint32_t virtual_count;
  uint32_t group_count;
  bool multicast, forwarding, directed_broadcast;
  bool unnumbered;
  std::string unnumbered_source;  // name of the interface whose address is borrowed
  bool operator==(const InterfaceRow &) const = default;
};

enum class AddressKind { primary, secondary, virtual_address };
[[nodiscard]] const char *to_text(AddressKind kind);

struct AddressRow {
  uint32_t context_id;
  std::string context;
  uint32_t iod;
  std::string interface;
  uint32_t addr;     // host order
  uint8_t mask_len;  // 32 for a virtual address
  AddressKind kind;
  bool operator==(const AddressRow &) const = default;
};

// Restricts a listing; an empty optional restricts nothing.
struct Selection {
  std::optional<uint32_t> context_id;
  std::optional<uint32_t> iod;
};

[[nodiscard]] std::vector<ContextRow> read_contexts();
// Loopbacks first, then by ifindex.
[[nodiscard]] std::vector<InterfaceRow> read_interfaces(const Selection &selection);
// In the order of the interfaces; of one interface the primary, the secondaries, then the virtual addresses.
[[nodiscard]] std::vector<AddressRow> read_addresses(const Selection &selection);

// The iod of the interface of that name; 0: none.
[[nodiscard]] uint32_t find_interface(const std::string &name);
// The interface's name, or an empty text.
[[nodiscard]] std::string interface_name(uint32_t iod);

}  // namespace ipsh

#endif
