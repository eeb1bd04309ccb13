// SPDX-License-Identifier: Apache-2.0
// Locks that only count: a test sees what is held, and what was released without being held.
#include "fake_platform/platform.h"
#include "tsp.h"

using fake_platform::platform;

uint32_t tsp_is_proc_init(void) {
  platform().log.call(__func__);
  return platform().scripts.result<uint32_t>(__func__, platform().threads_set_up ? 1 : 0, 0);
}

uint32_t tsp_create_rwsem_lock(uint32_t zero, uint32_t kind6) {
  platform().log.call(__func__, zero, kind6);
  uint32_t handle = 0;
  {
    const std::scoped_lock hold(platform().locks.mutex);
    handle = platform().locks.next_handle++;
  }
  return platform().scripts.result<uint32_t>(__func__, handle, 0);
}

void tsp_destroy_lock(uint32_t lock) {
  platform().log.call(__func__, lock);
}

void tsp_lock_acquire_rdlock(uint32_t lock) {
  platform().log.call(__func__, lock);
  const std::scoped_lock hold(platform().locks.mutex);
  platform().locks.depth[lock]++;
  if (platform().locks.urib_depth_of[std::this_thread::get_id()] > 0) platform().locks.taken_in_wrong_order = true;
  if (platform().locks.while_waiting) platform().locks.while_waiting();
}

void tsp_lock_release_rdlock(uint32_t lock) {
  platform().log.call(__func__, lock);
  const std::scoped_lock hold(platform().locks.mutex);
  if (--platform().locks.depth[lock] < 0) platform().locks.released_unheld = true;
}

void tsp_before_yield(void) {
  platform().log.call(__func__);
}
void tsp_after_yield(void) {
  platform().log.call(__func__);
}
