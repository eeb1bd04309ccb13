// SPDX-License-Identifier: Apache-2.0
// The platform's segment descriptor, as far as this library relies on it: what sm_open's handle points to. Words of
// fixed width in every build; addresses are those of the window, which lies below 4 GiB.
#ifndef IP_SEGMENT_DESCRIPTOR_H
#define IP_SEGMENT_DESCRIPTOR_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace libip {

struct SegmentDescriptor {
  uint8_t platform0[84];
  uint32_t id;
  uint32_t bottom;   // of the window
  uint32_t base;     // of the used area
  uint32_t end;      // of the used area
  uint32_t top;      // of the window
  uint32_t bounded;  // SM_SEGMENT_BOUNDED, or anything else of the platform's
  uint8_t platform108[80];
  uint32_t root;  // address of the root record
};
static_assert(std::is_trivially_copyable_v<SegmentDescriptor>);
static_assert(offsetof(SegmentDescriptor, id) == 84);
static_assert(offsetof(SegmentDescriptor, bottom) == 88);
static_assert(offsetof(SegmentDescriptor, base) == 92);
static_assert(offsetof(SegmentDescriptor, end) == 96);
static_assert(offsetof(SegmentDescriptor, top) == 100);
static_assert(offsetof(SegmentDescriptor, bounded) == 104);
static_assert(offsetof(SegmentDescriptor, root) == 188);

}  // namespace libip

#endif
