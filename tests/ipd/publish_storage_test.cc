// SPDX-License-Identifier: Apache-2.0
// No room: the file system has no storage for the segment to grow. A refused change leaves everything as it was, and
// succeeds when there is room again.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include "ipd/publish_random.h"
#include "ipd/publish_system.h"
#include "ipd/publish_twin.h"

namespace publish_test {
namespace {

int grows_left = -1;  // -1: any number

bool storage_granted() {
  if (grows_left < 0) return true;
  if (grows_left == 0) return false;
  --grows_left;
  return true;
}

}  // namespace
}  // namespace publish_test

// librsw finds this definition before libc's: the name that both widths use for offsets of 64 bits.
extern "C" __attribute__((visibility("default"))) int posix_fallocate64(int fd, off64_t offset, off64_t length) {
  using Function = int (*)(int, off64_t, off64_t);
  static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "posix_fallocate64"));
  return publish_test::storage_granted() ? real(fd, offset, length) : ENOSPC;
}

namespace publish_test {
namespace {

class PublishStorage : public testing::Test {
 protected:
  ~PublishStorage() override { grows_left = -1; }
};

TEST_F(PublishStorage, EveryChangeIsDoneWholeOrNotAtAll) {
  int refused = 0;
  for (int grows = 0; grows < 24 && !HasFailure(); ++grows) {
    RandomChanges changes;
    SCOPED_TRACE("PUBLISH_SEED=" + std::to_string(changes.seed()) + " grows " + std::to_string(grows));
    System system;
    ASSERT_TRUE(system->set_context(default_context));
    Twin twin;
    twin.set_context(default_context);
    system.go_live();
    grows_left = grows;
    for (int i = 0; i < 120; ++i) {
      if (!changes.one(*system, twin, true)) ++refused;
      ASSERT_TRUE(system.commit());
      twin.expect_published(*system);
    }
    grows_left = -1;
    for (int i = 0; i < 60; ++i) {
      changes.one(*system, twin);
      ASSERT_TRUE(system.commit());
      twin.expect_published(*system);
    }
  }
  EXPECT_GT(refused, 0) << "nothing was tested";
}

TEST_F(PublishStorage, AFullSegmentRefusesOneAddressAndGoesOn) {
  System system;
  ASSERT_TRUE(system->set_context(default_context));
  ASSERT_TRUE(system->set_interface(interface(2)));
  ASSERT_TRUE(system->set_address(2, primary(ip(20, 0, 0, 1), 8)));
  system.go_live();
  grows_left = 0;
  uint32_t added = 0;
  while (added < 100000 && system->set_address(2, primary(ip(10, 0, 0, 0) + 256 * added + 1, 24))) ++added;
  ASSERT_LT(added, 100000u);
  EXPECT_EQ(system->last_error().substr(0, 30), "no room in the shared segment ");
  EXPECT_EQ(system->use().addresses, added + 1);
  EXPECT_EQ(addresses_of(system->iod(2)).size(), added + 1);
  EXPECT_EQ(holdings_of(1).size(), 2 * (added + 1));
  EXPECT_EQ(ip_get_iod_for_local_address("default", ip(10, 0, 0, 0) + 256 * added + 1), 0u);
  EXPECT_EQ(ip_get_iod_for_local_address("default", ip(20, 0, 0, 1)), system->iod(2));

  // Everything can be taken away without any storage, and what was there before fits again.
  for (uint32_t i = 0; i < added; ++i) ASSERT_TRUE(system->remove_address(2, ip(10, 0, 0, 0) + 256 * i + 1, 24));
  for (uint32_t i = 0; i < added; ++i) {
    ASSERT_EQ(ip_get_iod_for_local_address("default", ip(10, 0, 0, 0) + 256 * i + 1), 0u);
  }
  EXPECT_EQ(addresses_of(system->iod(2)).size(), 1u);
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(system.commit());
  EXPECT_EQ(holdings_of(1).size(), 2u);
  for (uint32_t i = 0; i < added / 2; ++i) {
    ASSERT_TRUE(system->set_address(2, primary(ip(10, 0, 0, 0) + 256 * i + 1, 24))) << i;
    system->tick(std::chrono::steady_clock::now());
  }
  grows_left = -1;
  EXPECT_TRUE(system->set_address(2, primary(ip(10, 0, 0, 0) + 256 * added + 1, 24)));
}

TEST_F(PublishStorage, OpeningWithoutStorageGivesAReason) {
  const test_support::RunDirectory directory;
  grows_left = 0;
  std::string reason;
  EXPECT_EQ(ipd::Publisher::open(&reason), nullptr);
  EXPECT_NE(reason, "");
}

}  // namespace
}  // namespace publish_test
