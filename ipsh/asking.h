// SPDX-License-Identifier: Apache-2.0
// Requests of the transport to ipd's control service, and their answers.
#ifndef IPSH_ASKING_H
#define IPSH_ASKING_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "exit_code.h"

namespace ipsh {

// A queue of ipsh's own, for the life of this object.
class AskingQueue {
 public:
  AskingQueue();
  ~AskingQueue();
  AskingQueue(const AskingQueue &) = delete;
  AskingQueue &operator=(const AskingQueue &) = delete;
  [[nodiscard]] bool bound() const { return handle_ != ~uint32_t{0}; }
  [[nodiscard]] uint32_t handle() const { return handle_; }

 private:
  uint32_t handle_ = ~uint32_t{0};
};

// Why there is no queue, by errno.
[[nodiscard]] Failure no_queue_failure(int error);

// Asks and waits for the answer. False: *failure; it is `rejected` when ipd answered that it does not.
inline constexpr uint32_t answer_wait_seconds = 10;
[[nodiscard]] bool ask_ipd(uint32_t queue, std::span<const std::byte> question, const Failure &rejected,
                           std::vector<std::byte> *answer, Failure *failure,
                           uint32_t wait_seconds = answer_wait_seconds);

}  // namespace ipsh

#endif
