// SPDX-License-Identifier: Apache-2.0
#include "frr_router.h"

#include <filesystem>
#include <fstream>

#include "support/run_directory.h"

namespace test_support {
namespace {

// FRR gives its rights up to a user of its own, who must be in a group of its own, unless the user is root.
constexpr char groups[] = "root:x:0:\nfrrvty:x:0:\n";

// The words behind it are run where /etc/group is $0, and nobody else's files of running daemons are to be seen.
constexpr char alone[] =
    "PATH=$PATH:/usr/sbin:/sbin\n"
    "mount --bind \"$0\" /etc/group && mount -t tmpfs none /run && mount -t tmpfs none /var/tmp && exec \"$@\"";

}  // namespace

FrrRouter::FrrRouter(const std::string &directory, const std::string &protocol, const std::string &configuration,
                     const PeerNamespace &where)
    : directory_(directory + "/frr"), name_(protocol) {
  std::filesystem::create_directories(directory_);
  std::ofstream(directory_ + "/group") << groups;
  std::ofstream(directory_ + "/vtysh.conf") << "";  // there has to be one
  zebra_ = start("zebra", "", where);
  protocol_ = start(protocol, configuration, where);
}

Process FrrRouter::start(const std::string &daemon, const std::string &configuration, const PeerNamespace &where) {
  const std::string base = directory_ + "/" + daemon;
  std::filesystem::remove(base + ".vty");  // of one that was killed
  std::ofstream(base + ".conf") << configuration;
  Process process(where.command({"unshare",
                                 "--mount",
                                 "--",
                                 "/bin/sh",
                                 "-c",
                                 alone,
                                 directory_ + "/group",
                                 "/usr/lib/frr/" + daemon,
                                 "-u",
                                 "root",
                                 "-g",
                                 "root",
                                 "-A",
                                 "127.0.0.1",
                                 "-P",
                                 "0",
                                 "--log",
                                 "stdout",
                                 "-f",
                                 base + ".conf",
                                 "-i",
                                 base + ".pid",
                                 "-z",
                                 directory_ + "/zserv.api",
                                 "--vty_socket",
                                 directory_}));
  (void)wait_until([&] { return std::filesystem::exists(base + ".vty") || !process.running(); },
                   std::chrono::seconds(60));
  return process;
}

std::string FrrRouter::show(const std::string &command) const {
  std::string answer;
  (void)run({"vtysh", "--config_dir", directory_, "--vty_socket", directory_, "-d", name_, "-c", command}, &answer);
  return answer;
}

}  // namespace test_support
