// SPDX-License-Identifier: Apache-2.0
// The writer's side of the reader lock: when may memory that readers could still look at be used again?
//
// Each reading thread has a slot (one cache line in the segment "/rsw/shm/tsp") with one epoch word per lock. Entering
// stores the current epoch there, leaving stores 0. The writer unlinks records, calls advance(), and may reuse them as
// soon as passed() says that every live slot of that lock is outside or entered later. A slot whose owner is dead
// counts as outside.
#ifndef RSW_TSP_EPOCHS_H
#define RSW_TSP_EPOCHS_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sm/run_dir.h"

namespace rsw {

// One lock handle each; a lock's readers never hold up another lock's writer.
enum class Domain : uint32_t { database = 1, urib = 2 };

struct EpochHolder {  // a reader that holds an epoch
  uint32_t slot;
  int32_t pid;
  int32_t tid;
  char command[16];
  uint32_t epoch;
  Domain domain;  // that was asked about: of the epoch, every bit is the holder's own word
};

struct EpochClient {  // a process that has slots
  int32_t pid;
  uint32_t threads;
  char command[16];
  bool inside;  // one of its threads is in a query now
};

class RSW_EXPORT Epochs {
 public:
  // Makes or takes over the slot segment. One per process. Null: *reason says why.
  static std::unique_ptr<Epochs> open(std::string *reason);
  virtual ~Epochs() = default;

  // After unlinking: everything unlinked before this call is reusable once passed(domain, result).
  virtual uint32_t advance(Domain domain) = 0;
  // Frees the slots of dead owners on its way. Never blocks.
  [[nodiscard]] virtual bool passed(Domain domain, uint32_t epoch) = 0;
  // Who keeps `epoch` from passing.
  [[nodiscard]] virtual std::vector<EpochHolder> holders(Domain domain, uint32_t epoch) = 0;
  // The last resort against a reader that is stopped for ever: its slot no longer counts until it leaves the lock. Its
  // query, should it ever go on, stays free of faults (records keep their type) but may mix two states.
  virtual void overrule(const EpochHolder &holder) = 0;
  // Somebody cut the slot segment short, and its length is back: writes again what is the writer's in it.
  virtual void put_back() = 0;
};

// For ipsh: the processes that hold slots, read from the slot segment. Empty without one.
RSW_EXPORT std::vector<EpochClient> epoch_clients();

}  // namespace rsw

#endif
