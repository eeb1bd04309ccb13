// SPDX-License-Identifier: Apache-2.0
// Shared segments, the system manager, and the C library's shm_unlink, which a platform provides as well.
#include "fake_platform/platform.h"
#include "sm.h"
#include "sysmgr.h"

using fake_platform::platform;

uint32_t sm_open(const char *name, void **handle, uint32_t a0, uint32_t a1, uint32_t a17) {
  platform().log.call(__func__, name, static_cast<const void *>(handle), a0, a1, a17);
  const uint32_t status = platform().scripts.result<uint32_t>(__func__, 0, 0x10002);
  if ((status & 0xffff) == 0 && platform().segment != nullptr) *handle = platform().segment;
  return status;
}

uint32_t sm_close(void *handle) {
  platform().log.call(__func__, static_cast<const void *>(handle));
  return platform().scripts.result<uint32_t>(__func__, 0, 1);
}

uint32_t smm_api_init(uint32_t zero) {
  platform().log.call(__func__, zero);
  return platform().scripts.result<uint32_t>(__func__, 1, 0);
}

uint32_t sysmgr_supstate_get(void) {
  platform().log.call(__func__);
  return platform().scripts.result<uint32_t>(__func__, platform().supervisor_state, 0);
}

uint32_t sysmgr_uuid_get(void) {
  platform().log.call(__func__);
  return platform().scripts.result<uint32_t>(__func__, platform().uuid, 0);
}

extern "C" __attribute__((visibility("default"))) int shm_unlink(const char *name) noexcept {
  platform().log.call(__func__, name);
  return platform().scripts.result<int>(__func__, 0, -1);
}
