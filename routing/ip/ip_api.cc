// SPDX-License-Identifier: Apache-2.0
// Start and stop.
//
// The state is one per process and counted: several modules of a process start and stop the library independently. Only
// the first start does anything, only the last stop undoes it.
//
//   detached   attached flag 0, count 0
//   attached   attached flag 1, count at least 1
//   half       attached flag 0, count 0, but a failed start left a lock or a segment behind
//
// A start that fails undoes nothing: the lock stays in ip_client.rwsem_lock and the segment in ip_shseg, and the next
// start overwrites both handles. Callers treat the null result as fatal, and a core dump then shows how far the start
// came. The flag is set last, after everything a query needs is there; queries test it first.
//
// The URIB client is started with the library on the active supervisor only; elsewhere the first route query does it
// (ip_api_urib.h).
#include "ip_api.h"

#include <cstring>

#include "im.h"
#include "ip_api_segment.h"
#include "ip_api_urib.h"
#include "mtrack.h"
#include "report.h"
#include "sm.h"
#include "sysmgr.h"
#include "tsp.h"
#include "urib.h"

extern "C" {

struct ip_client ip_client;
uint32_t ip_api_attached;
uint32_t ip_api_refcnt;
uint32_t ip_is_server_flag;

}  // extern "C"

namespace libip {
namespace {

constexpr uint32_t active_supervisor = 1;
constexpr uint32_t reader_writer_lock = 6;  // the platform's kind of the client lock
constexpr uint32_t initial_flags = 3;
constexpr uint32_t largest_message = 232;
constexpr char component_description[] = "Internet Protocol (IP)";

void dump_segment() {
  SegmentDescriptor segment{};
  std::memcpy(&segment, ip_client.seg_desc, sizeof ip_client.seg_desc);
  debug_line("ip_dump_mem_seg (%s) 0x%x\n", "ip_api_init",
             static_cast<uint32_t>(reinterpret_cast<uintptr_t>(ip_client.seg_desc)));
  debug_line("    id 0x%x bottom 0x%x base 0x%x top 0x%x size 0x%x\n", segment.id, segment.bottom, segment.base,
             segment.top, segment.end - segment.base);
}

// Drops a reference. True: it was the last one, and the caller tears down.
bool drop_reference() {
  if (ip_api_attached == 0) {
    report(msg_error_IP_IP_INTERNAL_ERROR, "IP API not initialised while closing");
    return false;
  }
  return --ip_api_refcnt == 0;
}

}  // namespace

}  // namespace libip

extern "C" {

struct ip_client *ip_api_init(void) {
  using namespace libip;
  if (smm_api_init(0) == 0) report(msg_error_IP_IP_FAILURE, "Failed call smm_api_init()");
  struct ip_client *client = ip_shm_api_init();
  // Also after a failed start, and never with a say in the result: the two have nothing to do with each other.
  if (sysmgr_supstate_get() == active_supervisor) start_urib();
  return client;
}

struct ip_client *ip_shm_api_init(void) {
  using namespace libip;
  if (ip_api_attached != 0) {
    ip_api_refcnt++;
    return &ip_client;
  }
  if (tsp_is_proc_init() != 0) {
    ip_client.rwsem_lock = tsp_create_rwsem_lock(0, reader_writer_lock);
    if (ip_client.rwsem_lock == 0) {
      report(msg_error_IP_IP_FAILURE, "Failed to create rwsem lock in client");
      return nullptr;
    }
  }
  if (ip_attach_shm(ip_client.seg_desc) == 0) {
    report(msg_error_IP_IP_FAILURE, "Failed to attach IP shared memory in client");
    return nullptr;
  }
  if (im_ext_pub_lib_init(IP_COMPONENT, 0, 0) != 0) {
    report(msg_error_IP_IP_FAILURE, "Failed to open IP shared database in client");
    return nullptr;
  }
  if (dbg_api_init != 0 && dbg_ip_api_misc != 0) dump_segment();
  ip_client.flags = initial_flags;
  ip_api_attached = 1;
  ip_api_refcnt++;
  ip_mem_init();
  return &ip_client;
}

uint32_t ip_mem_init(void) {
  using libip::component_description;
  // The tracker may keep the tables.
  static const char *private_names[IP_MEM_MAX];
  static const char *shared_names[IP_SM_MEM_MAX];
  for (uint32_t type = 0; type < IP_MEM_MAX; type++) private_names[type] = __ip_mem_type_t_find(type);
  mtrack_init(component_description, IP_COMPONENT, private_names, IP_MEM_MAX);
  // A failed allocation is reported, not fatal.
  mtrack_ignore_alloc_abort(1);
  for (uint32_t type = 0; type < IP_SM_MEM_MAX; type++) shared_names[type] = __ip_sm_mem_type_t_find(type);
  return mtrack_sm_init(component_description, IP_COMPONENT, shared_names, IP_SM_MEM_MAX);
}

// The two closes differ on purpose: nodeps leaves the lock and the URIB client to those who still use them.
void ip_api_close(void) {
  if (!libip::drop_reference()) return;
  im_ext_pub_lib_close(IP_COMPONENT, 0);
  tsp_destroy_lock(ip_client.rwsem_lock);
  ip_client.rwsem_lock = 0;
  libip::detach_segment();
  urib_api_close();
  ip_api_attached = 0;
}

void ip_api_close_nodeps(void) {
  if (!libip::drop_reference()) return;
  im_ext_pub_lib_close(IP_COMPONENT, 0);
  libip::detach_segment();
  ip_api_attached = 0;
}

struct ip_client *ip_api_init_mts_q(void) {
  if (ip_api_attached == 0) ip_api_attached = 1;
  ip_api_refcnt++;
  return &ip_client;
}

struct ip_client *ip_get_client_pointer(void) {
  return &ip_client;
}

uint32_t ip_get_max_msg_size(void) {
  return libip::largest_message;
}

uint32_t ip_data_queue_get_usage(void) {
  return 0;
}

uint32_t ip_driver_api_init(void) {
  return 1;
}

void ip_driver_api_close(void) {}

}  // extern "C"
