// SPDX-License-Identifier: Apache-2.0
// A publisher in a run directory of its own and libip attached to what it publishes, in one process; and short ways to
// say which contexts, interfaces and addresses there are.
#ifndef TESTS_IPD_PUBLISH_SYSTEM_H
#define TESTS_IPD_PUBLISH_SYSTEM_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ip_api.h"
#include "ipd/publish/publisher.h"
#include "support/run_directory.h"

namespace publish_test {

struct Holding {  // what the shared segment says about one prefix
  uint32_t network;
  uint32_t len;
  std::vector<uint32_t> iods;
  bool vip;
  bool operator==(const Holding &) const = default;
};

class System {
 public:
  // quarantine 0: retired records come back as soon as readers let them, which is the hardest case.
  explicit System(std::chrono::milliseconds quarantine = std::chrono::milliseconds(0));
  ~System();
  System(const System &) = delete;
  System &operator=(const System &) = delete;

  ipd::Publisher *operator->() const { return publisher.get(); }
  ipd::Publisher &operator*() const { return *publisher; }
  // commit, attach, and all later changes are live.
  void go_live();
  void attach();
  void detach();
  // commit() and tick(), as ipd does after each batch.
  bool commit();

  test_support::RunDirectory directory;
  std::unique_ptr<ipd::Publisher> publisher;

 private:
  bool attached_ = false;
};

// For a process that starts before the publisher: waits for the database and attaches it.
bool attach_when_published();

constexpr uint32_t ip(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  return a << 24 | b << 16 | c << 8 | d;
}

inline const ipd::ContextState default_context{.id = 1, .name = "default", .table_id = 254, .router_id = 0};
ipd::ContextState context(uint32_t id, const std::string &name);

// An interface that is up, forwards and speaks multicast, in context 1.
ipd::InterfaceState interface(uint32_t ifindex, const std::string &name = "");
ipd::AddressState primary(uint32_t addr, uint8_t mask_len, uint8_t scope = 0);
ipd::AddressState secondary(uint32_t addr, uint8_t mask_len);

// Read back from the shared records, in their order.
using Addresses = std::vector<std::pair<uint32_t, uint32_t>>;
const ip_iftype *interface_record(uint32_t iod);
Addresses addresses_of(uint32_t iod);
std::vector<uint32_t> context_ids();
// Asked of libip: the groups in the order of the walk; the counters, nothing when there is no statistics block.
std::vector<ipd::GroupState> groups_of(uint32_t iod);
std::optional<ipd::MulticastCounters> counters_of(uint32_t iod);
// The whole tree of a context, by walking it.
std::vector<Holding> holdings_of(uint32_t context_id);
// One prefix, by exact lookup; an empty list of iods when it is not there.
Holding holding_of(uint32_t context_id, uint32_t network, uint32_t len);

}  // namespace publish_test

#endif
