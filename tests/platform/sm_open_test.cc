// SPDX-License-Identifier: Apache-2.0
// The client's side of the shared-memory library: descriptors, their references, and shm_unlink.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "platform/standard_error.h"
#include "sm.h"
#include "sm/segment_map.h"
#include "support/run_directory.h"

namespace {

using rsw::segment_ip;
using rsw::SegmentMap;
using test_support::RunDirectory;
using test_support::standard_error_of;

class SmOpen : public testing::Test {
 protected:
  void publish() {
    std::string reason;
    writer_ = SegmentMap::create(segment_ip, &reason);
    ASSERT_NE(writer_, nullptr) << reason;
    ASSERT_TRUE(writer_->grow(segment_ip.base + 20000, &reason)) << reason;
    writer_->header()->root = segment_ip.base + 4096;
    ASSERT_TRUE(writer_->publish_name(&reason)) << reason;
  }
  uint32_t open() { return sm_open("/rsw/shm/ip", &handle_, 0, 1, 17); }
  uint32_t word(size_t offset) const {
    uint32_t value = 0;
    memcpy(&value, static_cast<const char *>(handle_) + offset, sizeof value);
    return value;
  }
  RunDirectory run_;
  std::shared_ptr<SegmentMap> writer_;
  void *handle_ = nullptr;
};

TEST_F(SmOpen, AnswersWithADescriptorOfTheSegment) {
  publish();
  ASSERT_EQ(open() & 0xffffu, 0u);
  ASSERT_NE(handle_, nullptr);
  EXPECT_STREQ(static_cast<const char *>(handle_), "/rsw/shm/ip");
  EXPECT_EQ(word(84), writer_->header()->segment_id);
  EXPECT_EQ(word(88), segment_ip.base);
  EXPECT_EQ(word(92), segment_ip.base);
  EXPECT_EQ(word(96), segment_ip.base + 20000);
  EXPECT_EQ(word(100), segment_ip.base + segment_ip.size);
  EXPECT_EQ(word(188), segment_ip.base + 4096);
  EXPECT_EQ(word(104), 0x424e4431u) << "its records lie inside the window";
  for (size_t offset = 108; offset < 188; offset += 4) EXPECT_EQ(word(offset), 0u) << offset;
  EXPECT_EQ(sm_close(handle_), 0u);
}

TEST_F(SmOpen, OfAMissingSegmentSaysSoAndLogsWhy) {
  handle_ = this;
  uint32_t status = 0;
  int error = 0;
  const std::string log = standard_error_of([&] {
    status = open();
    error = errno;
  });
  EXPECT_EQ(status & 0xffffu, static_cast<uint32_t>(ENOENT));
  EXPECT_EQ(error, ENOENT);
  EXPECT_EQ(handle_, nullptr);
  EXPECT_NE(log.find("No such file"), std::string::npos) << log;
}

TEST_F(SmOpen, OfANameThatIsNoSegmentIsRefused) {
  EXPECT_EQ(sm_open("/rsw/shm/nothing", &handle_, 0, 1, 17), static_cast<uint32_t>(ENOENT));
}

TEST_F(SmOpen, OfAnotherLayoutLogsBothHashes) {
  rsw::SegmentLayout other = segment_ip;
  other.layout_hash = 0x0badf00d;
  std::string reason;
  {
    const auto writer = SegmentMap::create(other, &reason);
    ASSERT_TRUE(writer->publish_name(&reason)) << reason;
  }
  uint32_t status = 0;
  const std::string log = standard_error_of([&] { status = open(); });
  EXPECT_EQ(status, static_cast<uint32_t>(EPROTO));
  EXPECT_NE(log.find("0x0badf00d"), std::string::npos) << log;
}

TEST_F(SmOpen, BeforeAnythingIsPublishedIsRefused) {
  std::string reason;
  const auto writer = SegmentMap::create(segment_ip, &reason);
  ASSERT_TRUE(writer->publish_name(&reason)) << reason;
  EXPECT_EQ(open(), static_cast<uint32_t>(EAGAIN));
}

TEST_F(SmOpen, InAnotherWayThanForReadingIsRefused) {
  publish();
  EXPECT_EQ(sm_open("/rsw/shm/ip", &handle_, 1, 1, 17), static_cast<uint32_t>(EINVAL));
  EXPECT_EQ(sm_open("/rsw/shm/ip", &handle_, 0, 2, 17), static_cast<uint32_t>(EINVAL));
  EXPECT_EQ(sm_open("/rsw/shm/ip", &handle_, 0, 1, 18), static_cast<uint32_t>(EINVAL));
  EXPECT_EQ(sm_open(nullptr, &handle_, 0, 1, 17), static_cast<uint32_t>(EINVAL));
  EXPECT_EQ(sm_open("/rsw/shm/ip", nullptr, 0, 1, 17), static_cast<uint32_t>(EINVAL));
}

TEST_F(SmOpen, CountsReferences) {
  publish();
  *reinterpret_cast<uint32_t *>(static_cast<uintptr_t>(segment_ip.base + 4096)) = 5;
  ASSERT_EQ(open(), 0u);
  void *const first = handle_;
  ASSERT_EQ(open(), 0u);
  EXPECT_NE(handle_, first);
  writer_.reset();
  EXPECT_EQ(sm_close(first), 0u);
  const auto *record = reinterpret_cast<const uint32_t *>(static_cast<uintptr_t>(segment_ip.base + 4096));
  EXPECT_EQ(*record, 5u);
  EXPECT_EQ(sm_close(handle_), 0u);
  EXPECT_EQ(*record, 0u) << "the window reads zeros again";
}

TEST_F(SmOpen, ClosedTwiceIsAnError) {
  publish();
  ASSERT_EQ(open(), 0u);
  EXPECT_EQ(sm_close(handle_), 0u);
  EXPECT_EQ(sm_close(handle_), static_cast<uint32_t>(EBADF));
  EXPECT_EQ(sm_close(nullptr), static_cast<uint32_t>(EBADF));
}

TEST(SmmApiInit, SucceedsAndMayBeRepeated) {
  EXPECT_NE(smm_api_init(0), 0u);
  EXPECT_NE(smm_api_init(0), 0u);
}

TEST_F(SmOpen, FailsAfterShmUnlinkWhileAttachedClientsGoOn) {
  publish();
  auto *record = reinterpret_cast<uint32_t *>(static_cast<uintptr_t>(segment_ip.base + 4096));
  *record = 77;
  ASSERT_EQ(open(), 0u);
  void *const attached = handle_;
  EXPECT_EQ(shm_unlink("/rsw/shm/ip"), 0);
  EXPECT_EQ(open(), static_cast<uint32_t>(ENOENT));
  EXPECT_EQ(*record, 77u);
  *record = 78;  // the writer goes on too
  EXPECT_EQ(*record, 78u);
  EXPECT_EQ(sm_close(attached), 0u);
}

TEST_F(SmOpen, ShmUnlinkOfAMissingSegmentIsEnoent) {
  errno = 0;
  EXPECT_EQ(shm_unlink("/rsw/shm/ip"), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(SmOpen, ShmUnlinkDoesNotLeaveTheRunDirectory) {
  for (const char *name : {"/rsw/shm/", "/rsw/shm/..", "/rsw/shm/../../etc/passwd", "/rsw/shm/a/b"}) {
    errno = 0;
    EXPECT_EQ(shm_unlink(name), -1) << name;
    EXPECT_EQ(errno, EINVAL) << name;
  }
}

TEST(ShmUnlink, PassesOtherNamesToTheSystem) {
  const std::string name = "/rsw-test-" + std::to_string(getpid());
  const int fd = shm_open(name.c_str(), O_CREAT | O_RDWR, 0600);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(shm_unlink(name.c_str()), 0);
  errno = 0;
  EXPECT_EQ(shm_open(name.c_str(), O_RDWR, 0600), -1);
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
