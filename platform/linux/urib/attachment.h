// SPDX-License-Identifier: Apache-2.0
// The route tables that this process reads.
//
// The first urib_api_init() asks for the segment; when there is none yet, later questions ask again, a few times a
// second. Once it is there it stays mapped, also after urib_api_close(): questions that come after a close, and after a
// library above was opened again without urib_api_init(), find the routes as before.
#ifndef RSW_URIB_ATTACHMENT_H
#define RSW_URIB_ATTACHMENT_H

#include "sm/segment.h"
#include "urib/urib_lookup.h"

namespace rsw::urib {

extern uint32_t header_word;  // address of the attached segment's header, 0 without one; changed by attachment.cc only

// Asks for the segment, when it was opened once and has not been asked for just now. The header's address, or 0.
uint32_t attach_late();

// The tables; null: none.
[[nodiscard]] inline const Directory *directory() {
  // Acquire: the mapping is there; partner: the stores in attachment.cc.
  uint32_t header = observe_word(header_word);
  if (header == 0) [[unlikely]] {
    header = attach_late();
    if (header == 0) return nullptr;
  }
  // Acquire: the directory behind the word; partner: the store in UribWriter::commit().
  return follow<Directory, 64>(observe_word(at_address<const SegmentHeader>(header)->root));
}
[[nodiscard]] inline const Body *body_of(uint32_t table) {
  return body_at(directory(), table);
}

// The shortcut of a table's unicast trie; a word that leads nowhere: ask the body.
[[nodiscard]] inline uint32_t shortcut_of(uint32_t table) {
  // Acquire: as in directory().
  const uint32_t header = observe_word(header_word);
  if (header == 0 || table >= small_tables) [[unlikely]]
    return 0;
  // Acquire: the shortcut behind the word; partner: the stores in UribWriter.
  return observe_word(at_address<const Shortcuts>(header + shortcuts_offset)->regions[table]);
}

// Lets go of a mapping that only a closed client has kept: a writer in this process is about to map the segment.
void detach_idle();

}  // namespace rsw::urib

#endif
