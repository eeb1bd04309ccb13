// SPDX-License-Identifier: Apache-2.0
#include "keepalived_router.h"

#include <signal.h>

#include <fstream>

namespace test_support {

KeepalivedRouter::KeepalivedRouter(const std::string &directory, const VrrpDescription &description,
                                   const PeerNamespace *where) {
  const std::string base = directory + "/" + description.name;
  std::ofstream file(base + ".conf");
  file << "global_defs {\n  router_id " << description.name << "\n  vrrp_garp_master_delay 1\n}\n"
       << "vrrp_instance shared {\n  state BACKUP\n  version 3\n  advert_int 0.2\n  virtual_router_id 51\n"
       << "  interface " << description.interface << "\n  priority " << description.priority << "\n";
  // The protocol's packets leave by the interface itself; the macvlan is for the address alone.
  if (!description.macvlan.empty()) file << "  use_vmac " << description.macvlan << "\n  vmac_xmit_base\n";
  file << "  virtual_ipaddress {\n    " << description.virtual_address << "/32\n  }\n}\n" << std::flush;
  const std::vector<std::string> command{"/bin/sh", "-c",
                                         "PATH=$PATH:/usr/sbin:/sbin exec keepalived -n -l -D -P -f " + base +
                                             ".conf -p " + base + ".pid -r " + base + ".vrrp.pid"};
  process_ = Process(where == nullptr ? command : where->command(command));
}

bool KeepalivedRouter::stop() {
  if (!process_.running()) return true;
  process_.signal(SIGTERM);
  const bool ended = process_.wait(std::chrono::seconds(60)) != -1;
  process_.kill_now();
  return ended;
}

}  // namespace test_support
