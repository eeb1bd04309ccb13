// SPDX-License-Identifier: Apache-2.0
// The one table of segments: where each lies, who may write it, and which layout this build speaks.
//
// A layout hash covers the segment's version string, its window and what else decides how the bytes are to be read.
// Rule: whoever changes a record that stands in a segment changes that segment's version string (for the database:
// RSW_LAYOUT_IP_DB), so that a client and a writer of different builds refuse each other instead of misreading.
// The reader lock's version enters every hash: a new lock means new data segments too, because clients that are still
// attached to the old ones announce themselves in slots that a new writer no longer looks at.
#include "sm/segment.h"

#include "sm.h"

namespace rsw {
namespace {

constexpr std::string_view reader_lock_version = "reader-lock 1";
constexpr uint32_t mebibyte = 1u << 20;

// FNV-1a, 32 bits.
constexpr uint32_t mix(uint32_t hash, uint32_t byte) {
  return (hash ^ byte) * 16777619u;
}

constexpr uint32_t mix_text(uint32_t hash, std::string_view text) {
  for (const char c : text) hash = mix(hash, static_cast<unsigned char>(c));
  return mix(hash, 0);
}

constexpr uint32_t mix_word(uint32_t hash, uint32_t word) {
  for (int shift = 0; shift < 32; shift += 8) hash = mix(hash, (word >> shift) & 0xffu);
  return hash;
}

constexpr SegmentLayout window(std::string_view name, uint32_t base, uint32_t size, std::string_view version,
                               bool clients_write, uint32_t records = 0) {
  uint32_t hash = 2166136261u;
  hash = mix_text(hash, name);
  hash = mix_text(hash, version);
  hash = mix_text(hash, reader_lock_version);
  hash = mix_word(hash, base);
  hash = mix_word(hash, size);
  hash = mix_word(hash, records);
  return {.name = name, .base = base, .size = size, .layout_hash = hash, .clients_write = clients_write};
}

}  // namespace

constexpr SegmentLayout segment_tsp = window("/rsw/shm/tsp", 0x60000000u, 8 * mebibyte, "tsp 1", true);
constexpr SegmentLayout segment_sysmgr = window("/rsw/shm/sysmgr", 0x60800000u, 1 * mebibyte, "sysmgr 1", false);
constexpr SegmentLayout segment_mtrack = window("/rsw/shm/mtrack", 0x60900000u, 7 * mebibyte, "mtrack 1", true);
constexpr SegmentLayout segment_im = window("/rsw/shm/im", 0x61000000u, 48 * mebibyte, "im 2", false);
constexpr SegmentLayout segment_ip =
    window("/rsw/shm/ip", 0x64000000u, 128 * mebibyte, "ip 2", false, uint32_t{RSW_LAYOUT_IP_DB});
constexpr SegmentLayout segment_urib = window("/rsw/shm/urib", 0x6c000000u, 128 * mebibyte, "urib 4", false);
constexpr SegmentLayout segment_mbuf = window("/rsw/shm/mbuf", 0x74000000u, 128 * mebibyte, "mbuf 2", true);

namespace {

constexpr const SegmentLayout *all_segments[] = {&segment_tsp, &segment_sysmgr, &segment_mtrack, &segment_im,
                                                 &segment_ip,  &segment_urib,   &segment_mbuf};

// Windows that overlapped would overwrite each other with no error from anybody.
constexpr bool windows_are_apart() {
  uint32_t free_from = window_low;
  for (const SegmentLayout *segment : all_segments) {
    if (segment->base < free_from || segment->size % 65536 != 0 || segment->base % 65536 != 0) return false;
    free_from = segment->base + segment->size;
  }
  return free_from <= window_high;
}
static_assert(windows_are_apart());

}  // namespace

const SegmentLayout *find_segment_layout(std::string_view name) {
  for (const SegmentLayout *segment : all_segments) {
    if (segment->name == name) return segment;
  }
  return nullptr;
}

}  // namespace rsw
