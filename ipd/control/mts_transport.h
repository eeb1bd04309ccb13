// SPDX-License-Identifier: Apache-2.0
// A queue that ipd serves: of requests, or of packets.
#ifndef IPD_CONTROL_MTS_TRANSPORT_H
#define IPD_CONTROL_MTS_TRANSPORT_H

#include <functional>
#include <memory>
#include <string>

#include "ipd/control/transport.h"

namespace ipd::control {

class MtsTransport final : public Transport {
 public:
  enum class Reading {
    empty,   // nothing is left
    more,    // something may be left
    broken,  // the queue is no queue any more
  };

  // Binds the SAP, keeps the queue's handle in *queue as long as it lives, and opens it: messages wait from now on.
  // Null: *reason.
  static std::unique_ptr<MtsTransport> open(uint32_t *queue, uint32_t sap, std::string *reason);
  ~MtsTransport() override;
  MtsTransport(const MtsTransport &) = delete;
  MtsTransport &operator=(const MtsTransport &) = delete;

  // Readable whenever read() would find something.
  [[nodiscard]] int descriptor() const;
  // Takes what has arrived, but not more than `most`, in order. `arrived` gets each message, and `gone` each sender
  // whose queue ended, behind the last that it sent.
  Reading read(size_t most, const std::function<void(const Request &)> &arrived,
               const std::function<void(const Sender &)> &gone, std::string *reason);
  [[nodiscard]] static bool sender_in_group(const Request &request, uint32_t gid);

  int send(const Sender &to, uint32_t opcode, std::span<const std::byte> message) override;
  // With a packet behind the message.
  int send(const Sender &to, uint32_t opcode, std::span<const std::byte> message, std::span<const std::byte> packet);
  int answer(const Request &request, std::span<const std::byte> message) override;
  int reject(const Request &request) override;
  void hang_up(const Request &request) override;

 private:
  explicit MtsTransport(uint32_t *queue) : queue_(*queue) {}

  uint32_t &queue_;
};

}  // namespace ipd::control

#endif
