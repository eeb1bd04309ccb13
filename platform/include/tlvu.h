// SPDX-License-Identifier: Apache-2.0
// TLV utilities: records turned into self-describing buffers and back, as a description table says.
//
// A table is a head, its fields' descriptors, and a descriptor of -1s that ends it. A field is known by its id on the
// wire, by its offset in the record; a field that is an array of records names their table. Tables are data of one
// process and have natural pointers. librsw does not provide these calls yet.
//
// Errors are numbers, 0 for none; tlvu_error_print shows one.
#ifndef RSW_TLVU_H
#define RSW_TLVU_H

#include "contract.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// What a table describes.
struct tlv_table_head {
  uint32_t size;                     // bytes of the decoded record, without arrays
  const char *name;                  // of the record
  uint32_t (*default_init)(void *);  // fills a fresh record before its fields are decoded; null: zeros
  uint32_t r12;                      // reserved, 0
};
RSW_SIZE_32(struct tlv_table_head, 16);
RSW_OFFSET_32(struct tlv_table_head, name, 4);
RSW_OFFSET_32(struct tlv_table_head, default_init, 8);
RSW_OFFSET_32(struct tlv_table_head, r12, 12);

// One field. The last descriptor of a table has id, size and offset 0xffffffff.
struct tlv_field_desc {
  uint32_t id;                      // on the wire
  uint32_t size;                    // bytes of one element
  uint32_t offset;                  // in the record
  uint32_t type;                    // 1: integer in host order; 3: characters; 5: array of records
  uint32_t r4, r5, r6;              // reserved, 0
  uint32_t (*count)(const void *);  // elements of an array, asked of the record; null: one
  uint32_t r8;                      // reserved, 0
  uint32_t max_len;                 // bytes at most; 0 for an array
  uint32_t r10;                     // 0xffffffff
  const void *sub_table;            // of an array's elements; null otherwise
};
RSW_SIZE_32(struct tlv_field_desc, 48);
RSW_OFFSET_32(struct tlv_field_desc, type, 12);
RSW_OFFSET_32(struct tlv_field_desc, count, 28);
RSW_OFFSET_32(struct tlv_field_desc, r8, 32);
RSW_OFFSET_32(struct tlv_field_desc, max_len, 36);
RSW_OFFSET_32(struct tlv_field_desc, sub_table, 44);

// Begins a walk over the fields of a TLV buffer. libip passes its own arguments through: the first three and the last
// two are iterator, buffer and position words in the platform's terms.
//   table         which fields
// Threads: one per iterator. Blocks: no. Owns: nothing. Results: 0. Anything else: an error.
uint32_t tlvu_field_itr_init(uintptr_t a, uintptr_t b, uintptr_t c, const void *table, uintptr_t d, uint16_t e);

// The walk's next field.
//   iterator      as tlvu_field_itr_init made it
//   out           the field
// Threads: one per iterator. Blocks: no. Owns: nothing; the field lies in the buffer. Results: 0. Anything else: an
// error, or the end.
uint32_t tlvu_field_itr_get_next(void *iterator, void *out);

// One field of a TLV buffer by its id; the words in front are passed through as above.
// Threads: any. Blocks: no. Owns: nothing. Results: 0. Anything else: an error, or there is no such field.
uint32_t tlvu_get_field(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e, const void *table);

// How many bytes a record has as a TLV buffer.
//   table         the record's
//   record        its arrays' counts are asked of it
// Threads: any. Blocks: no. Owns: nothing. Results: bytes.
uint32_t tlvu_table_size(const void *table, const void *record);

// How many bytes the record of a TLV buffer has when decoded, arrays included.
//   size          out: bytes
//   tlv           the buffer
//   table         the record's
// Threads: any. Blocks: no. Owns: nothing. Results: 0. Anything else: an error; *size is not to be used.
uint32_t tlvu_table_get_struct_size_from_tlv(uint32_t *size, const void *tlv, uint32_t zero, const void *table);

// Encodes a record.
//   out, out_size out: the buffer and its bytes
//   table, record what
//   a, b, c       passed through from libip's caller
// Threads: any. Blocks: no. Owns: *out is the caller's, to be released by tlvu_free. Results: 0. Anything else: an
// error, and no buffer.
uint32_t tlvu_table_convert_struct_to_tlv(void **out, uint32_t *out_size, const void *table, const void *record,
                                          uintptr_t a, uintptr_t b, uintptr_t c);

// Decodes a TLV buffer, which came from another process: every length in it is checked.
//   out           out: the record
//   tlv, tlv_size the buffer
//   table         the record's
//   a             passed through from libip's caller
// Threads: any. Blocks: no. Owns: *out is the caller's, to be released by tlvu_free. Results: 0. Anything else: an
// error, and no record.
uint32_t tlvu_table_convert_tlv_to_struct(void **out, const void *tlv, uint32_t tlv_size, const void *table,
                                          uintptr_t a);

// Releases what an encoding or decoding made.
//   buffer        may be null
//   flags         0
// Threads: any. Blocks: no. Owns: takes the buffer.
void tlvu_free(void *buffer, uint32_t flags);

// Shows an error, as one debug line. libip's format is "%s: ERR 0x%x\n": a function's name, the error.
// Threads: any. Blocks: as buginf, see log.h. Owns: nothing.
void tlvu_error_print(const char *format, ...) RSW_PRINTF(1, 2);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
