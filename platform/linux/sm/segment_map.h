// SPDX-License-Identifier: Apache-2.0
// Mapping a segment into this process, as its writer, as a reader, or as a client that may write (slots, counters).
// One process maps a segment once, whoever asks: a second request counts a reference (a reader in the writer's own
// process gets the writer's mapping).
#ifndef RSW_SM_SEGMENT_MAP_H
#define RSW_SM_SEGMENT_MAP_H

#include <cstdint>
#include <memory>
#include <string>

#include "sm/run_dir.h"
#include "sm/segment.h"

namespace rsw {

// A mapped segment; unmapped (the window reads zeros again) when the last reference in the process goes.
class RSW_EXPORT SegmentMap {
 public:
  // Read-only, or read-write for a clients_write segment. Null: *reason says why (missing, empty, truncated, of
  // another owner, of another layout: both hashes named, window taken: by what).
  static std::shared_ptr<SegmentMap> attach(const SegmentLayout &layout, std::string *reason);

  // The one writer: takes over what a previous writer left when its layout is the same, else makes a new segment.
  // The caller has made sure that it is the only one (the run directory's lock).
  static std::shared_ptr<SegmentMap> create(const SegmentLayout &layout, std::string *reason);

  virtual ~SegmentMap() = default;
  [[nodiscard]] virtual SegmentHeader *header() const = 0;
  [[nodiscard]] virtual const SegmentLayout &layout() const = 0;
  [[nodiscard]] virtual int descriptor() const = 0;  // of the file; owned by the map
  // Writer: true when the segment was there before, with its contents.
  [[nodiscard]] virtual bool took_over() const = 0;
  // Writer: makes [base, end) usable, backed by real storage (a full file system is an answer here, not a SIGBUS at
  // some later store). False: no room, *reason says which.
  virtual bool grow(uint32_t end, std::string *reason) = 0;
  // Writer: a new segment gets its name only now, so that nobody attaches to a half-built one. Nothing to do after a
  // take-over.
  virtual bool publish_name(std::string *reason) = 0;
  // Writer: after a batch of changes: counts the generation and wakes who waits for it.
  virtual void publish_generation() = 0;
};

// Waits until the segment's generation differs from `seen`, for at most `milliseconds`. The new generation, or `seen`.
RSW_EXPORT uint32_t wait_for_generation(const SegmentHeader *header, uint32_t seen, int milliseconds);

}  // namespace rsw

#endif
