// SPDX-License-Identifier: Apache-2.0
#include "ipd_fixture.h"

#include <net/if.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "im.h"
#include "ip_api.h"
#include "system_pictures.h"

namespace ipd_test {

using test_support::wait_until;

std::vector<std::string> ipd_command(const std::vector<std::string> &arguments) {
  const char *other = getenv("LIBIP_TEST_IPD");
  std::vector<std::string> command{other != nullptr ? other : IPD};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

std::vector<uint32_t> groups_of(uint32_t iod) {
  static thread_local std::vector<uint32_t> found;
  found.clear();
  ip_get_each_group(
      iod,
      [](uint32_t group, uint32_t, uint32_t) -> uint32_t {
        found.push_back(group);
        return 0;
      },
      0);
  std::sort(found.begin(), found.end());
  return found;
}

void IpdTest::SetUp() {
  std::string reason;
  ASSERT_TRUE(test_support::enter_network_namespace(&reason)) << reason;
  ip("link set lo up");
}

void IpdTest::TearDown() {
  detach();
}

void IpdTest::detach() {
  if (attached_) ip_api_close();
  attached_ = false;
}

void IpdTest::clear_run_directory() {
  for (const auto &entry : std::filesystem::directory_iterator(run_directory_.path())) {
    std::filesystem::remove_all(entry.path());
  }
}

bool IpdTest::ipd_said(const std::string &text) {
  return ipd_.output().find(text) != std::string::npos;
}

void IpdTest::start_ipd(const std::vector<std::string> &arguments) {
  std::vector<std::string> all{"--foreground"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  ipd_ = test_support::Process(ipd_command(all));
  ASSERT_TRUE(wait_until([this] { return ipd_said("live:") || !ipd_.running(); }, std::chrono::seconds(60)));
  ASSERT_TRUE(ipd_.running()) << ipd_.output();
}

void IpdTest::attach() {
  ASSERT_NE(ip_shm_api_init(), nullptr);
  attached_ = true;
}

void IpdTest::ip(const std::string &words) {
  std::string output;
  ASSERT_EQ(test_support::run({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip " + words}, &output), 0)
      << "ip " << words << ": " << output;
}

void IpdTest::add_interface(const std::string &name, const std::string &address) {
  ip("link add " + name + " type ifb");
  ip("link set " + name + " up");
  ip("addr add " + address + " dev " + name);
}

void IpdTest::add_pair(const std::string &name, const std::string &peer) {
  ip("link add " + name + " type veth peer name " + peer);
  ip("link set " + name + " up");
  ip("link set " + peer + " up");
}

void IpdTest::set_sysctl(const std::string &name, const std::string &value) {
  std::ofstream file("/proc/sys/net/ipv4/" + name);
  file << value << std::flush;
  ASSERT_TRUE(file.good()) << name;
}

int IpdTest::ifindex(const std::string &name) {
  return static_cast<int>(if_nametoindex(name.c_str()));
}

uint32_t IpdTest::iod(const std::string &name) {
  uint32_t found = 0;
  const auto index = static_cast<uint32_t>(ifindex(name));
  return index != 0 && im_get_iod_frm_ifindex(index, &found) == 0 ? found : 0;
}

void IpdTest::expect_same_as_kernel() {
  std::string kernel;
  std::string published;
  const bool same = wait_until(
      [&] {
        kernel = test_support::kernels_picture();
        published = test_support::published_picture();
        return !kernel.empty() && kernel == published;
      },
      std::chrono::seconds(30));
  EXPECT_TRUE(same) << "kernel:\n" << kernel << "published:\n" << published << "ipd:\n" << ipd_.output();
}

void IpdTest::write_configuration(const std::string &text) {
  std::ofstream file(configuration_file());
  file << text << std::flush;
  ASSERT_TRUE(file.good());
  // As an installed one, whatever the mask of whoever started the tests: ipd may be another user.
  ASSERT_EQ(chmod(configuration_file().c_str(), 0644), 0);
}

}  // namespace ipd_test
