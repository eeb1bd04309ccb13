// SPDX-License-Identifier: Apache-2.0
// A BIRD of the test's own, that speaks OSPF in some namespace: with timers as short as it has, and no say outside.
#ifndef TESTS_SYSTEM_BIRD_ROUTER_H
#define TESTS_SYSTEM_BIRD_ROUTER_H

#include <string>
#include <vector>

#include "support/peer_namespace.h"
#include "support/process.h"

namespace test_support {

struct AnnouncedPrefix {
  std::string prefix;    // such as "10.1.0.0/16"
  unsigned metric = 10;  // external, added to the way to its router
};

struct BirdDescription {
  std::string name;       // of its files
  std::string router_id;  // such as "10.0.0.1"
  std::vector<std::string> interfaces;
  std::vector<AnnouncedPrefix> announced;
  bool into_kernel = false;  // what OSPF finds goes into the namespace's main table
};

class BirdRouter {
 public:
  // In the peer's namespace, or, with null, in this process's.
  BirdRouter(const std::string &directory, const BirdDescription &description, const PeerNamespace *where);
  [[nodiscard]] bool running() { return process_.running(); }
  // What it says about itself, to be shown when a test fails.
  [[nodiscard]] std::string log();

 private:
  std::string log_file_;
  Process process_;
};

}  // namespace test_support

#endif
