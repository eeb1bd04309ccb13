// SPDX-License-Identifier: Apache-2.0
// The writer's side of the interface table, segment "/rsw/shm/im".
#ifndef RSW_IM_IM_WRITER_H
#define RSW_IM_IM_WRITER_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sm/arena.h"

namespace rsw {

struct ImInterface {
  uint32_t ifindex;
  std::string name;  // at most 39 characters
  bool up;           // carrier and administratively up
  bool admin_up;
  bool loopback;
  uint32_t mtu;
  uint32_t context_id;
  uint32_t table_id;
  bool operator==(const ImInterface &) const = default;
};

// What ipsh and tests read back about one interface; no lock needed, all values are of one moment.
struct ImView {
  uint32_t iod, ifindex;
  char name[40];
  bool up, admin_up, loopback;
  uint32_t mtu, context_id, table_id;
};

class RSW_EXPORT ImWriter {
 public:
  // Makes or takes over the table; after a take-over the previous writer's interfaces are in it. Waits for the
  // quarantine where what writers left takes too much of the window (sm/make_room.h); all questions are answered
  // meanwhile.
  static std::unique_ptr<ImWriter> open(Epochs &epochs, std::string *reason, ArenaLimits limits = {});
  virtual ~ImWriter() = default;

  // The iod of that interface: an existing one (same ifindex) is changed, rename included, else a fresh iod is given.
  // 0: the table is full.
  virtual uint32_t set(const ImInterface &interface) = 0;
  // The iod is not given again until every reader has moved on and all lower free iods were used, at least a minute
  // later as long as the table has room.
  virtual void remove(uint32_t iod) = 0;
  [[nodiscard]] virtual uint32_t find(uint32_t ifindex) const = 0;  // iod or 0
  [[nodiscard]] virtual const ImInterface *get(uint32_t iod) const = 0;
  [[nodiscard]] virtual std::vector<uint32_t> iods() const = 0;
  // The record that lcache_im_get_extension1(iod, component) answers; null takes it away.
  virtual void set_extension(uint32_t iod, uint32_t component, void *record) = 0;
  // That record as the table has it, which after a take-over is the previous writer's word: not checked. Null: none.
  [[nodiscard]] virtual void *extension(uint32_t iod, uint32_t component) const = 0;
  virtual bool publish_name(std::string *reason) = 0;
  virtual void publish_generation() = 0;
  virtual void tick(std::chrono::steady_clock::time_point now) = 0;
  [[nodiscard]] virtual std::vector<RecordTypeUse> use() const = 0;
};

// Reader side beyond the contract.
RSW_EXPORT bool im_view(uint32_t iod, ImView *view);
// Every interface, with or without an extension: loopbacks first, then by ifindex. 0 starts and ends.
RSW_EXPORT uint32_t im_next_iod(uint32_t previous);
// The table's header, for wait_for_generation; null when the table cannot be attached.
RSW_EXPORT const SegmentHeader *im_header();

}  // namespace rsw

#endif
