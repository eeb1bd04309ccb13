// SPDX-License-Identifier: Apache-2.0
// Room for a writer that takes a segment over.
//
// What a writer retires stays given out until a writer outlives the quarantine. So what writers leave that end one soon
// after the other adds up, and where that has filled the window nobody could publish any more.
#ifndef RSW_SM_MAKE_ROOM_H
#define RSW_SM_MAKE_ROOM_H

#include <functional>
#include <string_view>

#include "sm/arena.h"

namespace rsw {

// For a writer that has adopted what it keeps and has built nothing yet. Where as much as earlier writers gave out has
// no room beside it: calls withdraw(), which leads readers away from all that was not adopted, retires that, and waits
// until it is free; readers that do not leave their question are waited for a second more. `meanwhile` is what that
// means for readers, for the log. True: that was necessary. Threads: the writer's. Blocks: at most the quarantine and
// that second.
RSW_EXPORT bool make_room(const SegmentMap &segment, Arena &arena, const ArenaLimits &limits,
                          std::string_view meanwhile, const std::function<void()> &withdraw);

}  // namespace rsw

#endif
