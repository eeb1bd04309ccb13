// SPDX-License-Identifier: Apache-2.0
// FRR daemons of the test's own, in a peer's namespace: zebra and one protocol. Their files are in the test's
// directory, and what they would share with others on this machine is theirs alone in a mount namespace.
#ifndef TESTS_SYSTEM_FRR_ROUTER_H
#define TESTS_SYSTEM_FRR_ROUTER_H

#include <string>
#include <vector>

#include "support/peer_namespace.h"
#include "support/process.h"

namespace test_support {

class FrrRouter {
 public:
  // protocol: "pimd", "ospfd". The configuration is the protocol's. Waits until both daemons can be asked.
  FrrRouter(const std::string &directory, const std::string &protocol, const std::string &configuration,
            const PeerNamespace &where);
  // What the protocol's daemon answers to a command of its own language.
  [[nodiscard]] std::string show(const std::string &command) const;
  // The protocol's daemon ends, without a word to its neighbors.
  void kill_now() { protocol_.kill_now(); }
  [[nodiscard]] std::string log() { return zebra_.output() + protocol_.output(); }

 private:
  [[nodiscard]] Process start(const std::string &daemon, const std::string &configuration, const PeerNamespace &where);
  std::string directory_;
  std::string name_;
  Process zebra_;
  Process protocol_;
};

}  // namespace test_support

#endif
