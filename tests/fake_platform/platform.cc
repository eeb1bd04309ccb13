// SPDX-License-Identifier: Apache-2.0
// The state of the fake platform and how a test gets a fresh one. The contract's functions stand in the other files of
// this folder, one per header of the contract.
#include "fake_platform/platform.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "fake_platform/watched_blocks.h"
#include "sm.h"

namespace fake_platform {

Platform &Platform::instance() {
  static Platform the_platform;
  return the_platform;
}

Platform::Platform() {
  reset();
}

void Platform::reset() {
  log.reset();
  scripts.reset();
  memory.reset();

  descriptor = {};
  descriptor.segment_id = 0x11;
  descriptor.bottom = memory.bottom();
  descriptor.base = memory.bottom();
  descriptor.end = memory.bottom() + 0x3000;
  descriptor.top = memory.top();
  descriptor.bounded = SM_SEGMENT_BOUNDED;
  segment = nullptr;
  {
    const std::scoped_lock hold(locks.mutex);
    locks.next_handle = 7;
    locks.depth.clear();
    locks.urib_depth = 0;
    locks.urib_depth_of.clear();
    locks.released_unheld = locks.taken_in_wrong_order = locks.route_used_unlocked = false;
    locks.while_waiting = nullptr;
  }
  supervisor_state = 0;
  uuid = 0x107;
  threads_set_up = true;

  interfaces.clear();
  trees.clear();
  covering_nodes.reset();
  routes.clear();
  paths_handed_in.clear();

  syslog.clear();
  debug_lines.clear();
  command_output.clear();
  formatted.clear();

  next_queue = 100;
  bind_options.fill(0);
  recv_options.fill(0);
  queues.clear();
  queue_options.clear();
  sent.clear();
  replies.clear();
  received.clear();
  next_token = 1;
  vector_allocated = true;
  whole_digests = false;
  free_watched_blocks();

  private_types = {};
  shared_types = {};
  for (const auto &[block, allocation] : allocations) std::free(block);
  allocations.clear();
  before_free = nullptr;
  for (void *buffer : tlv.buffers) std::free(buffer);
  tlv = {};

  sdwrap_sys_facility = nullptr;
  std::fill_n(syslog_vmsg_params, sizeof(syslog_vmsg_params), uint8_t{0xcd});
  for (size_t i = 0; i < sizeof(syslog_preamble); i++) syslog_preamble[i] = static_cast<uint8_t>(0x40 + i);
  log.name(syslog_vmsg_params, "params");
}

void Platform::set_facility(const std::string &name, uint8_t level) {
  facility_name_ = name;
  facility_ = {.name = facility_name_.c_str(), .w4 = 0, .b8 = 0, .level = level};
  sdwrap_sys_facility = &facility_;
}

}  // namespace fake_platform
