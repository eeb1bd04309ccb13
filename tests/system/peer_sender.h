// SPDX-License-Identifier: Apache-2.0
// What a process of the test does in a peer's namespace.
#ifndef TESTS_SYSTEM_PEER_SENDER_H
#define TESTS_SYSTEM_PEER_SENDER_H

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "support/peer_namespace.h"
#include "support/process.h"

namespace test_support {

// The body's result, which is to be 0; 250: the namespace cannot be entered; -1: it did not end.
inline int run_in(const PeerNamespace &peer, const std::function<int()> &body) {
  Process process([&] {
    const int space = open(("/proc/" + peer.id() + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
    if (space < 0 || setns(space, CLONE_NEWNET) != 0) return 250;
    return body();
  });
  return process.wait(std::chrono::seconds(60));
}

}  // namespace test_support

#endif
