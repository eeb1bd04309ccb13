// SPDX-License-Identifier: Apache-2.0
// The memory tracker: the tables of type names that were registered, and the blocks that are still out.
#include "mtrack.h"

#include <cstdlib>

#include "fake_platform/platform.h"
#include "fake_platform/watched_blocks.h"

using fake_platform::MemoryTypes;
using fake_platform::platform;

namespace {

void take(MemoryTypes &types, const char *description, uint32_t component, const char **names, uint32_t count) {
  types = {.description = description, .component = component, .names = {}};
  for (uint32_t i = 0; i < count; i++) types.names.emplace_back(names[i] != nullptr ? names[i] : "(null)");
}

}  // namespace

uint32_t mtrack_init(const char *desc, uint32_t component, const char **names, uint32_t count) {
  platform().log.call(__func__, desc, component, fake_platform::Bare{"names"}, count);
  take(platform().private_types, desc, component, names, count);
  return platform().scripts.result<uint32_t>(__func__, 1, 0);
}

uint32_t mtrack_sm_init(const char *desc, uint32_t component, const char **names, uint32_t count) {
  platform().log.call(__func__, desc, component, fake_platform::Bare{"names"}, count);
  take(platform().shared_types, desc, component, names, count);
  return platform().scripts.result<uint32_t>(__func__, 1, 0);
}

// Returned blocks are not zeroed: 0xa5 shows a caller that relies on what it did not write.
void *mtrack_alloc(uint32_t component, uint32_t type, uint32_t size) {
  platform().log.call(__func__, component, type, size);
  if (platform().scripts.result<uint32_t>(__func__, 1, 0) == 0) return nullptr;
  void *block = std::malloc(size);
  for (uint32_t i = 0; i < size; i++) static_cast<uint8_t *>(block)[i] = 0xa5;
  platform().allocations[block] = {.component = component, .type = type, .size = size};
  return block;
}

void mtrack_free(void *block) {
  const char *watched = fake_platform::end_watch(block);
  const char *shown = watched != nullptr ? watched : "block";
  platform().log.call(__func__, fake_platform::Bare{block == nullptr ? "null" : shown});
  if (platform().before_free) platform().before_free(block);
  platform().allocations.erase(block);
  std::free(block);
}

void mtrack_ignore_alloc_abort(uint32_t one) {
  platform().log.call(__func__, one);
}
