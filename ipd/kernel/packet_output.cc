// SPDX-License-Identifier: Apache-2.0
#include "ipd/kernel/packet_output.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "ipd/kernel/send_outcome.h"

namespace ipd::kernel {
namespace {

class PacketSocket final : public PacketOutput {
 public:
  PacketSocket() = default;
  ~PacketSocket() override {
    if (socket_ >= 0) close(socket_);
  }
  PacketSocket(const PacketSocket &) = delete;
  PacketSocket &operator=(const PacketSocket &) = delete;

  packet::Outcome send(uint32_t ifindex, std::span<const std::byte> frame) override {
    if (socket_ < 0) {
      socket_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);  // protocol 0: it receives nothing
      const int error = socket_ < 0 ? errno : 0;
      if (error != 0) return outcome_of_opening(error, "a packet socket", &logged_);
    }
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(ETH_P_IP);
    to.sll_ifindex = static_cast<int>(ifindex);
    const ssize_t sent =
        sendto(socket_, frame.data(), frame.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
    return outcome_of_sending(sent < 0 ? errno : 0);
  }

 private:
  int socket_ = -1;
  bool logged_ = false;
};

}  // namespace

std::unique_ptr<PacketOutput> PacketOutput::over_packet_socket() {
  return std::make_unique<PacketSocket>();
}

}  // namespace ipd::kernel
