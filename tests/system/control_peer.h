// SPDX-License-Identifier: Apache-2.0
// Stands in for ipd's control service, in the test's own process: takes requests on the control SAP, writes them down,
// and does and answers what the test wants.
#ifndef TESTS_SYSTEM_CONTROL_PEER_H
#define TESTS_SYSTEM_CONTROL_PEER_H

#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ipd/publish/publisher.h"
#include "mts.h"

namespace test_support {

struct ControlBehaviour {
  bool accepts = true;   // registrations
  bool does = true;      // what is asked shows in the database
  bool refuses = false;  // and says so
  bool answers = true;   // address configurations
  uint8_t status = 0;
  uint32_t result = 0;
};

// The publisher is used by this object's thread alone while it lives.
class ControlPeer {
 public:
  explicit ControlPeer(ipd::Publisher &publisher, ControlBehaviour behaviour = {});
  ~ControlPeer();
  ControlPeer(const ControlPeer &) = delete;
  ControlPeer &operator=(const ControlPeer &) = delete;

  // "join 239.1.1.1 0.0.0.0 2", "configure 10.0.0.9/24 2", "set 4 lo", ... in the order in which they came.
  [[nodiscard]] std::vector<std::string> requests();
  [[nodiscard]] bool saw(const std::string &request);

 private:
  void serve();
  std::string take(mts_msg_ref_t message);
  void take_registration(mts_msg_ref_t message);
  void show_group(uint32_t group, uint32_t iod);
  void answer_configuration(mts_msg_ref_t message);
  void show_sender(mts_msg_ref_t message);

  ipd::Publisher &publisher_;
  const ControlBehaviour behaviour_;
  uint32_t queue_;
  std::mutex mutex_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

}  // namespace test_support

#endif
