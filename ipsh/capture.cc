// SPDX-License-Identifier: Apache-2.0
#include "capture.h"

#include <fmt/format.h>
#include <poll.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "holder.h"
#include "pcapng.h"
#include "snapshot.h"

namespace ipsh {
namespace {

// Where packets go: a file or people.
class Sink {
 public:
  Sink(std::string name, void (*show)(const CapturedRow &row)) : name_(std::move(name)), show_(show) {}
  ~Sink() {
    if (own_) std::fclose(file_);
  }
  Sink(const Sink &) = delete;
  Sink &operator=(const Sink &) = delete;

  bool open() {
    if (name_.empty()) return true;
    own_ = name_ != "-";
    file_ = own_ ? std::fopen(name_.c_str(), "wbe") : stdout;
    if (file_ == nullptr) own_ = false;
    return file_ != nullptr && write(PcapngWriter::section("ipsh"));
  }
  // A message without a packet has nothing to show in a file.
  bool take(const CapturedRow &row) {
    if (file_ == nullptr) {
      show_(row);
      return true;
    }
    dropped_ += row.packet.dropped;
    if (row.packet.length == 0) return true;
    const bool good = write(writer_.packet(row.interface.empty() ? "any" : row.interface,
                                           {.nanoseconds = row.packet.seconds * 1000000000 + row.packet.nanoseconds,
                                            .outbound = !row.packet.to_client,
                                            .dropped = dropped_,
                                            .length = row.packet.length,
                                            .bytes = row.packet.bytes,
                                            .comment = comment_text(row)}));
    dropped_ = 0;
    return good;
  }
  [[nodiscard]] Failure failure() const {
    return {errno == EACCES || errno == EPERM ? ExitCode::permission : ExitCode::usage,
            fmt::format("capture: {} cannot be written: {}", name_ == "-" ? "standard output" : name_,
                        std::strerror(errno)),
            ""};
  }

 private:
  bool write(const std::vector<uint8_t> &bytes) {
    return std::fwrite(bytes.data(), 1, bytes.size(), file_) == bytes.size() && std::fflush(file_) == 0;
  }

  std::string name_;
  void (*show_)(const CapturedRow &row);
  std::FILE *file_ = nullptr;  // null: none, they are shown
  bool own_ = false;
  PcapngWriter writer_;
  uint64_t dropped_ = 0;  // not written down yet
};

std::string interface_text(uint32_t iod) {
  if (iod == 0) return "";
  const std::string name = interface_name(iod);
  return name.empty() ? fmt::format("iod {}", iod) : name;
}

void sum_up(uint64_t captured, uint64_t dropped) {
  fmt::print(stderr, "ipsh: {} captured, {} not captured for want of room\n", captured, dropped);
}

}  // namespace

ExitCode capture(const CaptureOrder &order, void (*show)(const CapturedRow &row), Failure *failure) {
  Sink sink(order.file, show);
  const EndSignals signals;
  const std::unique_ptr<CaptureStream> stream = CaptureStream::open(order.filter, failure);
  if (stream == nullptr) return failure->code;
  if (!sink.open()) {
    *failure = sink.failure();
    return failure->code;
  }
  uint64_t captured = 0, dropped = 0;
  fmt::print(stderr, "ipsh: capturing\n");
  while (!signals.pending()) {
    CapturedPacket packet;
    const CaptureStream::Next next = stream->next(&packet);
    if (next == CaptureStream::Next::ipd_gone) {
      sum_up(captured, dropped);
      *failure = {ExitCode::unavailable, "capture: ipd is gone", "capture again when it is back"};
      return failure->code;
    }
    if (next == CaptureStream::Next::nothing) {
      pollfd events[2] = {{stream->descriptor(), POLLIN, 0}, {signals.descriptor(), POLLIN, 0}};
      (void)poll(events, 2, -1);
      continue;
    }
    dropped += packet.dropped;
    const uint32_t iod = packet.iod;
    if (!sink.take(row_of(std::move(packet), interface_text(iod)))) {
      *failure = sink.failure();
      return failure->code;
    }
    if (++captured == order.count) break;
  }
  sum_up(captured, dropped);
  return captured == 0 ? ExitCode::none : ExitCode::found;
}

}  // namespace ipsh
