// SPDX-License-Identifier: Apache-2.0
// A client process that does one request after the other, as its test says, and can be killed in between.
#ifndef TESTS_SYSTEM_ASKED_CLIENT_H
#define TESTS_SYSTEM_ASKED_CLIENT_H

#include <cstdint>
#include <string>

#include "support/process.h"

namespace test_support {

class AskedClient {
 public:
  enum class Registered : bool { no, yes };
  // Attached, and registered with a control queue of its own. To be made before this process is a client itself.
  explicit AskedClient(const std::string &name, Registered registered = Registered::yes);
  ~AskedClient();
  AskedClient(const AskedClient &) = delete;
  AskedClient &operator=(const AskedClient &) = delete;

  // What the call of the same name answers over there; 0xffffffff: the client is not there.
  uint32_t ip_enable_multicast(uint32_t iod);
  uint32_t ip_disable_multicast(uint32_t iod);
  uint32_t ip_join_group(uint32_t group, uint32_t iod);
  uint32_t ip_leave_group(uint32_t group, uint32_t iod);
  uint32_t ip_join_group_if(uint32_t group, uint32_t ifindex);
  uint32_t ip_leave_group_if(uint32_t group, uint32_t ifindex);
  uint32_t ip_join_channel(uint32_t group, uint32_t source, uint32_t iod);
  uint32_t ip_leave_channel(uint32_t group, uint32_t source, uint32_t iod);
  // Registers, or registers again: with an ipd that is another one.
  uint32_t ip_register();
  uint32_t ip_deregister();

  void kill() { process_.kill_now(); }
  [[nodiscard]] pid_t pid() const { return process_.pid(); }

 private:
  uint32_t ask(uint32_t what, uint32_t a = 0, uint32_t b = 0, uint32_t c = 0);
  int socket_ = -1;
  Process process_;
};

}  // namespace test_support

#endif
