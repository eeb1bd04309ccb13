// SPDX-License-Identifier: Apache-2.0
// What a process asked ipd for ends with the process. So an ipsh that joins stays, and another one can tell it to end:
// it asks each of them, over their queues, whether it holds the thing in question.
#ifndef IPSH_HOLDER_H
#define IPSH_HOLDER_H

#include <cstdint>
#include <optional>

#include "exit_code.h"
#include "requests.h"

namespace ipsh {

// By this name, their queues are found.
inline constexpr char holder_queue_name[] = "ipsh holding";

// SIGINT and SIGTERM are taken as the end of holding, from here on.
class EndSignals {
 public:
  EndSignals();
  ~EndSignals();
  EndSignals(const EndSignals &) = delete;
  EndSignals &operator=(const EndSignals &) = delete;
  [[nodiscard]] int descriptor() const { return descriptor_; }
  [[nodiscard]] bool pending() const;

 private:
  int descriptor_;
};

enum class HoldEnd {
  signal,
  time,   // the seconds are over
  asked,  // by another ipsh; `release` ran before it was answered
  ipd_gone,
};

// Stays until it ends. `release` gives back what is held; it runs but when ipd is gone.
HoldEnd hold(const Client &client, const EndSignals &signals, const RequestRow &row, std::optional<double> seconds,
             void (*release)(const RequestRow &row));

// Tells every ipsh that holds the row's thing to end; `queue` is who asks. Results: how many did; *denied: some belong
// to another user.
uint32_t end_holders(uint32_t queue, const RequestRow &row, bool *denied);

}  // namespace ipsh

#endif
