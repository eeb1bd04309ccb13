// SPDX-License-Identifier: Apache-2.0
// How long does "which interface holds this address?" take: asked through libip, asked from the kernel over a kept
// netlink socket (RTM_GETROUTE), and answered by getifaddrs()?
//
//   query_time CONTEXT ADDRESS               times the three
//   query_time CONTEXT ADDRESS --for SECONDS asks libip in a loop for that long and counts the answers: a client that
//                                            one can kill and restart ipd under
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#define LIBIP_NO_INET_NTOA
#include "im.h"
#include "ip_api.h"

namespace {

using Clock = std::chrono::steady_clock;

double nanoseconds_each(Clock::time_point begin, unsigned count) {
  return std::chrono::duration<double, std::nano>(Clock::now() - begin).count() / count;
}

double time_libip(const char *context, uint32_t addr) {
  constexpr unsigned rounds = 5000000;
  uint32_t held = 0;
  const auto begin = Clock::now();
  for (unsigned i = 0; i < rounds; i++) held += ip_get_iod_for_local_address(context, addr) != 0;
  const double each = nanoseconds_each(begin, rounds);
  return held == rounds ? each : -1;
}

// One question to the kernel: the route to the address, of which the answer names the interface.
bool ask_kernel(int fd, uint32_t addr_net, unsigned sequence) {
  struct {
    nlmsghdr header;
    rtmsg route;
    rtattr attribute;
    uint32_t destination;
  } request{};
  request.header = {sizeof request, RTM_GETROUTE, NLM_F_REQUEST, sequence, 0};
  request.route.rtm_family = AF_INET;
  request.route.rtm_dst_len = 32;
  request.attribute = {sizeof(rtattr) + sizeof addr_net, RTA_DST};
  request.destination = addr_net;
  if (send(fd, &request, sizeof request, 0) != static_cast<ssize_t>(sizeof request)) return false;
  alignas(nlmsghdr) char answer[4096];
  const ssize_t got = recv(fd, answer, sizeof answer, 0);
  if (got < static_cast<ssize_t>(sizeof(nlmsghdr))) return false;
  nlmsghdr header;
  memcpy(&header, answer, sizeof header);
  return header.nlmsg_type == RTM_NEWROUTE;
}

double time_kernel(uint32_t addr_net) {
  constexpr unsigned rounds = 20000;
  const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (fd < 0) return -1;
  bool answered = true;
  const auto begin = Clock::now();
  for (unsigned i = 0; i < rounds && answered; i++) answered = ask_kernel(fd, addr_net, i + 1);
  const double each = nanoseconds_each(begin, rounds);
  close(fd);
  return answered ? each : -1;
}

double time_getifaddrs(uint32_t addr_net) {
  constexpr unsigned rounds = 2000;
  unsigned found = 0;
  const auto begin = Clock::now();
  for (unsigned i = 0; i < rounds; i++) {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) return -1;
    for (const ifaddrs *item = list; item != nullptr; item = item->ifa_next) {
      if (item->ifa_addr == nullptr || item->ifa_addr->sa_family != AF_INET) continue;
      sockaddr_in address;
      memcpy(&address, item->ifa_addr, sizeof address);
      if (address.sin_addr.s_addr == addr_net) {
        found++;
        break;
      }
    }
    freeifaddrs(list);
  }
  const double each = nanoseconds_each(begin, rounds);
  return found == rounds ? each : -1;
}

void print_row(const char *what, double each, double base) {
  if (each < 0) {
    printf("  %-44s not answered\n", what);
  } else {
    printf("  %-44s %10.1f ns  %8.0f x\n", what, each, each / base);
  }
}

int count_answers(const char *context, uint32_t addr, double seconds) {
  const uint32_t expected = ip_get_iod_for_local_address(context, addr);
  uint64_t right = 0;
  uint64_t wrong = 0;
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  do {
    for (int i = 0; i < 1000; i++) (ip_get_iod_for_local_address(context, addr) == expected ? right : wrong)++;
  } while (Clock::now() < end);
  printf("%llu answers right, %llu wrong\n", static_cast<unsigned long long>(right),
         static_cast<unsigned long long>(wrong));
  return expected != 0 && wrong == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  in_addr address{};
  const bool loop = argc == 5 && strcmp(argv[3], "--for") == 0;
  if ((argc != 3 && !loop) || inet_pton(AF_INET, argv[2], &address) != 1) {
    fprintf(stderr, "usage: query_time CONTEXT ADDRESS [--for SECONDS]\n");
    return 2;
  }
  if (ip_shm_api_init() == nullptr) {
    fprintf(stderr, "query_time: cannot attach to ipd's database: is ipd running on this run directory?\n");
    return 3;
  }
  const uint32_t addr = ntohl(address.s_addr);
  const uint32_t iod = ip_get_iod_for_local_address(argv[1], addr);
  int status = 0;
  if (loop) {
    status = count_answers(argv[1], addr, atof(argv[4]));
  } else if (iod == 0) {
    fprintf(stderr, "query_time: no interface of context %s holds %s\n", argv[1], argv[2]);
    status = 1;
  } else {
    const char *name = im_get_if_name(iod);
    printf("Which interface holds %s? %s (iod %u)\n", argv[2], name != nullptr ? name : "?", iod);
    const double libip = time_libip(argv[1], addr);
    print_row("libip, ip_get_iod_for_local_address", libip, libip);
    print_row("kernel, RTM_GETROUTE on a kept socket", time_kernel(address.s_addr), libip);
    print_row("libc, getifaddrs and a look through the list", time_getifaddrs(address.s_addr), libip);
  }
  ip_api_close();
  return status;
}
