// SPDX-License-Identifier: Apache-2.0
// Names of the memory types, generated from the tables in ip_memory_types.h.
//
// A name table is an array of (value, name) pairs in value order and ends with an empty name. The last pair before it
// is MAX: it has a name like the others, though nothing is ever allocated under it.
#include <strings.h>

#include "ip_api.h"

namespace {

struct TypeName {
  uint32_t value;
  const char *name;
};

#define ROW(value, name) {value, "IP_MEM_" #name},
constexpr TypeName private_types[] = {IP_MEMORY_TYPES(ROW){0, ""}};
#undef ROW

#define ROW(value, name) {value, "IP_SM_MEM_" #name},
constexpr TypeName shared_types[] = {IP_SHARED_MEMORY_TYPES(ROW){0, ""}};
#undef ROW

constexpr bool in_value_order(const TypeName *table) {
  for (uint32_t expected = 0; table->name[0] != '\0'; table++, expected++) {
    if (table->value != expected) return false;
  }
  return true;
}
static_assert(in_value_order(private_types), "the tracker counts by value: a gap would shift every later name");
static_assert(in_value_order(shared_types));
static_assert(IP_MEM_MAX == 46 && IP_SM_MEM_MAX == 11, "the tracker's readers know these numbers of types");

const char *name_of(const TypeName *table, uint32_t value) {
  for (; table->name[0] != '\0'; table++) {
    if (table->value == value) return table->name;
  }
  return nullptr;
}

uint32_t value_of(const TypeName *table, const char *name) {
  if (name == nullptr) return 0;
  for (; table->name[0] != '\0'; table++) {
    if (strcasecmp(table->name, name) == 0) return table->value;
  }
  return 0;
}

}  // namespace

extern "C" {

const char *__ip_mem_type_t_find(uint32_t value) {
  return name_of(private_types, value);
}
const char *__ip_sm_mem_type_t_find(uint32_t value) {
  return name_of(shared_types, value);
}
uint32_t __ip_mem_type_t_str2enum(const char *name) {
  return value_of(private_types, name);
}
uint32_t __ip_sm_mem_type_t_str2enum(const char *name) {
  return value_of(shared_types, name);
}

}  // extern "C"
