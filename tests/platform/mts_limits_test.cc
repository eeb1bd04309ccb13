// SPDX-License-Identifier: Apache-2.0
// What a process or a system runs out of: descriptors, room in a backlog, references, storage. Each is an error that
// says so, nothing is left behind, and what was refused works once there is room again.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "platform/mts_rig.h"
#include "support/network_namespace.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using namespace mts_rig;
using test_support::Process;

int lowest_free_descriptor() {
  const int free = dup(STDERR_FILENO);
  close(free);
  return free;
}

// For the life of this object, so many descriptors can be opened and no more.
class FewDescriptors {
 public:
  explicit FewDescriptors(int more) {
    getrlimit(RLIMIT_NOFILE, &before_);
    rlimit few = before_;
    few.rlim_cur = static_cast<rlim_t>(lowest_free_descriptor() + more);
    setrlimit(RLIMIT_NOFILE, &few);
  }
  ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
  FewDescriptors(const FewDescriptors &) = delete;
  FewDescriptors &operator=(const FewDescriptors &) = delete;

 private:
  rlimit before_{};
};

// Names below a directory, but for directories.
std::set<std::string> files_in(const std::string &directory) {
  std::set<std::string> names;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(directory)) {
    if (!entry.is_directory()) names.insert(entry.path().filename());
  }
  return names;
}

struct MtsLimits : testing::Test {
  test_support::RunDirectory directory;
};

TEST_F(MtsLimits, ASenderWaitsWhileItsReceiverHasNoDescriptor) {
  const Queue server(263);
  const Queue client;
  ASSERT_EQ(send(client, 263, 1, "hello"), 0);
  {
    const FewDescriptors none(0);
    for (int i = 0; i < 2; ++i) {
      mts_msg_ref_t msg = nullptr;
      EXPECT_EQ(mts_recv_now(server, &msg), -1);
      EXPECT_EQ(errno, EAGAIN);
      EXPECT_FALSE(readable(server)) << "a loop that waits for it would spin";
    }
  }
  EXPECT_EQ(receive(server).text, "hello");
}

TEST_F(MtsLimits, WhoIsThereIsServedWhileOthersWaitForADescriptor) {
  const Queue server(263);
  const auto first = std::make_unique<Queue>();
  const Queue second;
  ASSERT_EQ(send(*first, 263, 1, "one"), 0);
  ASSERT_EQ(receive(server).text, "one");
  ASSERT_EQ(send(second, 263, 1, "two"), 0);
  {
    const FewDescriptors none(0);
    ASSERT_EQ(send(*first, 263, 1, "three"), 0);
    EXPECT_EQ(receive(server).text, "three");
  }
  EXPECT_EQ(receive(server).text, "two");
}

// UndefinedBehaviorSanitizer wants a pipe to look at the type of an object, and takes one that it cannot look at for a
// wrong one.
#ifndef LIBIP_SANITIZED
// Nobody hangs up, and nobody else sends: it has to look by itself.
TEST_F(MtsLimits, AReceiverThatWaitsFindsTheDescriptorThatIsFreedMeanwhile) {
  const Queue server(263);
  const Queue client;
  ASSERT_EQ(send(client, 263, 1, "hello"), 0);
  auto none = std::make_unique<FewDescriptors>(0);
  std::thread frees([&] {
    EXPECT_TRUE(test_support::wait_until([&] { return !readable(server); }));
    none.reset();
  });
  EXPECT_EQ(receive(server, 60).text, "hello");
  frees.join();
}

TEST_F(MtsLimits, ASendWithoutADescriptorSaysSo) {
  const Queue server(263);
  const Queue client;
  {
    const FewDescriptors none(0);
    EXPECT_EQ(send(client, 263, 1, "x"), -1);
    EXPECT_EQ(errno, EMFILE);
  }
  EXPECT_EQ(use_of(client.sap()).send_failures, 1u);
  EXPECT_EQ(use_of(client.sap()).connections, 0u);
  EXPECT_EQ(send(client, 263, 1, "again"), 0);
  EXPECT_EQ(receive(server).text, "again");
}

TEST_F(MtsLimits, ABindWithTooFewDescriptorsLeavesNothing) {
  uint32_t queue = no_queue;
  const int first_free = lowest_free_descriptor();
  int descriptors = 0;
  for (; queue == no_queue && descriptors < 32; ++descriptors) {
    int error = 0;
    {
      const FewDescriptors few(descriptors);
      queue = bind(-1);
      error = errno;
    }
    if (queue != no_queue) break;
    EXPECT_EQ(error, EMFILE) << descriptors;
    EXPECT_EQ(lowest_free_descriptor(), first_free) << descriptors;
    EXPECT_EQ(files_in(directory.path()), std::set<std::string>()) << descriptors;
  }
  ASSERT_NE(queue, no_queue);
  EXPECT_GT(descriptors, 3);
  EXPECT_EQ(mts_sap_get(queue), 2048u) << "no SAP was lost";
  EXPECT_EQ(mts_unbind(queue, 0), 0);
}
#endif

TEST_F(MtsLimits, ASenderWithoutPatienceDoesNotWaitForAFullBacklog) {
  std::string reason;
  ASSERT_TRUE(test_support::enter_network_namespace(&reason)) << reason;
  ASSERT_TRUE((std::ofstream("/proc/sys/net/core/somaxconn") << 2 << std::flush).good());
  const Queue server(263);
  std::vector<std::unique_ptr<Queue>> clients;
  int error = 0;
  while (error == 0 && clients.size() < 16) {
    clients.push_back(std::make_unique<Queue>());
    ASSERT_EQ(rsw::mts_set_patience(*clients.back(), 0), 0);
    error = send(*clients.back(), 263, 1, "x") == 0 ? 0 : errno;
  }
  EXPECT_EQ(error, EAGAIN);
  ASSERT_GT(clients.size(), 2u);
  ASSERT_LT(clients.size(), 16u);
  const Queue &refused = *clients.back();
  EXPECT_EQ(use_of(refused.sap()).send_failures, 1u);
  for (size_t i = 0; i + 1 < clients.size(); ++i) EXPECT_EQ(receive(server).text, "x");
  EXPECT_EQ(send(refused, 263, 1, "room"), 0);
  EXPECT_EQ(receive(server).text, "room");
}

TEST_F(MtsLimits, AMessageWaitsUntilAReferenceIsGivenBack) {
  const Queue server(263);
  const Queue client;
  std::vector<mts_msg_ref_t> held(65535);
  for (mts_msg_ref_t &each : held) {
    ASSERT_EQ(send(client, 263, 1, "held"), 0);
    ASSERT_EQ(receive_reference(server, &each), 0);
  }
  ASSERT_EQ(send(client, 263, 1, "last"), 0);
  mts_msg_ref_t msg = nullptr;
  EXPECT_EQ(mts_recv_now(server, &msg), -1);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(use_of(263).received, 65535u) << "the one without a reference counts as not received";
  EXPECT_EQ(request(client, 263, 1, "?"), 0u);
  EXPECT_EQ(errno, ENOBUFS);
  ASSERT_EQ(mts_drop(server, held.front()), 0);
  EXPECT_EQ(receive(server).text, "last");
  // A queue that ends gives all of its references back.
  ASSERT_EQ(receive(server, 1).error, ETIMEDOUT);
}

// Runs the body in a mount namespace where the run directory is a file system of its own, with these options.
int in_small_file_system(const std::string &path, const std::string &options, const std::function<int()> &body,
                         std::string *output) {
  Process process([&] {
    std::string reason;
    if (!test_support::enter_network_namespace(&reason) || unshare(CLONE_NEWNS) != 0) return 101;
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return 102;
    if (mount("none", path.c_str(), "tmpfs", 0, options.c_str()) != 0) return 103;
    return body();
  });
  const int status = process.wait(std::chrono::seconds(60));
  *output = process.output();
  return status;
}

TEST_F(MtsLimits, ABindOnAFullFileSystemLeavesNothing) {
  std::string output;
  const auto body = [this] {
    std::ofstream filler(directory.path() + "/filler");
    while (filler << std::string(4096, 'x') << std::flush) {
    }
    filler.close();
    if (bind(-1) != no_queue || errno != ENOSPC) return 1;
    if (bind(263) != no_queue || errno != ENOSPC) return 2;
    if (files_in(directory.path()) != std::set<std::string>{"filler"}) return 3;
    std::filesystem::remove(directory.path() + "/filler");
    const Queue queue(263);
    return queue.sap() == 263 ? 0 : 4;
  };
  EXPECT_EQ(in_small_file_system(directory.path(), "size=64k", body, &output), 0) << output;
}

TEST_F(MtsLimits, ABindOnAFileSystemWithoutRoomForItsFilesLeavesNothing) {
  // One file is the root, two are directories, two are the SAP's.
  for (int inodes = 2; inodes <= 5; ++inodes) {
    const auto body = [this, inodes] {
      const uint32_t queue = bind(263);
      const int error = errno;
      if (inodes == 5) return queue != no_queue && mts_unbind(queue, 0) == 0 ? 0 : 1;
      if (queue != no_queue || error != ENOSPC) return 2;
      return files_in(directory.path()).empty() ? 0 : 3;
    };
    std::string output;
    EXPECT_EQ(in_small_file_system(directory.path(), "size=64k,nr_inodes=" + std::to_string(inodes), body, &output), 0)
        << inodes << " inodes: " << output;
  }
}

}  // namespace
