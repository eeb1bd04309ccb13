// SPDX-License-Identifier: Apache-2.0
// The shared segment: attaching it, finding its root record, taking its name away.
//
// An attach leaves its addresses in three places. ip_shseg, ip_api_data, ip_api_mpib and ip_api_contexts_queue are what
// queries use. The addr_ words and the three text buffers are for whoever reads a core dump: a stop clears only the
// handle and the root, the rest keeps the last addresses, which is why every query tests ip_api_attached first. And the
// window bounds what a walk may follow (walks.h).
#include "ip_api_segment.h"

#include <sys/mman.h>

#include <cstdio>
#include <cstring>

#include "ip_api.h"
#include "report.h"
#include "sm.h"
#include "walks.h"

extern "C" {

void *ip_shseg;
void *ip_api_data;
void *ip_api_mpib;
void *ip_api_contexts_queue;
void *addr_ip_shseg;
void *addr_ip_api_data;
void *addr_ip_api_mpib;

}  // extern "C"

namespace libip {

Window window = Window::unbounded();

namespace {

constexpr char segment_name[] = "/rsw/shm/ip";
constexpr uint32_t low_half = 0xffff;  // of a status: 0 is success

// Text for a core dump; no code reads it.
[[gnu::used]] char segment_text[64];
[[gnu::used]] char root_text[64];
[[gnu::used]] char second_part_text[64];

void *address(uint32_t word) {
  return reinterpret_cast<void *>(static_cast<uintptr_t>(word));
}

}  // namespace

void detach_segment() {
  window = Window::unbounded();
  if (ip_shseg == nullptr) return;
  sm_close(ip_shseg);
  ip_shseg = nullptr;
  ip_api_data = nullptr;
}

}  // namespace libip

extern "C" {

uint32_t ip_attach_shm(void *dest) {
  using namespace libip;
  const uint32_t status = sm_open(segment_name, &ip_shseg, 0, 1, 17);
  if ((status & low_half) != 0) {
    if (dbg_ip_api_misc != 0) {
      syslog_perror("IP-API: ip_attach_shm: shm_open");
      debug_line("IP: Couldn't get shared memory\n");
    }
    return 0;
  }
  if (ip_shseg == nullptr) {
    snprintf(segment_text, sizeof segment_text, "Unable to open IP_NAME");
    return 0;
  }
  const auto *descriptor = static_cast<const SegmentDescriptor *>(ip_shseg);
  addr_ip_shseg = ip_shseg;
  snprintf(segment_text, sizeof segment_text, " ip_shseg: %p \n", ip_shseg);
  const uint32_t root = descriptor->root;
  addr_ip_api_data = address(root);
  snprintf(root_text, sizeof root_text, " api_data: %p \n", addr_ip_api_data);
  if (dest != nullptr) std::memcpy(dest, descriptor, sizeof ip_client.seg_desc);

  window = descriptor->bounded == SM_SEGMENT_BOUNDED ? Window::of_segment(descriptor->bottom, descriptor->top, root)
                                                     : Window::unbounded();
  ip_api_data = address(root);
  ip_api_mpib = address(root + static_cast<uint32_t>(offsetof(ip_root, second_part)));
  addr_ip_api_mpib = ip_api_mpib;
  snprintf(second_part_text, sizeof second_part_text, " ip_mpib: %p \n", ip_api_mpib);
  ip_api_contexts_queue = ip_api_data;
  return 1;
}

uint32_t ip_remove_shm(void) {
  shm_unlink(libip::segment_name);
  return 1;
}

}  // extern "C"
