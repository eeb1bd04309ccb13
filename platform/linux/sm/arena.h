// SPDX-License-Identifier: Apache-2.0
// Memory of a segment, for its writer: type-stable records that come back only when no reader can still see them.
//
// The segment is cut into 64 KiB chunks; a chunk holds records of one type for ever (its type stands in the segment, so
// it outlives the writer), and a record that needs more than a chunk gets a run of chunks, again for its type for ever.
// So a word that once was an address record's `next` is never anything else, and a reader that walks a list without the
// lock ends and does not fault.
//
// A record's life: allocate (zeroed) -> fill -> publish by one store -> unlink by one store -> retire -> [every reader
// has moved on, and at least `quarantine` has passed] -> free for reuse, oldest first.
//
// A writer that takes a segment over does not trust anything but chunk types, what the previous one never gave out or
// had got back, and what is reachable from the root: it adopts the records it keeps, builds everything else anew,
// publishes, and then calls retire_unadopted().
#ifndef RSW_SM_ARENA_H
#define RSW_SM_ARENA_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sm/segment_map.h"
#include "tsp/epochs.h"

namespace rsw {

using RecordType = uint16_t;  // 1 ..; stable across versions of the writer that share a layout hash

struct RecordTypeInfo {
  RecordType type;
  uint32_t size;         // of one record, rounded up to `align`
  uint32_t align;        // a power of two, 8 to 64
  uint32_t memory_type;  // for the memory tracker's shared counters
  std::string_view name;
};

struct RecordTypeUse {
  RecordTypeInfo info;
  uint64_t live, retired, free;  // records
  uint64_t left;                 // by earlier writers: given out, and neither adopted nor retired since
};

struct ArenaLimits {
  std::chrono::milliseconds quarantine{1000};
  uint64_t retired_bytes_cap = 32u << 20;  // above it, the readers that hold memory up are overruled, with a log line
};

class RSW_EXPORT Arena {
 public:
  // `first` is the offset in the segment where chunks begin (what lies before it is the caller's fixed area).
  static std::unique_ptr<Arena> open(std::shared_ptr<SegmentMap> segment, Epochs &epochs, Domain domain, uint32_t first,
                                     std::span<const RecordTypeInfo> types, ArenaLimits limits, std::string *reason);
  virtual ~Arena() = default;

  // Zeroed. Null when the window or the file system is full (logged once until it succeeds again).
  [[nodiscard]] virtual void *allocate(RecordType type) = 0;
  // After it was unlinked.
  virtual void retire(RecordType type, void *record) = 0;
  // A record that was never published: free at once.
  virtual void give_back(RecordType type, void *record) = 0;

  // Take-over: keep this record of the previous writer. False: it is not the address of a record of that type.
  virtual bool adopt(RecordType type, void *record) = 0;
  virtual void retire_unadopted() = 0;

  // To be called after each batch of changes and at least once a second while retired() > 0: moves what is safe to the
  // free lists. `now` is monotonic.
  virtual void tick(std::chrono::steady_clock::time_point now) = 0;

  [[nodiscard]] virtual uint64_t retired_bytes() const = 0;
  [[nodiscard]] virtual std::vector<RecordTypeUse> use() const = 0;
};

}  // namespace rsw

#endif
