// SPDX-License-Identifier: Apache-2.0
// Another system for a test to talk to: a network namespace beside the test's own, where peers run. It is gone when the
// object is, and when the test process dies.
#ifndef TESTS_SUPPORT_PEER_NAMESPACE_H
#define TESTS_SUPPORT_PEER_NAMESPACE_H

#include <string>
#include <vector>

#include "support/process.h"

namespace test_support {

class PeerNamespace {
 public:
  // Its loopback interface is up.
  PeerNamespace();
  // For `ip link set DEVICE netns ID`.
  [[nodiscard]] std::string id() const { return std::to_string(holder_.pid()); }
  // The command line that runs these words in there.
  [[nodiscard]] std::vector<std::string> command(const std::vector<std::string> &words) const;
  // Runs `ip` with these words in there; what went wrong, empty when nothing did.
  [[nodiscard]] std::string ip(const std::string &words) const;

 private:
  Process holder_;
};

// A veth pair between this process's namespace and a peer's, or between two peers'; both ends are up, each with its
// address, such as "10.0.0.1/24". What went wrong, empty when nothing did.
[[nodiscard]] std::string connect(const std::string &device, const std::string &address, const PeerNamespace &peer,
                                  const std::string &peer_device, const std::string &peer_address);
[[nodiscard]] std::string connect(const PeerNamespace &one, const std::string &device, const std::string &address,
                                  const PeerNamespace &peer, const std::string &peer_device,
                                  const std::string &peer_address);

// Runs `ip` with these words in this process's namespace; what went wrong, empty when nothing did.
[[nodiscard]] std::string run_ip(const std::string &words);

}  // namespace test_support

#endif
