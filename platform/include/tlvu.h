// SPDX-License-Identifier: Apache-2.0
// TLV utilities: records turned into self-describing buffers and back, as a description table says.
//
// A table is a head, its fields' descriptors, and a descriptor of -1s that ends it. A field is known by its id on the
// wire, by its offset in the record; a field that is an array of records names their table. Tables are data of one
// process and have natural pointers.
//
// A record is one block: what its table calls its size, then the elements of its array, if it has one. An array has a
// count function and begins where the record's size ends; a table has at most one, and the elements have none. A field
// of records without a count function is one record within the record. Records nest at most eight deep.
//
// Errors are numbers, 0 for none; tlvu_error_print shows one.
#ifndef RSW_TLVU_H
#define RSW_TLVU_H

#include "contract.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// What can go wrong.
enum tlvu_error {
  TLVU_OK = 0,
  TLVU_END = 1,         // no further field, no such field, no such element
  TLVU_ARGUMENT = 2,    // a null pointer, or a position word that means nothing
  TLVU_TABLE = 3,       // the table describes no record
  TLVU_TRUNCATED = 4,   // the buffer ends within something
  TLVU_HEAD = 5,        // not a TLV buffer, or one of another length than it says
  TLVU_TYPE = 6,        // a field of another type than the table has
  TLVU_LENGTH = 7,      // a field of a length that its type does not have
  TLVU_DUPLICATE = 8,   // a field that is there twice
  TLVU_COUNT = 9,       // an array of another length than its count function says
  TLVU_MEMORY = 10,     // no memory
  TLVU_TOO_LARGE = 11,  // more than 32 bits count
  TLVU_INIT = 12        // the default initialiser failed
};

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

// One field as it stands in a buffer.
struct tlvu_field {
  uint32_t id;
  uint32_t type;      // as in the table
  uint32_t length;    // bytes of the value
  uint32_t count;     // elements: integers, characters or records
  const void *value;  // in the buffer: integers in network order, characters without a terminator, or an array
};

// A walk over fields; what is in it is tlvu_field_itr_get_next's.
struct tlvu_iterator {
  const uint8_t *next, *end;
  const void *table;
};

// Begins a walk over the fields of a TLV buffer. libip passes its caller's arguments through.
//   a             the struct tlvu_iterator
//   b, c          the buffer and its bytes; or the value and length of an array's field
//   table         which fields; others are passed over
//   d, e          0 and 0: a TLV buffer. An index and 5: that element of an array, with the table of its elements
// Threads: one per iterator. Blocks: no. Owns: nothing. Results: 0. Anything else: an error.
uint32_t tlvu_field_itr_init(uintptr_t a, uintptr_t b, uintptr_t c, const void *table, uintptr_t d, uint16_t e);

// The walk's next field.
//   iterator      as tlvu_field_itr_init made it
//   out           the struct tlvu_field
// Threads: one per iterator. Blocks: no. Owns: nothing; the field lies in the buffer. Results: 0. TLVU_END: there is
// none. Anything else: an error, which ends the walk.
uint32_t tlvu_field_itr_get_next(void *iterator, void *out);

// One field of a TLV buffer by its id; libip passes its caller's arguments through.
//   a             the struct tlvu_field
//   b, c          the buffer and its bytes
//   d             the id
//   e             0
//   table         which fields
// Threads: any. Blocks: no. Owns: nothing. Results: 0. TLVU_END: there is no such field. Anything else: an error.
uint32_t tlvu_get_field(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e, const void *table);

// How many bytes a record has as a TLV buffer.
//   table         the record's
//   record        its arrays' counts are asked of it
// Threads: any. Blocks: no. Owns: nothing. Results: bytes. 0: it cannot be encoded.
uint32_t tlvu_table_size(const void *table, const void *record);

// How many bytes the record of a TLV buffer has when decoded, arrays included.
//   size          out: bytes
//   tlv           the buffer, whole: its head says how long it is
//   table         the record's
// Threads: any. Blocks: no. Owns: nothing. Results: 0. Anything else: an error; *size is not to be used.
uint32_t tlvu_table_get_struct_size_from_tlv(uint32_t *size, const void *tlv, uint32_t zero, const void *table);

// Encodes a record.
//   out, out_size out: the buffer and its bytes
//   table, record what
//   a, b, c       passed through from libip's caller; librsw does not look at them
// Threads: any. Blocks: no. Owns: *out is the caller's, to be released by tlvu_free. Results: 0. Anything else: an
// error, and no buffer.
uint32_t tlvu_table_convert_struct_to_tlv(void **out, uint32_t *out_size, const void *table, const void *record,
                                          uintptr_t a, uintptr_t b, uintptr_t c);

// Decodes a TLV buffer, which came from another process: every length in it is checked, and an array takes memory for
// no more elements than there are four bytes in the buffer for. A field that the table does not know is passed over;
// one that is missing stays as the default initialiser, or zero, has it.
//   out           out: the record
//   tlv, tlv_size the buffer; all of it
//   table         the record's
//   a             passed through from libip's caller; librsw does not look at it
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
