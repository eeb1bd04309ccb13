// SPDX-License-Identifier: Apache-2.0
#include "icmp_wire.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <sstream>

#include "support/run_directory.h"

namespace ipd_test {
namespace {

constexpr uint16_t mark_port = 9999;
constexpr size_t udp_header = 8;
constexpr auto deadline = std::chrono::seconds(90);

// In the order of IcmpSeen; then what tells marks apart.
constexpr const char *fields[] = {
    "ip.src",    "ip.dst",    "ip.dsfield",           "ip.ttl",   "ip.len",        "ip.id",        "ip.checksum.status",
    "icmp.type", "icmp.code", "icmp.checksum.status", "icmp.mtu", "icmp.redir_gw", "icmp.pointer", "data.data",
    "udp.length"};
constexpr size_t field_count = std::size(fields);

std::vector<std::string> command(const std::string &interface) {
  std::vector<std::string> words{"tshark", "-i", interface, "-n", "-l", "-f", "icmp or udp port 9999"};
  for (const char *word : {"-o", "ip.check_checksum:TRUE", "-T", "fields", "-E", "separator=;"}) {
    words.emplace_back(word);
  }
  for (const char *field : fields) {
    words.emplace_back("-e");
    words.emplace_back(field);
  }
  return words;
}

std::vector<std::string> split(const std::string &line) {
  std::vector<std::string> parts(1);
  for (const char c : line) {
    if (c == ';') {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

// Of all whole lines so far that have all fields.
std::vector<std::vector<std::string>> lines(const std::string &output) {
  std::vector<std::vector<std::string>> found;
  std::istringstream rest(output.substr(0, output.rfind('\n') + 1));
  for (std::string line; std::getline(rest, line);) {
    auto parts = split(line);
    if (parts.size() == field_count) found.push_back(std::move(parts));
  }
  return found;
}

}  // namespace

IcmpWire::IcmpWire(const std::string &interface) : tshark_(command(interface)) {}

IcmpWire::~IcmpWire() {
  tshark_.signal(SIGINT);  // its capturing child ends with it then
  tshark_.wait();
}

bool IcmpWire::mark(int out) {
  const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ip_mreqn by{};
  by.imr_ifindex = out;
  (void)setsockopt(sender, IPPROTO_IP, IP_MULTICAST_IF, &by, sizeof by);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(mark_port);
  to.sin_addr.s_addr = htonl(0xefffffff);
  const std::string bytes(++marks_, 'x');
  const std::string told = std::to_string(udp_header + bytes.size());
  const bool came = test_support::wait_until(
      [&] {
        (void)sendto(sender, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
        const auto all = lines(tshark_.output());
        return std::ranges::any_of(all, [&](const auto &line) { return line[7].empty() && line.back() == told; });
      },
      deadline);
  close(sender);
  return came;
}

std::vector<IcmpSeen> IcmpWire::seen() {
  std::vector<IcmpSeen> found;
  for (const auto &line : lines(tshark_.output())) {
    if (line[7].empty()) continue;
    found.push_back({.source = line[0],
                     .destination = line[1],
                     .tos = line[2],
                     .ttl = line[3],
                     .length = line[4],
                     .identification = line[5],
                     .header_checksum = line[6],
                     .type = line[7],
                     .code = line[8],
                     .checksum = line[9],
                     .mtu = line[10],
                     .gateway = line[11],
                     .pointer = line[12],
                     .data = line[13]});
  }
  return found;
}

std::optional<IcmpSeen> IcmpWire::wait_for(size_t index) {
  std::vector<IcmpSeen> all;
  const bool came = test_support::wait_until(
      [&] {
        all = seen();
        return all.size() > index;
      },
      deadline);
  return came ? std::optional(all[index]) : std::nullopt;
}

}  // namespace ipd_test
