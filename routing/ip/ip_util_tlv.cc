// SPDX-License-Identifier: Apache-2.0
// Interface information in TLV form: the platform's TLV library, asked about this library's two tables.
//
// Each call comes twice, for a whole message and for one of its entries. The two differ in the table and in the name
// under which an error is shown, so both are made from one text.
#include "ip_api.h"

namespace libip {
namespace {

// Shows an error under the name of the exported function that met it. Results: the error.
uint32_t shown(const char *function, uint32_t error) {
  if (error != 0) tlvu_error_print("%s: ERR 0x%x\n", function, error);
  return error;
}

int32_t record_size(const char *function, const void *tlv, const void *table) {
  uint32_t size = 0;
  if (shown(function, tlvu_table_get_struct_size_from_tlv(&size, tlv, 0, table)) != 0) return -1;
  return static_cast<int32_t>(size);
}

}  // namespace
}  // namespace libip

extern "C" {

#define DEFINE_ACCESSORS(record_name)                                                                           \
  uint32_t record_name##_field_itr_init(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uint16_t e) {       \
    return tlvu_field_itr_init(a, b, c, &record_name##_tbl, d, e);                                              \
  }                                                                                                             \
  uint32_t record_name##_field_get_next(void *iterator, void *out) {                                            \
    return tlvu_field_itr_get_next(iterator, out);                                                              \
  }                                                                                                             \
  uint32_t record_name##_get_field(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e) {           \
    return tlvu_get_field(a, b, c, d, e, &record_name##_tbl);                                                   \
  }                                                                                                             \
  uint32_t record_name##_get_tlv_sz(const void *record) {                                                       \
    return tlvu_table_size(&record_name##_tbl, record);                                                         \
  }                                                                                                             \
  int32_t record_name##_get_struct_sz(const void *tlv) {                                                        \
    return libip::record_size(__func__, tlv, &record_name##_tbl);                                               \
  }                                                                                                             \
  uint32_t record_name##_to_tlv(const void *record, void **out, uint32_t *out_size, uintptr_t a, uintptr_t b,   \
                                uintptr_t c) {                                                                  \
    return libip::shown(__func__,                                                                               \
                        tlvu_table_convert_struct_to_tlv(out, out_size, &record_name##_tbl, record, a, b, c));  \
  }                                                                                                             \
  uint32_t record_name##_to_struct(void **out, const void *tlv, uint32_t tlv_size, uintptr_t a) {               \
    return libip::shown(__func__, tlvu_table_convert_tlv_to_struct(out, tlv, tlv_size, &record_name##_tbl, a)); \
  }

DEFINE_ACCESSORS(ip_if_info_msg)
DEFINE_ACCESSORS(ip_if_info_msg_entry)

#undef DEFINE_ACCESSORS

void ip_free_if_info_tlv(void *buffer, uint32_t flags) {
  tlvu_free(buffer, flags);
}

}  // extern "C"
