// SPDX-License-Identifier: Apache-2.0
// A keepalived of the test's own, that speaks VRRP about one virtual address in some namespace.
#ifndef TESTS_SYSTEM_KEEPALIVED_ROUTER_H
#define TESTS_SYSTEM_KEEPALIVED_ROUTER_H

#include <string>

#include "support/peer_namespace.h"
#include "support/process.h"

namespace test_support {

struct VrrpDescription {
  std::string name;  // of its files
  std::string interface;
  std::string macvlan;  // that holds the virtual address with the virtual router's own MAC address; empty: none
  std::string virtual_address;
  unsigned priority = 100;
};

class KeepalivedRouter {
 public:
  // In the peer's namespace, or, with null, in this process's.
  KeepalivedRouter(const std::string &directory, const VrrpDescription &description, const PeerNamespace *where);
  ~KeepalivedRouter() { stop(); }
  KeepalivedRouter(const KeepalivedRouter &) = delete;
  KeepalivedRouter &operator=(const KeepalivedRouter &) = delete;
  // As an operator does: it gives the address up, and its processes end. False: it had to be killed.
  bool stop();
  [[nodiscard]] std::string log() { return process_.output(); }

 private:
  Process process_;
};

}  // namespace test_support

#endif
