// SPDX-License-Identifier: Apache-2.0
// Counted memory over malloc.
//
// A block is a malloc block with a trailer in its last 16 usable bytes that says which entry counts it and how large it
// was asked to be. The trailer is behind the caller's bytes and not before them, so the caller's pointer is malloc's
// own and `free` can release the block as well; such a block simply stays counted, since nobody tells us. mtrack_free
// in turn takes any malloc block: one without a valid trailer is released and not counted. The check word ties a
// trailer to its block's address and to a number drawn per process, so what a caller writes into a block is not taken
// for one.
//
// The usable size is asked of malloc both times, so the trailer is found without knowing the requested size. Bytes
// between the caller's and the trailer stay unused.
#include "mtrack.h"

#include <malloc.h>
#include <syslog.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "counters.h"
#include "log.h"
#include "log/log_writer.h"
#include "no_memory.h"

namespace {

using rsw::mtrack::process_counters;

struct Trailer {
  uint32_t entry;
  uint32_t size;
  uint32_t check[2];
};
static_assert(sizeof(Trailer) == 16);

std::atomic<bool> abort_ignored{false};

// One number for the life of the process and its forks, whose blocks stay valid in the child.
const uint32_t cookie = ksink_trel_rand(0);

Trailer trailer_for(const void *block, uint32_t entry, uint32_t size) {
  const uint64_t address = reinterpret_cast<uintptr_t>(block);
  uint64_t mixed = (address ^ cookie) * 0x9e3779b97f4a7c15u;
  mixed ^= (uint64_t{entry} << 32 | size) * 0xc2b2ae3d27d4eb4fu;
  mixed ^= mixed >> 29;
  return {entry, size, {static_cast<uint32_t>(mixed), ~static_cast<uint32_t>(mixed >> 32)}};
}

// The compiler must not derive the block's size from the malloc before: the trailer stands in what malloc gave beyond
// it.
unsigned char *trailer_place(void *block) {
  const size_t usable = malloc_usable_size(block);
  if (usable < sizeof(Trailer)) return nullptr;
  auto *bytes = static_cast<unsigned char *>(block);
  __asm__("" : "+r"(bytes));
  return bytes + usable - sizeof(Trailer);
}

void *counted(uint32_t entry, uint32_t size) {
  if (uint64_t{size} + sizeof(Trailer) > SIZE_MAX) return nullptr;
  void *block = malloc(size_t{size} + sizeof(Trailer));
  if (block == nullptr) return nullptr;
  const Trailer trailer = trailer_for(block, entry, size);
  memcpy(trailer_place(block), &trailer, sizeof trailer);
  return block;
}

uint32_t registered(const char *desc, uint32_t component, bool shared, const char **names, uint32_t count) {
  if (names == nullptr && count > 0) return 0;
  // Without memory for the shared numbers, they are the process's own.
  rsw::unless_without_memory(false, [] {
    process_counters().attach();
    return true;
  });
  if (process_counters().register_types(desc, component, shared, names, count)) return 1;
  rsw::log_line(LOG_WARNING, "memory tracker: no room for %u %s types of component %u", count,
                shared ? "shared" : "private", component);
  return 0;
}

}  // namespace

extern "C" {

uint32_t mtrack_init(const char *desc, uint32_t component, const char **names, uint32_t count) {
  return registered(desc, component, false, names, count);
}

uint32_t mtrack_sm_init(const char *desc, uint32_t component, const char **names, uint32_t count) {
  return registered(desc, component, true, names, count);
}

void *mtrack_alloc(uint32_t component, uint32_t type, uint32_t size) {
  const uint32_t entry = process_counters().entry_of(component, type);
  void *block = counted(entry, size);
  if (block != nullptr) {
    process_counters().allocated(entry, size);
    return block;
  }
  process_counters().failed(entry);
  // Relaxed: a switch of the whole process; nothing else is published by it.
  if (abort_ignored.load(std::memory_order_relaxed)) return nullptr;
  rsw::log_line(LOG_CRIT, "memory tracker: no memory for %u bytes, component %u, type %u; aborting", size, component,
                type);
  abort();
}

void mtrack_free(void *block) {
  if (block == nullptr) return;
  if (unsigned char *place = trailer_place(block)) {
    Trailer found;
    memcpy(&found, place, sizeof found);
    const Trailer expected = trailer_for(block, found.entry, found.size);
    if (memcmp(&found, &expected, sizeof found) == 0) {
      memset(place, 0, sizeof found);  // a later malloc block at this place must not be taken for this one
      process_counters().freed(found.entry, found.size);
    }
  }
  free(block);
}

void mtrack_ignore_alloc_abort(uint32_t one) {
  abort_ignored.store(one != 0, std::memory_order_relaxed);
}

}  // extern "C"
