// SPDX-License-Identifier: Apache-2.0
// A fixed table of atomic words: it is looked at from inside free, by every thread, so it must not allocate or lock.
#include "fake_platform/watched_blocks.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "fake_platform/platform.h"

namespace fake_platform {
namespace {

struct Watch {
  std::atomic<const char *> name = nullptr;
  std::atomic<const void *> block = nullptr;  // null: the row is free
};
std::array<Watch, 8> watches;

Watch *watch_of(const void *block) {
  if (block == nullptr) return nullptr;
  for (Watch &watch : watches) {
    // Acquire: the name was stored before the block was, in watch_block.
    if (watch.block.load(std::memory_order_acquire) == block) return &watch;
  }
  return nullptr;
}

}  // namespace

void watch_block(const void *block, const char *name) {
  for (Watch &watch : watches) {
    // Relaxed: only the test's own thread makes packets.
    if (watch.block.load(std::memory_order_relaxed) != nullptr) continue;
    watch.name.store(name, std::memory_order_relaxed);
    // Release: the partner of watch_of.
    watch.block.store(block, std::memory_order_release);
    return;
  }
  std::fputs("watch_block: too many blocks\n", stderr);
  std::abort();
}

const char *watched_name(const void *block) {
  const Watch *watch = watch_of(block);
  return watch == nullptr ? nullptr : watch->name.load(std::memory_order_relaxed);
}

const char *end_watch(const void *block) {
  Watch *watch = watch_of(block);
  if (watch == nullptr) return nullptr;
  watch->block.store(nullptr, std::memory_order_release);
  return watch->name.load(std::memory_order_relaxed);
}

void block_is_freed(const void *block) {
  if (const char *name = end_watch(block); name != nullptr) platform().log.call("free", Bare{name});
}

std::vector<std::string> unreleased_blocks() {
  std::vector<std::string> names;
  for (const Watch &watch : watches) {
    if (watch.block.load(std::memory_order_acquire) != nullptr) names.emplace_back(watch.name.load());
  }
  return names;
}

void free_watched_blocks() {
  for (Watch &watch : watches) {
    const void *block = watch.block.load(std::memory_order_acquire);
    watch.block.store(nullptr, std::memory_order_release);
    std::free(const_cast<void *>(block));
  }
}

}  // namespace fake_platform
