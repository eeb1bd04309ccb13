// SPDX-License-Identifier: Apache-2.0
// The lengths of segments that others may write.
//
// Who may write a file may shorten it, and whoever then touches what is gone gets SIGBUS. A segment's writer must
// outlive that: it puts the length back as soon as it is told of it, and at the latest when it runs into it. What was
// cut off is zeros then, which every reader of these segments takes for nobody's.
#ifndef RSW_SM_LENGTH_KEEPER_H
#define RSW_SM_LENGTH_KEEPER_H

#include <string>
#include <vector>

#include "sm/segment_map.h"

namespace rsw {

// For the writer of a clients_write segment, when its used area has its size: keeps the length until the mapping goes.
// From the first call on, SIGBUS inside a kept segment is answered here; any other goes where it went before.
RSW_EXPORT void keep_length(const SegmentMap &map);
// The mapping goes.
void forget_length(const SegmentLayout &layout);

// A descriptor to wait on: readable when somebody changed the length of a kept segment, or had storage given to it. -1:
// the kernel has none for us, then mend_lengths() is to be called now and then. It stays open and is never another one.
RSW_EXPORT int length_events();
// Puts back what is missing, of lengths, headers and storage. The names of segments that were cut short since the last
// call, also of those that were put right meanwhile. One thread.
RSW_EXPORT std::vector<std::string> mend_lengths();

}  // namespace rsw

#endif
