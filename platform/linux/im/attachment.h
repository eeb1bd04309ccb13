// SPDX-License-Identifier: Apache-2.0
// The interface table that this process has attached.
#ifndef RSW_IM_ATTACHMENT_H
#define RSW_IM_ATTACHMENT_H

#include "im/im_table.h"

namespace rsw::im {

extern uint32_t table_word;  // address of the attached Table, 0 without one; changed by attachment.cc only

// Null before im_ext_pub_lib_init and after the last im_ext_pub_lib_close.
[[nodiscard]] inline const Table *attached_table() {
  // Acquire: the mapping is there; partner: the stores in attachment.cc.
  return at_address<const Table>(observe_word(table_word));
}

}  // namespace rsw::im

#endif
