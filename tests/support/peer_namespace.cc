// SPDX-License-Identifier: Apache-2.0
#include "support/peer_namespace.h"

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>

#include "support/network_namespace.h"
#include "support/run_directory.h"

namespace test_support {
namespace {

// ip(8) is not in every user's path.
const std::string ip_program = "PATH=$PATH:/usr/sbin:/sbin exec ip ";

std::string failure(const std::vector<std::string> &command, const std::string &words) {
  std::string output;
  const int status = run(command, &output);
  return status == 0 ? std::string() : "ip " + words + ": " + std::to_string(status) + " " + output;
}

// Says when it is there.
int hold_namespace(int ready) {
  std::string reason;
  if (!enter_network_namespace(&reason) || write(ready, "", 1) != 1) return 1;
  for (;;) pause();
}

}  // namespace

PeerNamespace::PeerNamespace() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("pipe2");
  holder_ = Process([&ends] { return hold_namespace(ends[1]); });
  char byte = 0;
  const bool made = wait_until([&] { return read(ends[0], &byte, 1) == 1 || !holder_.running(); });
  close(ends[0]);
  close(ends[1]);
  if (!made || !holder_.running()) throw std::runtime_error("cannot make a network namespace for a peer");
  if (const std::string problem = ip("link set lo up"); !problem.empty()) throw std::runtime_error(problem);
}

std::vector<std::string> PeerNamespace::command(const std::vector<std::string> &words) const {
  std::vector<std::string> command{"nsenter", "--net=/proc/" + id() + "/ns/net", "--"};
  command.insert(command.end(), words.begin(), words.end());
  return command;
}

std::string PeerNamespace::ip(const std::string &words) const {
  return failure(command({"/bin/sh", "-c", ip_program + words}), words);
}

std::string run_ip(const std::string &words) {
  return failure({"/bin/sh", "-c", ip_program + words}, words);
}

std::string connect(const std::string &device, const std::string &address, const PeerNamespace &peer,
                    const std::string &peer_device, const std::string &peer_address) {
  std::string problem =
      run_ip("link add name " + device + " type veth peer name " + peer_device + " netns " + peer.id());
  problem += run_ip("link set " + device + " up");
  problem += run_ip("addr add " + address + " dev " + device);
  problem += peer.ip("link set " + peer_device + " up");
  return problem + peer.ip("addr add " + peer_address + " dev " + peer_device);
}

std::string connect(const PeerNamespace &one, const std::string &device, const std::string &address,
                    const PeerNamespace &peer, const std::string &peer_device, const std::string &peer_address) {
  std::string problem =
      one.ip("link add name " + device + " type veth peer name " + peer_device + " netns " + peer.id());
  problem += one.ip("link set " + device + " up");
  problem += one.ip("addr add " + address + " dev " + device);
  problem += peer.ip("link set " + peer_device + " up");
  return problem + peer.ip("addr add " + peer_address + " dev " + peer_device);
}

}  // namespace test_support
