// SPDX-License-Identifier: Apache-2.0
// What the system stands on: the kernel's state, which ipd mirrors, what the kernel can do, and its limits.
#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <ifaddrs.h>
#include <linux/membarrier.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <vector>

#include "arguments.h"
#include "doctor_checks.h"
#include "snapshot.h"

namespace ipsh {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds longest_lag(3);  // of a mirror on a busy machine; it is milliseconds else
constexpr int between_looks_milliseconds = 20;

// Interfaces and addresses, by name; one address on two interfaces counts once.
struct NetworkPicture {
  std::set<std::string> interfaces, addresses;
  bool operator==(const NetworkPicture &) const = default;
};

NetworkPicture kernels_picture() {
  NetworkPicture picture;
  if (struct if_nameindex *const names = if_nameindex(); names != nullptr) {
    for (const struct if_nameindex *each = names; each->if_index != 0; ++each) picture.interfaces.insert(each->if_name);
    if_freenameindex(names);
  }
  ifaddrs *first = nullptr;
  if (getifaddrs(&first) != 0) return picture;
  for (const ifaddrs *each = first; each != nullptr; each = each->ifa_next) {
    if (each->ifa_addr == nullptr || each->ifa_addr->sa_family != AF_INET) continue;
    sockaddr_in address{};
    std::memcpy(&address, each->ifa_addr, sizeof address);
    picture.addresses.insert(address_text(ntohl(address.sin_addr.s_addr)));
  }
  freeifaddrs(first);
  return picture;
}

NetworkPicture published_picture() {
  NetworkPicture picture;
  for (const InterfaceRow &row : read_interfaces({})) picture.interfaces.insert(row.name);
  for (const AddressRow &row : read_addresses({})) {
    if (row.kind != AddressKind::virtual_address) picture.addresses.insert(address_text(row.addr));
  }
  return picture;
}

// "NAME is missing in PLACE" for one that the first has and the second has not.
std::string missing(const std::set<std::string> &there, const std::set<std::string> &here, const char *place) {
  std::vector<std::string> names;
  std::ranges::set_difference(there, here, std::back_inserter(names));
  if (names.empty()) return "";
  const std::string more = names.size() == 1 ? "" : fmt::format(" and {} more", names.size() - 1);
  return fmt::format("; {}{} not in {}", names.front(), more, place);
}

// The kernel goes first: what is not there yet is waited for.
bool wait_for_agreement(NetworkPicture *kernel, NetworkPicture *published) {
  const Clock::time_point end = Clock::now() + longest_lag;
  for (;;) {
    *kernel = kernels_picture();
    *published = published_picture();
    if (*kernel == *published) return true;
    if (Clock::now() > end) return false;
    poll(nullptr, 0, between_looks_milliseconds);
  }
}

struct Feature {
  const char *name;
  const char *since;
  const char *without;
  bool (*works)();
};

bool has_pidfd() {
  const auto handle = static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0));
  if (handle >= 0) close(handle);
  return handle >= 0 || errno == EMFILE || errno == ENFILE;
}

bool has_membarrier() {
  const long commands = syscall(SYS_membarrier, MEMBARRIER_CMD_QUERY, 0, 0);
  return commands >= 0 && (commands & MEMBARRIER_CMD_PRIVATE_EXPEDITED) != 0;
}

bool has_file_locks() {
  const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  const bool works = file >= 0 && fcntl(file, F_OFD_GETLK, &range) == 0;
  if (file >= 0) close(file);
  return works;
}

constexpr std::array<Feature, 3> features{{
    {"pidfd_open", "5.3", "ipd does not see clients end", has_pidfd},
    {"membarrier", "4.14", "queries are slower", has_membarrier},
    {"open file description locks", "3.15", "SAPs cannot be told apart from dead ones", has_file_locks},
}};

std::optional<uint64_t> number_in(const char *file) {
  uint64_t number = 0;
  std::ifstream stream(file);
  return stream >> number ? std::optional(number) : std::nullopt;
}

constexpr uint64_t own_descriptors = 256;    // for a client with some peers: two for each
constexpr uint64_t ipds_descriptors = 4096;  // three for each client
constexpr uint64_t datagrams = 10;           // what kernels start with

}  // namespace

void check_mirror(Examination *examination, Report report) {
  if (examination->database == nullptr || !examination->answers) return report.not_made();
  const std::optional<ProcessFacts> &ipd = examination->ipd;
  if (ipd && option_of(ipd->arguments, "--simulate")) {
    return report.warning("ipd simulates: it publishes numbers, not the kernel's state",
                          "start it without --simulate, unless this is a test");
  }
  const std::optional<ProcessFacts> self = read_process(static_cast<uint32_t>(getpid()));
  const bool known = ipd && self && !ipd->network_namespace.empty() && !self->network_namespace.empty();
  if (known && ipd->network_namespace != self->network_namespace) {
    return report.warning(
        "ipsh runs in another network namespace than ipd, whose kernel state it cannot compare",
        fmt::format("nsenter --net=/proc/{}/ns/net ipsh doctor, or start an ipd in this namespace", ipd->pid));
  }
  NetworkPicture kernel, published;
  const bool agree = wait_for_agreement(&kernel, &published);
  const std::string finding =
      fmt::format("{} interfaces and {} addresses, published are {} and {}", kernel.interfaces.size(),
                  kernel.addresses.size(), published.interfaces.size(), published.addresses.size());
  if (agree) return report.ok(finding);
  const std::string differences = missing(kernel.interfaces, published.interfaces, "the database") +
                                  missing(kernel.addresses, published.addresses, "the database") +
                                  missing(published.interfaces, kernel.interfaces, "the kernel") +
                                  missing(published.addresses, kernel.addresses, "the kernel");
  if (!known) {
    return report.warning(finding + differences + "; ipd's network namespace is not to be seen",
                          "run ipsh doctor as the user that runs ipd, in its network namespace");
  }
  report.failed(finding + differences, "ipd's log says why; restart ipd");
}

void check_features(Examination *, Report report) {
  std::vector<std::string> names;
  for (const Feature &feature : features) {
    if (feature.works()) {
      names.emplace_back(feature.name);
    } else {
      report.failed(fmt::format("no {}: {}", feature.name, feature.without),
                    fmt::format("run Linux {} or later, or let the sandbox (seccomp) allow it", feature.since));
    }
  }
  if (names.size() == features.size()) report.ok(fmt::format("{}", fmt::join(names, ", ")));
}

void check_limits(Examination *examination, Report report) {
  rlimit own{};
  getrlimit(RLIMIT_NOFILE, &own);
  const std::optional<uint64_t> queue = number_in("/proc/sys/net/unix/max_dgram_qlen");
  const uint64_t ipds = examination->ipd ? examination->ipd->most_descriptors.value_or(0) : 0;  // 0: not known
  bool all_well = true;
  const auto warning = [&](const std::string &finding, const std::string &remedy) {
    report.warning(finding, remedy);
    all_well = false;
  };
  if (own.rlim_cur < own_descriptors) {
    warning(fmt::format("this shell's programs may have {} descriptors", own.rlim_cur),
            "ulimit -n 1024, or LimitNOFILE= in the unit of a client");
  }
  if (ipds != 0 && ipds < ipds_descriptors) {
    warning(fmt::format("ipd may have {} descriptors: some {} clients", ipds, ipds / 3),
            "LimitNOFILE=65536 in ipd's unit, then restart it");
  }
  if (queue && *queue < datagrams) {
    warning(fmt::format("net.unix.max_dgram_qlen is {}: log lines may be lost", *queue),
            "sysctl net.unix.max_dgram_qlen=512");
  }
  if (!all_well) return;
  report.ok(fmt::format("{} descriptors here{}, datagram queues of {}", own.rlim_cur,
                        ipds != 0 ? fmt::format(", {} for ipd", ipds) : "", queue.value_or(0)));
}

}  // namespace ipsh
