// SPDX-License-Identifier: Apache-2.0
// Attaching ipsh to the running system, with a reason a person can act on when that is not possible.
#ifndef IPSH_ATTACHMENT_H
#define IPSH_ATTACHMENT_H

#include <cstdint>
#include <memory>
#include <string>

#include "exit_code.h"
#include "sm/segment_map.h"

namespace ipsh {

// The process's attachment to the shared database, through libip; detached by its destructor.
class Attachment {
 public:
  // Null: *failure says why (permission, or unavailable) and what to do. Does not print.
  static std::unique_ptr<Attachment> open(Failure *failure);
  ~Attachment();
  Attachment(const Attachment &) = delete;
  Attachment &operator=(const Attachment &) = delete;

  [[nodiscard]] const rsw::SegmentHeader *database() const { return database_->header(); }
  // False: the answers are the last state of an ipd that is gone.
  [[nodiscard]] bool writer_runs() const;
  // True: another database file has taken the place of the one that is mapped here; nothing new will show in ours.
  [[nodiscard]] bool replaced() const;

 private:
  explicit Attachment(std::shared_ptr<rsw::SegmentMap> database) : database_(std::move(database)) {}
  std::shared_ptr<rsw::SegmentMap> database_;
};

// True when a process of that id exists.
[[nodiscard]] bool process_exists(uint32_t pid);

}  // namespace ipsh

#endif
