// SPDX-License-Identifier: Apache-2.0
// The layer-3 context of an interface: two words of its record in the interface table.
//
// There is one topology, "base": the unicast one. Any other has no table.
#include "l3vm.h"

#include <cstring>

#include "im/attachment.h"
#include "im/im_table.h"

uint32_t l3vm_if_get_context_id(uint32_t iod) {
  const rsw::im::Record *record = rsw::im::record_of(rsw::im::attached_table(), iod);
  return record != nullptr ? rsw::load_word(record->context_id) : 0;
}

uint32_t l3vm_if_get_table_id(uint32_t iod, uint32_t, const char *base) {
  if (base == nullptr || strcmp(base, "base") != 0) return 0;
  const rsw::im::Record *record = rsw::im::record_of(rsw::im::attached_table(), iod);
  return record != nullptr ? rsw::load_word(record->table_id) : 0;
}
