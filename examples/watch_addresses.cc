// SPDX-License-Identifier: Apache-2.0
// Prints each local address that comes or goes: "+ eth0 10.0.0.1/24", "- eth0 10.0.0.1/24".
//
//   watch_addresses [changes]      ends after so many changes; without a number it goes on for ever
//
// ip_download_if_info() tells a client of interfaces and their primary addresses. Who wants every address looks at the
// database now and then and compares what it sees with what it saw: a look takes microseconds, disturbs nobody, and
// needs no ipd that answers. That ipd was restarted in between makes no difference.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>

#include "im.h"
#include "ip_api.h"
#include "tsp.h"

namespace {

// The read side of the database lock for as long as it lives.
struct ReadLock {
  ReadLock() { tsp_lock_acquire_rdlock(ip_client.rwsem_lock); }
  ~ReadLock() { tsp_lock_release_rdlock(ip_client.rwsem_lock); }
  ReadLock(const ReadLock &) = delete;
  ReadLock &operator=(const ReadLock &) = delete;
};

void add_addresses(uint32_t iod, std::set<std::string> *lines) {
  const ReadLock lock;
  const auto *record = static_cast<const ip_iftype *>(lcache_im_get_extension1(iod, IP_COMPONENT));
  const char *name = im_get_if_name(iod);
  if (record == nullptr || name == nullptr) return;
  for (const ip_addrtype *address = record->addr_list; address != nullptr; address = address->next) {
    const ip_prefixtype prefix{address->addr, address->mask_len};
    lines->insert(std::string(name) + " " + ip_print_prefix(&prefix));
  }
}

std::set<std::string> read_addresses() {
  std::set<std::string> lines;
  for (uint32_t iod = im_get_next_ext_if(0, IP_COMPONENT); iod != 0; iod = im_get_next_ext_if(iod, IP_COMPONENT)) {
    add_addresses(iod, &lines);
  }
  return lines;
}

long print_missing(char sign, const std::set<std::string> &from, const std::set<std::string> &in) {
  long count = 0;
  for (const std::string &line : from) {
    if (in.contains(line)) continue;
    std::printf("%c %s\n", sign, line.c_str());
    ++count;
  }
  std::fflush(stdout);
  return count;
}

}  // namespace

int main(int argc, char **argv) {
  const long wanted = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 0;
  if (ip_api_init() == nullptr) {
    std::fprintf(stderr, "no ipd to watch: start it, or set RSW_RUN_DIR\n");
    return 1;
  }
  std::set<std::string> before = read_addresses();
  std::printf("watching %zu addresses\n", before.size());
  std::fflush(stdout);
  for (long changes = 0; wanted == 0 || changes < wanted;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::set<std::string> after = read_addresses();
    changes += print_missing('-', before, after) + print_missing('+', after, before);
    before = std::move(after);
  }
  ip_api_close();
  return 0;
}
