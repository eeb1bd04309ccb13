// SPDX-License-Identifier: Apache-2.0
// How the interface-information records look in TLV form: what the platform's TLV library reads, see tlvu.h.
//
// The ids are the fields' names in a message, given in the order in which the fields were invented; the offsets are
// their places in the record. So the two orders differ, and neither may change. The tables can be written to, as every
// object that programs may hold a copy of.
#include "ip_api.h"

namespace libip {
namespace {

enum FieldType : uint32_t { number = 1, characters = 3, records = 5 };

constexpr uint32_t none = 0xffffffff;

// A word in the machine's order.
constexpr tlv_field_desc number_field(uint32_t id, uint32_t offset) {
  return {.id = id,
          .size = sizeof(uint32_t),
          .offset = offset,
          .type = number,
          .r4 = 0,
          .r5 = 0,
          .r6 = 0,
          .count = nullptr,
          .r8 = 0,
          .max_len = sizeof(uint32_t),
          .r10 = none,
          .sub_table = nullptr};
}

// Text that may fill its field to the last byte.
constexpr tlv_field_desc text_field(uint32_t id, uint32_t offset, uint32_t max_len) {
  return {.id = id,
          .size = sizeof(char),
          .offset = offset,
          .type = characters,
          .r4 = 0,
          .r5 = 0,
          .r6 = 0,
          .count = nullptr,
          .r8 = 0,
          .max_len = max_len,
          .r10 = none,
          .sub_table = nullptr};
}

// As many records as `count` says of the record around them.
constexpr tlv_field_desc records_field(uint32_t id, uint32_t size, uint32_t offset, uint32_t (*count)(const void *),
                                       const void *sub_table) {
  return {.id = id,
          .size = size,
          .offset = offset,
          .type = records,
          .r4 = 0,
          .r5 = 0,
          .r6 = 0,
          .count = count,
          .r8 = 0,
          .max_len = 0,
          .r10 = none,
          .sub_table = sub_table};
}

constexpr tlv_field_desc end_of_fields = {.id = none,
                                          .size = none,
                                          .offset = none,
                                          .type = 0,
                                          .r4 = 0,
                                          .r5 = 0,
                                          .r6 = 0,
                                          .count = nullptr,
                                          .r8 = 0,
                                          .max_len = 0,
                                          .r10 = 0,
                                          .sub_table = nullptr};

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_if_info_msg_get_sz(const void *msg) {
  return static_cast<const ip_if_info_msg *>(msg)->count;
}

uint32_t ip_if_info_msg_default_init(void *entry) {
  static_cast<ip_if_info_msg_entry *>(entry)->f0 = 0;
  return 0;
}

struct ip_if_info_msg_tbl_t ip_if_info_msg_tbl = {
    .h = {.size = sizeof(ip_if_info_msg), .name = "ip_if_info_msg", .default_init = nullptr, .r12 = 0},
    .d = {libip::number_field(5, offsetof(ip_if_info_msg, count)),
          // The entries follow the record that holds their number.
          libip::records_field(6, sizeof(ip_if_info_msg_entry), sizeof(ip_if_info_msg), ip_if_info_msg_get_sz,
                               &ip_if_info_msg_entry_tbl),
          libip::end_of_fields}};

struct ip_if_info_msg_entry_tbl_t ip_if_info_msg_entry_tbl = {
    .h = {.size = sizeof(ip_if_info_msg_entry),
          .name = "ip_if_info_msg_entry",
          .default_init = ip_if_info_msg_default_init,
          .r12 = 0},
    .d = {libip::number_field(0, offsetof(ip_if_info_msg_entry, f0)),
          libip::number_field(3, offsetof(ip_if_info_msg_entry, f3)),
          libip::number_field(7, offsetof(ip_if_info_msg_entry, f7)),
          libip::number_field(2, offsetof(ip_if_info_msg_entry, f2)),
          libip::number_field(4, offsetof(ip_if_info_msg_entry, f4)),
          libip::number_field(8, offsetof(ip_if_info_msg_entry, f8)),
          libip::number_field(9, offsetof(ip_if_info_msg_entry, f9)),
          libip::number_field(10, offsetof(ip_if_info_msg_entry, f10)),
          libip::text_field(1, offsetof(ip_if_info_msg_entry, f1), sizeof(ip_if_info_msg_entry::f1)),
          libip::end_of_fields}};

}  // extern "C"
