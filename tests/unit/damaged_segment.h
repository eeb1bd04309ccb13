// SPDX-License-Identifier: Apache-2.0
// A small database with one record of each kind, for tests that damage it.
#ifndef TESTS_UNIT_DAMAGED_SEGMENT_H
#define TESTS_UNIT_DAMAGED_SEGMENT_H

#include "support/every_query.h"
#include "unit/library_test.h"

namespace unit {

inline constexpr uint32_t most_steps = 1u << 20;
inline constexpr uint32_t primary = address(10, 0, 0, 1);
inline constexpr uint32_t virtual_address = address(10, 0, 0, 9);
inline constexpr uint32_t near_primary = address(10, 0, 0, 200);  // in its subnet
inline constexpr uint32_t absent = address(203, 0, 113, 99);
inline constexpr uint32_t borrower = 6;  // the iod of the interface that borrows from 5

class DamagedSegmentTest : public LibraryTest {
 protected:
  DamagedSegmentTest() {
    context = database.context(2, "red", 20);
    second_context = database.context(3, "blue", 30);
    record = database.interface(5, {{primary, 24}, {address(10, 0, 0, 2), 24}, {address(10, 0, 0, 3), 24}});
    record->mcast_enabled = 1;
    database.groups(record, {address(239, 1, 1, 1), address(239, 1, 1, 2)});
    record->stats = reinterpret_cast<uint8_t *>(platform().memory.make<ip_if_stats>());
    borrowing = database.interface(borrower);
    database.unnumbered(borrowing, 5, "eth5");
    for (auto &[iod, interface] : platform().interfaces) interface.context_id = 2;
    node = database.node(context, primary, {5});
    vip_node = database.node(context, virtual_address, {borrower}, {.vip = true});
    subnet_node = database.node(context, address(10, 0, 0, 0), {5}, {.length = 24});
  }

  // What they answer is checked by the tests that know.
  static void ask_everything() {
    for (const uint32_t iod : {5u, borrower}) {
      test_support::ask_every_query({"red", 2, iod, primary, 24});
      test_support::ask_every_query({"blue", 77, iod, absent, 32});
      test_support::ask_every_query({"green", 3, iod, virtual_address, 0});
    }
  }

  template <class T>
  static void set_word(ip_shm_ptr<T> &pointer, uint32_t word) {
    pointer.word = word;
  }

  ip_api_context_type *context;
  ip_api_context_type *second_context;
  ip_iftype *record;
  ip_iftype *borrowing;
  ip_local_addr_node *node;
  ip_local_addr_node *vip_node;
  ip_local_addr_node *subnet_node;
};

}  // namespace unit

#endif
