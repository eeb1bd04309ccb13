// SPDX-License-Identifier: Apache-2.0
// A shared database for a test: its records in low memory, its interfaces in the fake interface manager, its trees in
// the fake tree library.
//
//   Database database;                                  an empty root, reachable through the segment descriptor
//   auto *red = database.context(2, "red", 20);
//   auto *record = database.interface(5, {{address(10, 0, 0, 1), 24}, {address(10, 0, 0, 2), 24}});
//   database.node(red, address(10, 0, 0, 1), {5});      a local address of the context
#ifndef TESTS_FAKE_PLATFORM_DATABASE_H
#define TESTS_FAKE_PLATFORM_DATABASE_H

#include <cstdint>
#include <string>
#include <vector>

#include "fake_platform/platform.h"
#include "ip_db.h"

namespace fake_platform {

inline constexpr uint32_t address(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  return a << 24 | b << 16 | c << 8 | d;
}

struct AddressAndLength {
  uint32_t addr;
  uint8_t mask_len;
};

struct NodeOptions {
  uint32_t length = 32;
  bool vip = false;
  bool with_info = true;
};

class Database {
 public:
  // Makes the root and puts it into the platform's segment descriptor.
  Database();

  [[nodiscard]] ip_root *root() const { return root_; }

  // At the end of the list of contexts. With a tree, named "tree of <name>" in the log.
  ip_api_context_type *context(uint32_t context_id, const std::string &name, uint32_t table_id = 0);
  ip_api_context_type *context_without_tree(uint32_t context_id, const std::string &name, uint32_t table_id = 0);

  // The IP component's record of the interface, with its addresses, the first the primary.
  ip_iftype *interface(uint32_t iod, const std::vector<AddressAndLength> &addresses = {}, uint32_t ifindex = 0);
  ip_addrtype *addresses(ip_iftype *record, const std::vector<AddressAndLength> &list);  // replaces; the first record
  ip_maddrtype *groups(ip_iftype *record, const std::vector<uint32_t> &list);
  void unnumbered(ip_iftype *record, uint32_t source_iod, const std::string &source_name);

  // A node of the context's tree, held by these interfaces, the first of them first. Each element of the list is eight
  // bytes: the iod and the word that follows it.
  ip_local_addr_node *node(ip_api_context_type *context, uint32_t addr, const std::vector<uint32_t> &iods,
                           NodeOptions options = {});

 private:
  ip_root *root_;
};

}  // namespace fake_platform

#endif
