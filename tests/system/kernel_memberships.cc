// SPDX-License-Identifier: Apache-2.0
#include "kernel_memberships.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "support/process.h"

namespace test_support {
namespace {

constexpr uint32_t all_hosts = 0xe0000001;

// The table leaves an interface out when the group that was joined last has no sources: so one that has is joined.
class Marker {
 public:
  static constexpr uint32_t group = 0xeffffffe, source = 0xc00002fe;
  explicit Marker(const std::string &interface) {
    group_source_req request{};
    request.gsr_interface = if_nametoindex(interface.c_str());
    const sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(group)}, .sin_zero = {}};
    std::memcpy(&request.gsr_group, &address, sizeof address);
    const sockaddr_in from{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(source)}, .sin_zero = {}};
    std::memcpy(&request.gsr_source, &from, sizeof from);
    (void)setsockopt(socket_, IPPROTO_IP, MCAST_JOIN_SOURCE_GROUP, &request, sizeof request);
  }
  ~Marker() { close(socket_); }
  Marker(const Marker &) = delete;
  Marker &operator=(const Marker &) = delete;

 private:
  int socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

std::string link_of(const std::string &interface) {
  std::string output;
  const int status = run({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip -d link show " + interface}, &output);
  return status == 0 ? output : "";
}

}  // namespace

std::map<uint32_t, unsigned> kernel_groups(const std::string &interface) {
  std::map<uint32_t, unsigned> groups;
  std::ifstream file("/proc/thread-self/net/igmp");
  std::string line;
  std::getline(file, line);
  bool ours = false;
  while (std::getline(file, line)) {
    std::istringstream words(line);
    std::string first, second;
    if (line[0] != '\t') {
      words >> first >> second;
      ours = second == interface;
    } else if (ours) {
      unsigned users = 0;
      words >> first >> users;
      const uint32_t group = ntohl(static_cast<uint32_t>(std::stoul(first, nullptr, 16)));
      if (group != all_hosts) groups[group] = users;
    }
  }
  return groups;
}

SourceFilters kernel_sources(const std::string &interface) {
  SourceFilters sources;
  const Marker marker(interface);
  std::ifstream file("/proc/thread-self/net/mcfilter");
  std::string line;
  std::getline(file, line);
  while (std::getline(file, line)) {
    std::istringstream words(line);
    std::string index, device, group, source;
    unsigned included = 0, excluded = 0;
    if (!(words >> index >> device >> group >> source >> included >> excluded) || device != interface) continue;
    sources[{static_cast<uint32_t>(std::stoul(group, nullptr, 16)),
             static_cast<uint32_t>(std::stoul(source, nullptr, 16))}] = {included, excluded};
  }
  sources.erase({Marker::group, Marker::source});
  return sources;
}

int kernel_all_multicast(const std::string &interface) {
  const std::string link = link_of(interface);
  const auto count = link.find(" allmulti ");
  return count == std::string::npos ? -1 : std::atoi(link.c_str() + count + strlen(" allmulti "));
}

bool kernel_multicast_flag(const std::string &interface) {
  const std::string link = link_of(interface);
  return link.find("<MULTICAST") != std::string::npos || link.find(",MULTICAST") != std::string::npos;
}

}  // namespace test_support
