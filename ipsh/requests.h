// SPDX-License-Identifier: Apache-2.0
// What ipsh asks ipd to do, as any other client asks it: through the library's exported functions.
#ifndef IPSH_REQUESTS_H
#define IPSH_REQUESTS_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "attachment.h"
#include "exit_code.h"

namespace ipsh {

// A request, and what became of it.
enum class RequestKind { join, leave, configure, unnumbered_set, unnumbered_unset, multicast_on, multicast_off };
[[nodiscard]] const char *to_text(RequestKind kind);

enum class RequestState { done, held, ended, refused, none };
[[nodiscard]] const char *to_text(RequestState state);

struct RequestRow {
  explicit RequestRow(RequestKind wanted) : kind(wanted) {}
  RequestKind kind;
  RequestState state = RequestState::none;
  uint32_t iod = 0;
  std::string interface;
  uint32_t group = 0, source = 0;  // host order; 0: none
  uint32_t addr = 0;               // host order; 0: none
  uint8_t mask_len = 0;            // of addr
  std::string lender;
  std::optional<uint32_t> status;  // IP_CONFIG_STATUS_...
  uint32_t result = 0;             // more about the status; 0: nothing more
};

// "10.0.0.1/24 on eth0 (iod 2)".
[[nodiscard]] std::string subject_text(const RequestRow &row);
// What a status says, in words.
[[nodiscard]] std::string status_text(uint32_t status, uint32_t result);
// How ipsh ends with it.
[[nodiscard]] ExitCode exit_code_of_status(uint32_t status);

// This process as a client of a running ipd: attached, registered, with a queue for its requests. What it was given
// ends with it.
class Client {
 public:
  // Its queue is known under a name. Null: *failure, which is also what an ipd is that does not answer in so many
  // seconds.
  static std::unique_ptr<Client> open(const char *queue_name, uint32_t seconds, Failure *failure);
  ~Client();
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  [[nodiscard]] uint32_t queue() const { return queue_; }
  // Whether ipd refused anything that this process sent. Nothing: ipd does not say.
  [[nodiscard]] std::optional<bool> was_refused() const;
  // Waits until the shared database says what is asked for. False: not in so many seconds.
  [[nodiscard]] bool wait_until(const std::function<bool()> &holds, uint32_t seconds) const;

 private:
  Client() = default;
  std::unique_ptr<Attachment> attachment_;
  uint32_t queue_ = ~0u;
  std::string name_;  // of the registration; empty: none
};

// Why a request that was sent is not seen in the database.
[[nodiscard]] Failure not_done(const RequestRow &row, uint32_t seconds);
// Why ipd refused one.
[[nodiscard]] Failure refused(const RequestRow &row);
// Why the library did not send one.
[[nodiscard]] Failure not_sent(const RequestRow &row);

}  // namespace ipsh

#endif
