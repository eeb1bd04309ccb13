// SPDX-License-Identifier: Apache-2.0
// The platform of a unit test: every call of the contract, in memory. It records each call with its arguments, answers
// from the state below unless a script says otherwise, and counts what must balance.
//
//   platform().interfaces[5].extensions[267] = record;      state
//   platform().scripts.fail("sm_open");                     a call that fails
//   EXPECT_EQ(platform().log.lines(), ...);                 what was called, in order
//
// One platform per process; reset() between tests. The log, the scripts and the lock counts may be used from several
// threads at once; the rest is set up before the threads start.
#ifndef TESTS_FAKE_PLATFORM_PLATFORM_H
#define TESTS_FAKE_PLATFORM_PLATFORM_H

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fake_platform/call_log.h"
#include "fake_platform/low_memory.h"
#include "fake_platform/scripts.h"
#include "log.h"
#include "urib.h"

namespace fake_platform {

// What sm_open hands out. Members between those named are the platform's.
struct SegmentDescriptor {
  uint8_t r0[84];
  uint32_t segment_id;
  uint32_t bottom;
  uint32_t base;
  uint32_t end;
  uint32_t top;
  uint32_t bounded;
  uint8_t r108[80];
  uint32_t root;
};
static_assert(offsetof(SegmentDescriptor, segment_id) == 84);
static_assert(offsetof(SegmentDescriptor, top) == 100);
static_assert(offsetof(SegmentDescriptor, root) == 188);

struct LockCounts {
  std::mutex mutex;
  uint32_t next_handle = 7;
  std::map<uint32_t, int> depth;  // by handle: acquisitions not yet released
  int urib_depth = 0;
  std::map<std::thread::id, int> urib_depth_of;  // by thread; a release of what is not held is nothing
  bool released_unheld = false;                  // some release came without its acquisition
  bool taken_in_wrong_order = false;             // a database lock was taken by a thread that held URIB's
  bool route_used_unlocked = false;              // a route was looked up or looked at without URIB's lock

  // Runs before an acquisition of a database lock returns: what other processes did while the caller waited.
  std::function<void()> while_waiting;
};

struct Interface {
  uint32_t ifindex = 0;
  std::string name;
  uint32_t mtu = 1500;
  bool up = true;
  bool admin_up = true;
  uint32_t context_id = 0;
  uint32_t table_id = 0;
  std::map<uint32_t, void *> extensions = {};  // by component
};

struct TreeEntry {
  uint32_t key;  // host order
  uint32_t length;
  void *node;
};
struct Tree {
  std::vector<TreeEntry> entries;  // ascending by key, then by length
  void insert(uint32_t key, uint32_t length, void *node);
};

struct MulticastNextHop {
  uint32_t iod;
  uint32_t addr;
};
struct Route {
  uint32_t table = 0;
  uint32_t addr = 0;
  uint32_t length = 32;
  bool local = false;
  bool attached = false;
  bool direct = false;
  bool multicast = false;  // in the multicast table
  bool multicast_static = false;
  uint32_t first_iod = 0;
  uint32_t first_data = 0;  // of the first best next hop; 0xdeadbeef marks a dead one
  uint32_t path_table = 0;  // where a path through this route ends when it was leaked; 0: in its own table
  std::map<uint32_t, MulticastNextHop> multicast_next_hops = {};  // by selector
};

struct SyslogLine {
  uint32_t severity;
  std::string format;  // as it was handed in
  std::string text;    // formatted with its arguments
  std::array<uint8_t, 1024> parameters;
};
struct Formatted {  // a bounded formatting: its limit and what it gave
  size_t limit;
  std::string text;
};

struct Message {
  uint32_t opcode = 0;
  std::vector<uint8_t> payload = {};
  bool reject = false;
  uint32_t token = 0;
};
struct SentMessage {
  uint32_t queue, node, sap, opcode;
  std::vector<uint8_t> payload;
  bool with_options;
  std::array<uint32_t, 17> options;
  std::vector<std::vector<uint8_t>> pieces;  // of a packet, as they were when the message left
};

struct TlvLibrary {
  std::vector<uint8_t> encoded;  // what an encoding hands out, and a decoding; empty: null
  std::vector<uint8_t> decoded;
  uint32_t record_size = 0;    // of any TLV buffer
  std::set<void *> buffers;    // handed out and not yet freed
  bool freed_unknown = false;  // a buffer was freed that was none, or twice
};

struct MemoryTypes {
  std::string description;
  uint32_t component = 0;
  std::vector<std::string> names;
};
struct Allocation {
  uint32_t component, type, size;
};

class Platform {
 public:
  static Platform &instance();
  void reset();

  // The facility that messages are reported under, null until this is called.
  void set_facility(const std::string &name, uint8_t level);

  CallLog log;
  Scripts scripts;
  LowMemory memory;

  SegmentDescriptor descriptor{};
  void *segment = nullptr;  // what a successful sm_open stores; null: it stores nothing
  LockCounts locks;
  uint32_t supervisor_state = 0;  // 1: the one in which URIB may be used
  uint32_t uuid = 0x107;
  bool threads_set_up = true;

  std::map<uint32_t, Interface> interfaces;  // by iod
  std::map<const void *, Tree> trees;        // by the handle in local_pt
  // What pt_lookup_return_leafs hands out instead of what covers the key; a null among them is possible.
  std::optional<std::vector<void *>> covering_nodes;
  std::deque<Route> routes;
  std::vector<urib_path> paths_handed_in;  // to urib_get_path_v2, as they were on entry

  std::vector<SyslogLine> syslog;
  std::vector<std::string> debug_lines;
  std::vector<std::string> command_output;
  std::vector<Formatted> formatted;

  uint32_t next_queue = 100;
  std::array<uint32_t, 6> bind_options{};   // of the last bind
  std::array<uint32_t, 10> recv_options{};  // of the last receive
  std::map<uint32_t, int32_t> queues;       // bound: queue -> sap
  std::map<uint32_t, uint32_t> queue_options;
  std::vector<SentMessage> sent;
  std::deque<Message> replies;  // what mts_recv hands out, in order
  std::map<const void *, Message> received;
  uint32_t next_token = 1;
  bool whole_digests = false;    // digests are not cut to what is asked for
  bool vector_allocated = true;  // what a conversion of a packet says of its vector

  MemoryTypes private_types, shared_types;
  std::map<void *, Allocation> allocations;  // not yet freed
  // Runs before a block is freed: its last contents.
  std::function<void(const void *block)> before_free;

  TlvLibrary tlv;

 private:
  Platform();
  libip_facility facility_{};
  std::string facility_name_;
};

inline Platform &platform() {
  return Platform::instance();
}

}  // namespace fake_platform

#endif
