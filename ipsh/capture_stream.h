// SPDX-License-Identifier: Apache-2.0
// Packets that pass ipd's packet service, as ipd tells of them.
#ifndef IPSH_CAPTURE_STREAM_H
#define IPSH_CAPTURE_STREAM_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "asking.h"
#include "exit_code.h"
#include "ip_show.h"

namespace ipsh {

struct CapturedPacket {
  uint64_t seconds = 0;  // since 1970
  uint32_t nanoseconds = 0;
  uint32_t dropped = 0;        // that ipd could not tell of, before this one
  bool to_client = false;      // else from one
  uint32_t client = 0;         // its process
  uint32_t minor = 0;          // IP_MSG_...
  uint32_t iod = 0;            // that the message names; 0: none
  uint32_t outcome = 0;        // IP_SHOW_PACKET_...
  uint32_t length = 0;         // of the packet
  std::vector<uint8_t> bytes;  // the first of them
};

// What a record says. False: it is none.
[[nodiscard]] bool parse_captured(std::span<const std::byte> message, CapturedPacket *packet);

// Which packets.
struct CaptureFilter {
  uint32_t snap_len = 0;  // bytes of each; 0: all
  uint32_t directions = IP_SHOW_FROM_CLIENT | IP_SHOW_TO_CLIENT;
  uint32_t iod = 0;  // 0: any
  uint32_t protocol = IP_CAPTURE_ANY_PROTOCOL;
  uint32_t client = 0;  // 0: any
};

class CaptureStream {
 public:
  // From now on ipd keeps what passes for this process. Null: *failure.
  static std::unique_ptr<CaptureStream> open(const CaptureFilter &filter, Failure *failure);

  // Readable when there may be something.
  [[nodiscard]] int descriptor() const;
  enum class Next { packet, nothing, ipd_gone };
  // Does not wait.
  Next next(CapturedPacket *packet);

 private:
  CaptureStream() = default;
  AskingQueue queue_;  // its end is the end of the capture
};

}  // namespace ipsh

#endif
