// SPDX-License-Identifier: Apache-2.0
#include "run_directory_fixture.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "ip_api.h"
#include "mts.h"
#include "other_users.h"

namespace run_directory_test {

using ipd_test::ipd_command;
using test_support::Process;
using test_support::wait_until;

constexpr auto patience = std::chrono::seconds(60);

void write_file(const std::string &path, const std::string &text) {
  std::ofstream file(path, std::ios::trunc);
  file << text << std::flush;
  ASSERT_TRUE(file.good()) << path;
}

void fill(const std::string &path, size_t bytes) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  ASSERT_GE(file, 0) << path << ": " << strerror(errno);
  const std::string page(4096, 'x');
  size_t written = 0;
  while (written < bytes && write(file, page.data(), page.size()) == static_cast<ssize_t>(page.size())) {
    written += page.size();
  }
  close(file);
}

void RunDirectoryTest::SetUp() {
  IpdTest::SetUp();
  ASSERT_EQ(unshare(CLONE_NEWNS), 0) << strerror(errno);
  ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
  add_interface("ib", "10.0.0.1/24");
}

void RunDirectoryTest::TearDown() {
  detach();
  ipd_.kill_now();
  setenv("RSW_RUN_DIR", run_directory_.path().c_str(), 1);
  for (const std::string &mounted : mounts_) umount2(mounted.c_str(), MNT_DETACH);
}

std::string RunDirectoryTest::made(const std::string &name) const {
  EXPECT_EQ(mkdir(path(name).c_str(), 0755), 0) << strerror(errno);
  return path(name);
}

std::string RunDirectoryTest::mounted(const std::string &name, const std::string &options) {
  std::string directory = made(name);
  EXPECT_EQ(mount("none", directory.c_str(), "tmpfs", 0, ("mode=755," + options).c_str()), 0) << strerror(errno);
  mounts_.push_back(directory);
  return directory;
}

void RunDirectoryTest::use(const std::string &directory) {
  detach();
  setenv("RSW_RUN_DIR", directory.c_str(), 1);
}

std::string RunDirectoryTest::refused(const std::string &directory, int status,
                                      const std::vector<std::string> &before) {
  std::vector<std::string> command = before;
  std::vector<std::string> ipds = ipd_command({"--foreground", "--run-dir", directory});
  // As another user, perhaps.
  if (!before.empty()) ipds = other_users::runnable(ipds);
  command.insert(command.end(), ipds.begin(), ipds.end());
  Process ipd(command);
  EXPECT_EQ(ipd.wait(patience), status) << ipd.output();
  return ipd.output();
}

void RunDirectoryTest::expect_refused(const std::string &directory, const std::string &line) {
  EXPECT_EQ(refused(directory), "ipd: " + line + "\n");
}

void RunDirectoryTest::expect_served() {
  if (!attached_) attach();
  ASSERT_TRUE(attached_) << ipd_.output();
  EXPECT_TRUE(wait_until([] { return ip_get_iod_for_local_address("default", own_address) == iod("ib"); }, patience))
      << ipd_.output();
  EXPECT_NE(iod("ib"), 0u);
  uint32_t queue = ~0u;
  ASSERT_EQ(ip_init_mts(&queue, -1), 1u) << ipd_.output();
  EXPECT_EQ(ip_register("run directory", ~0u, queue, 253, 0, &ip_client, 0, 0), 1u) << ipd_.output();
  mts_unbind(queue, 0);
}

void RunDirectoryTest::expect_starts_in(const std::string &directory) {
  use(directory);
  ASSERT_NO_FATAL_FAILURE(start_ipd());
  ASSERT_NO_FATAL_FAILURE(expect_served());
  EXPECT_EQ(unfinished_files(directory), std::vector<std::string>{});
  kill_ipd();
}

void RunDirectoryTest::kill_ipd() {
  ipd_.kill_now();
  detach();
}

std::vector<std::string> RunDirectoryTest::unfinished_files(const std::string &directory) {
  std::vector<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(directory)) {
    if (entry.path().extension() == ".new") names.push_back(entry.path().filename());
  }
  return names;
}

}  // namespace run_directory_test
