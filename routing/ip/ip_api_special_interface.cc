// SPDX-License-Identifier: Apache-2.0
// The special interface: the one that counts as enabled for IP, forwarding and multicast whatever its record says.
//
// It is named by its interface index, at start-up, often before the interface manager knows the interface. So the iod
// is looked up when a question first needs it, and as long as that fails the answer is no. Once found it is kept for
// good, even if another interface is named later: whoever acted on the first answer would not learn of a second one.
#include "im.h"
#include "ip_api.h"

extern "C" {

uint32_t g_ip_fwd_enabled_spl_ifidx;
uint32_t g_ip_fwd_enabled_spl_iod;

void set_fwd_enabled_spl_ifidx(uint32_t ifidx) {
  g_ip_fwd_enabled_spl_ifidx = ifidx;
}

uint32_t is_fwd_enabled_spl_iod(uint32_t iod) {
  // Relaxed, like the store below: threads that look up at once find and store the same number, and nothing hangs on
  // it.
  const uint32_t known = __atomic_load_n(&g_ip_fwd_enabled_spl_iod, __ATOMIC_RELAXED);
  if (known != 0) return known == iod ? 1 : 0;
  if (g_ip_fwd_enabled_spl_ifidx == 0) return 0;
  uint32_t found = 0;
  // The number that was stored decides, not the status: a platform may give both.
  im_get_iod_frm_ifindex(g_ip_fwd_enabled_spl_ifidx, &found);
  if (found == 0) return 0;
  __atomic_store_n(&g_ip_fwd_enabled_spl_iod, found, __ATOMIC_RELAXED);
  return found == iod ? 1 : 0;
}

}  // extern "C"
