// SPDX-License-Identifier: Apache-2.0
// This process's memory counters and their block in the segment. Private to this folder.
#ifndef RSW_MTRACK_COUNTERS_H
#define RSW_MTRACK_COUNTERS_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "mtrack_records.h"
#include "mtrack_writer.h"
#include "sm/segment_map.h"

namespace rsw::mtrack {

// All calls: any thread; none blocks for longer than a mutex and a few system calls.
class Counters {
 public:
  // A component's table of type names, copied. Registering it again renames; false when it then has more types, or when
  // there is no room.
  bool register_types(const char *description, uint32_t component, bool shared, const char *const *names,
                      uint32_t count);

  // The entry that counts a private type; 0, "(other)", for one that nobody registered. An entry never goes away.
  uint32_t entry_of(uint32_t component, uint32_t type);
  void allocated(uint32_t entry, uint32_t size);
  void failed(uint32_t entry);
  void freed(uint32_t entry, uint32_t size);

  // Kept for the registration when it comes later.
  void set_shared(uint32_t component, uint32_t type, uint64_t blocks, uint64_t bytes);

  // Looks for the segment and takes a block in it. Nothing happens when there is none, or no block.
  void attach();
  bool open_for_writing(std::string *reason);

  void report_own(std::vector<MemoryUse> *uses);
  // The segment and which of its blocks is this process's own; null when not attached.
  std::shared_ptr<SegmentMap> segment(uint32_t *own_block);

  // Around fork(): the child starts with the parent's counts and no block.
  void before_fork() { mutex_.lock(); }
  void after_fork_in_parent() { mutex_.unlock(); }
  void after_fork_in_child();

 private:
  struct Component {
    uint32_t component;
    bool shared;
    uint32_t first, types;  // its entries
    char description[sizeof SharedComponent::description];
  };
  struct Entry {
    uint32_t component;  // index plus 1; 0: "(other)"
    uint32_t type;
    uint64_t count[counters];
    char name[sizeof SharedEntry::name];
  };

  struct Early {  // a shared type's figures before its registration
    bool used;
    uint32_t component, type;
    uint64_t blocks, bytes;
  };

  void own_segment(std::shared_ptr<SegmentMap> segment);
  bool take_block();
  void leave_block();
  void publish_entry(uint32_t entry);
  void publish_all();
  bool still_ours();
  void changed(uint32_t entry);
  Component *find(uint32_t component, bool shared);
  void set_early(uint32_t component, uint32_t type, uint64_t blocks, uint64_t bytes);
  void take_early(const Component &component);

  std::mutex mutex_;
  uint32_t components_ = 0;
  Component component_[max_components] = {};
  uint32_t entries_ = 1;
  Early early_[32] = {};
  Entry entry_[max_entries] = {{0, 0, {}, "(other)"}};

  std::shared_ptr<SegmentMap> segment_;
  SharedBlock *block_ = nullptr;
  uint32_t block_index_ = 0;
  int lock_fd_ = -1;  // holds the block's lock; a descriptor of its own, so that a look through the map's sees it
  bool take_again_ = false;
};

Counters &process_counters();

}  // namespace rsw::mtrack

#endif
