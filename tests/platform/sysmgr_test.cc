// SPDX-License-Identifier: Apache-2.0
// The supervisor's state: with and without a segment, set by somebody who may and by somebody who may not.
#include "sysmgr.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "sm/segment_map.h"
#include "support/process.h"
#include "support/run_directory.h"
#include "sysmgr/sysmgr_writer.h"

namespace {

using test_support::Process;
using test_support::RunDirectory;
using test_support::wait_until;

class SystemManager : public testing::Test {
 protected:
  void open() const {
    std::string reason;
    ASSERT_TRUE(rsw::sysmgr_open_for_writing(&reason)) << reason;
  }
  [[nodiscard]] std::string path() const { return directory_.path() + "/sysmgr"; }
  const RunDirectory directory_;
  std::string reason_;
};

TEST_F(SystemManager, WithoutASegmentTheStateIsActiveAndTheUuidZero) {
  EXPECT_EQ(sysmgr_supstate_get(), 1u);
  EXPECT_EQ(sysmgr_uuid_get(), 0u);
}

TEST_F(SystemManager, AQuestionKeepsErrno) {
  errno = EAGAIN;
  sysmgr_supstate_get();
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(SystemManager, AFreshSegmentIsActiveWithAUuid) {
  open();
  EXPECT_EQ(sysmgr_supstate_get(), 1u);
  EXPECT_NE(sysmgr_uuid_get(), 0u);
}

TEST_F(SystemManager, ASegmentThatComesLaterIsSeen) {
  EXPECT_EQ(sysmgr_uuid_get(), 0u);
  Process writer([] {
    std::string reason;
    return rsw::sysmgr_open_for_writing(&reason) && rsw::sysmgr_supstate_set(2, &reason) ? 0 : 1;
  });
  ASSERT_EQ(writer.wait(), 0);
  EXPECT_EQ(sysmgr_supstate_get(), 2u);
  EXPECT_NE(sysmgr_uuid_get(), 0u);
}

TEST_F(SystemManager, AStateThatIsSetIsSeenByAnAttachedProcess) {
  open();
  Process reader([] { return wait_until([] { return sysmgr_supstate_get() == 2; }) ? 0 : 1; });
  ASSERT_TRUE(rsw::sysmgr_supstate_set(rsw::supervisor_standby, &reason_)) << reason_;
  EXPECT_EQ(reader.wait(), 0);
  ASSERT_TRUE(rsw::sysmgr_supstate_set(rsw::supervisor_active, &reason_)) << reason_;
  EXPECT_EQ(sysmgr_supstate_get(), 1u);
}

TEST_F(SystemManager, WhoWaitsForTheGenerationIsWokenByAChangeOfState) {
  open();
  const auto segment = rsw::SegmentMap::attach(rsw::segment_sysmgr, &reason_);
  ASSERT_NE(segment, nullptr) << reason_;
  const uint32_t seen = segment->header()->generation;
  std::thread setter([] {
    std::string reason;
    EXPECT_TRUE(rsw::sysmgr_supstate_set(2, &reason)) << reason;
  });
  EXPECT_NE(rsw::wait_for_generation(segment->header(), seen, 10000), seen);
  setter.join();
}

TEST_F(SystemManager, StateAndUuidOutliveTheirMaker) {
  Process first([] {
    std::string reason;
    if (!rsw::sysmgr_open_for_writing(&reason) || !rsw::sysmgr_supstate_set(2, &reason)) return 1;
    return 0;
  });
  ASSERT_EQ(first.wait(), 0);
  const uint32_t uuid = sysmgr_uuid_get();
  open();
  EXPECT_EQ(sysmgr_supstate_get(), 2u);
  EXPECT_EQ(sysmgr_uuid_get(), uuid);
}

TEST_F(SystemManager, TwoSystemsHaveTwoUuids) {
  open();
  const uint32_t first = sysmgr_uuid_get();
  const RunDirectory other;
  open();
  EXPECT_NE(sysmgr_uuid_get(), first);
}

TEST_F(SystemManager, AStateThatDoesNotExistIsRefused) {
  open();
  for (const uint32_t state : {0u, 3u, 0xffffffffu}) {
    EXPECT_FALSE(rsw::sysmgr_supstate_set(state, &reason_));
    EXPECT_EQ(reason_, "supervisor state " + std::to_string(state) + " is neither active (1) nor standby (2)");
  }
  EXPECT_EQ(sysmgr_supstate_get(), 1u);
}

TEST_F(SystemManager, SettingWithoutASegmentSaysWhatIsMissing) {
  EXPECT_FALSE(rsw::sysmgr_supstate_set(2, &reason_));
  EXPECT_EQ(reason_, path() + ": No such file or directory");
}

TEST_F(SystemManager, SettingInAFileThatIsNoSegmentIsRefused) {
  const int fd = ::open(path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_EQ(ftruncate(fd, static_cast<off_t>(rsw::segment_sysmgr.size)), 0);
  close(fd);
  EXPECT_FALSE(rsw::sysmgr_supstate_set(2, &reason_));
  EXPECT_EQ(reason_, path() + " is not a segment of this layout");
}

TEST_F(SystemManager, ATruncatedFileLeavesTheStateActive) {
  const int fd = ::open(path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_EQ(ftruncate(fd, 10), 0);
  close(fd);
  EXPECT_EQ(sysmgr_supstate_get(), 1u);
  EXPECT_FALSE(rsw::sysmgr_supstate_set(2, &reason_));
}

TEST_F(SystemManager, TheFileIsWritableByItsOwnerAlone) {
  open();
  struct stat file {};
  ASSERT_EQ(stat(path().c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 07777, 0644u);
}

TEST_F(SystemManager, AnotherUserMayAskAndMayNotSet) {
  open();
  ASSERT_EQ(chmod(directory_.path().c_str(), 0755), 0);
  Process other([this] {
    // Only root can become somebody else; for others the file is closed to its owner.
    if (geteuid() != 0) {
      if (chmod(path().c_str(), 0444) != 0) return 11;
    } else if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) {
      return 10;
    }
    std::string reason;
    if (rsw::sysmgr_supstate_set(2, &reason)) return 1;
    if (reason != path() + ": Permission denied") return 2;
    return sysmgr_supstate_get() == 1 && sysmgr_uuid_get() != 0 ? 0 : 3;
  });
  EXPECT_EQ(other.wait(), 0);
}

}  // namespace
