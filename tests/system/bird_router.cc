// SPDX-License-Identifier: Apache-2.0
#include "bird_router.h"

#include <fstream>
#include <sstream>

namespace test_support {
namespace {

std::string configuration(const BirdDescription &router, const std::string &log_file) {
  std::ostringstream text;
  text << "log \"" << log_file << "\" all;\n"
       << "router id " << router.router_id << ";\n"
       << "protocol device { scan time 1; }\n";
  if (router.into_kernel) {
    text << "protocol kernel {\n  merge paths yes limit 16;\n  scan time 2;\n"
         << "  ipv4 { import none; export where source ~ [RTS_OSPF, RTS_OSPF_EXT1]; };\n}\n";
  }
  text << "protocol static announced {\n  ipv4;\n";
  for (const AnnouncedPrefix &each : router.announced) {
    text << "  route " << each.prefix << " blackhole { ospf_metric1 = " << each.metric << "; };\n";
  }
  text << "}\n"
       // Equal costs to two routers that announce the same prefix make one route with two next hops.
       << "protocol ospf v2 {\n  ecmp yes limit 16;\n  merge external yes;\n"
       << "  ipv4 { import all; export where source = RTS_STATIC; };\n  area 0 {\n";
  // A link that goes is seen by its carrier. A neighbour is not to be lost because a busy machine keeps it waiting.
  for (const std::string &interface : router.interfaces) {
    text << "    interface \"" << interface << "\" { type ptp; hello 1; dead 20; retransmit 2; };\n";
  }
  text << "  };\n}\n";
  return text.str();
}

}  // namespace

BirdRouter::BirdRouter(const std::string &directory, const BirdDescription &description, const PeerNamespace *where) {
  const std::string base = directory + "/" + description.name;
  log_file_ = base + ".log";
  std::ofstream(base + ".conf") << configuration(description, log_file_);
  const std::vector<std::string> command{
      "/bin/sh", "-c",
      "PATH=$PATH:/usr/sbin:/sbin exec bird -f -c " + base + ".conf -s " + base + ".ctl -P " + base + ".pid"};
  process_ = Process(where == nullptr ? command : where->command(command));
}

std::string BirdRouter::log() {
  std::ostringstream text;
  text << std::ifstream(log_file_).rdbuf();
  return process_.output() + text.str();
}

}  // namespace test_support
