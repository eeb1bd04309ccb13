// SPDX-License-Identifier: Apache-2.0
#include "packet_wire.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>

#include "support/run_directory.h"

namespace test_support {
namespace {

constexpr uint16_t marker_port = 9999;
constexpr auto deadline = std::chrono::seconds(60);
constexpr char separator = ';';

std::vector<std::string> command(const std::string &device, const std::string &filter,
                                 const std::vector<std::string> &fields) {
  std::vector<std::string> words = {"tshark",
                                    "-i",
                                    device,
                                    "-n",
                                    "-l",
                                    "-o",
                                    "ip.check_checksum:TRUE",
                                    "-Y",
                                    "(" + filter + ") or udp.dstport == " + std::to_string(marker_port),
                                    "-T",
                                    "fields",
                                    "-E",
                                    std::string("separator=") + separator,
                                    "-E",
                                    "occurrence=f"};
  for (const std::string &field : fields) {
    words.emplace_back("-e");
    words.push_back(field);
  }
  return words;
}

std::vector<std::string> with_marker(std::vector<std::string> fields) {
  fields.emplace_back("udp.dstport");
  return fields;
}

}  // namespace

PacketWire::PacketWire(const PeerNamespace &peer, const std::string &device, const std::string &filter,
                       std::vector<std::string> fields)
    : fields_(with_marker(std::move(fields))), tshark_(peer.command(command(device, filter, fields_))) {}

PacketWire::~PacketWire() {
  tshark_.signal(SIGINT);  // its capturing child ends with it then
  tshark_.wait();
}

bool PacketWire::captures(const std::string &peer_address) {
  const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(marker_port);
  (void)inet_pton(AF_INET, peer_address.c_str(), &to.sin_addr);
  const bool seen = wait_until(
      [&] {
        (void)sendto(sender, "x", 1, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
        return tshark_.output().find(separator + std::to_string(marker_port) + "\n") != std::string::npos;
      },
      deadline);
  close(sender);
  return seen;
}

std::vector<SeenPacket> PacketWire::packets() {
  std::vector<SeenPacket> found;
  std::istringstream text(tshark_.output().substr(0, tshark_.output().rfind('\n') + 1));
  for (std::string line; std::getline(text, line);) {
    SeenPacket packet;
    std::istringstream rest(line + separator);
    size_t columns = 0;
    for (std::string value; std::getline(rest, value, separator); ++columns) {
      if (columns < fields_.size()) packet[fields_[columns]] = value;
    }
    // Other lines are what tshark says to people.
    if (columns == fields_.size() && packet["udp.dstport"] != std::to_string(marker_port)) found.push_back(packet);
  }
  return found;
}

std::vector<SeenPacket> PacketWire::wait_for(size_t count) {
  (void)wait_until([&] { return packets().size() >= count; }, deadline);
  return packets();
}

}  // namespace test_support
