// SPDX-License-Identifier: Apache-2.0
// Segments as files: made, attached, taken over, replaced, and refused with a reason when anything is wrong with them.
#include "sm/segment_map.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <thread>

#include "platform/standard_error.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using rsw::segment_ip;
using rsw::SegmentHeader;
using rsw::SegmentLayout;
using rsw::SegmentMap;
using test_support::Process;
using test_support::RunDirectory;
using test_support::standard_error_of;
using test_support::wait_until;

uint32_t *words_at(uint32_t address) {
  return reinterpret_cast<uint32_t *>(static_cast<uintptr_t>(address));
}

std::shared_ptr<SegmentMap> published(const SegmentLayout &layout = segment_ip) {
  std::string reason;
  auto writer = SegmentMap::create(layout, &reason);
  EXPECT_NE(writer, nullptr) << reason;
  EXPECT_TRUE(writer->grow(layout.base + 3 * rsw::segment_page, &reason)) << reason;
  writer->header()->root = layout.base + rsw::segment_page;
  EXPECT_TRUE(writer->publish_name(&reason)) << reason;
  return writer;
}

// Why an attach is refused; "" when it is not.
std::string refusal(const SegmentLayout &layout = segment_ip) {
  std::string reason;
  return SegmentMap::attach(layout, &reason) == nullptr ? reason : "";
}

std::string file_of(const SegmentLayout &layout = segment_ip) {
  return rsw::segment_path(layout.name);
}

bool says(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

class Segment : public testing::Test {
 protected:
  RunDirectory run_;
};

TEST_F(Segment, IsAFileAsLongAsItsWindowThatTakesOnlyWhatIsUsed) {
  const auto writer = published();
  struct stat file {};
  ASSERT_EQ(stat(file_of().c_str(), &file), 0);
  EXPECT_EQ(static_cast<uint64_t>(file.st_size), segment_ip.size);
  EXPECT_LT(file.st_blocks * 512, 64 * 1024);
  EXPECT_EQ(file.st_mode & 07777u, 0644u);
}

TEST_F(Segment, OfClientsThatWriteIsWritableForAllWhateverTheUmask) {
  const mode_t before = umask(077);
  const auto writer = published(rsw::segment_mtrack);
  umask(before);
  struct stat file {};
  ASSERT_EQ(stat(file_of(rsw::segment_mtrack).c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 07777u, 0666u);
}

TEST_F(Segment, HeaderSaysWhatItIs) {
  const auto writer = published();
  const SegmentHeader *header = writer->header();
  EXPECT_EQ(reinterpret_cast<uintptr_t>(header), segment_ip.base);
  EXPECT_STREQ(header->name, "/rsw/shm/ip");
  EXPECT_EQ(header->instance, 1u);
  EXPECT_EQ(header->writer_pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(header->layout_hash, segment_ip.layout_hash);
  EXPECT_FALSE(writer->took_over());
}

TEST_F(Segment, NamesHaveIdsAndHashesOfTheirOwn) {
  EXPECT_EQ(rsw::find_segment_layout("/rsw/shm/ip"), &segment_ip);
  EXPECT_EQ(rsw::find_segment_layout("/rsw/shm/other"), nullptr);
  EXPECT_NE(rsw::segment_ip.layout_hash, rsw::segment_urib.layout_hash);
  EXPECT_NE(published(rsw::segment_im)->header()->segment_id, published()->header()->segment_id);
}

TEST_F(Segment, HasNoNameBeforeItIsPublished) {
  std::string reason;
  const auto writer = SegmentMap::create(segment_ip, &reason);
  ASSERT_NE(writer, nullptr) << reason;
  EXPECT_FALSE(std::filesystem::exists(file_of()));
  ASSERT_TRUE(writer->publish_name(&reason)) << reason;
  EXPECT_TRUE(std::filesystem::exists(file_of()));
}

TEST_F(Segment, LeavesNoFileWhenItsWriterGivesUpBeforePublishing) {
  std::string reason;
  SegmentMap::create(segment_ip, &reason).reset();
  EXPECT_TRUE(std::filesystem::is_empty(run_.path()));
}

TEST_F(Segment, AttachedReadOnlyFaultsOnAStore) {
  Process maker([] {
    published();
    return 0;
  });
  ASSERT_EQ(maker.wait(), 0);
  EXPECT_DEATH(
      {
        std::string reason;
        const auto map = SegmentMap::attach(segment_ip, &reason);
        if (map != nullptr) *const_cast<volatile uint32_t *>(words_at(segment_ip.base + rsw::segment_page)) = 1;
        _exit(0);
      },
      "");
}

TEST_F(Segment, IsMappedOncePerProcessAndGoesWithTheLastReference) {
  auto writer = published();
  words_at(segment_ip.base + rsw::segment_page)[0] = 7;
  std::string reason;
  auto reader = SegmentMap::attach(segment_ip, &reason);
  ASSERT_NE(reader, nullptr) << reason;
  EXPECT_EQ(reader->header(), writer->header());
  writer.reset();
  EXPECT_EQ(words_at(segment_ip.base + rsw::segment_page)[0], 7u);
  reader.reset();
  EXPECT_EQ(words_at(segment_ip.base + rsw::segment_page)[0], 0u) << "the window reads zeros again";
}

TEST_F(Segment, WholeRangeReadsZerosAroundIt) {
  const auto writer = published();
  for (uint32_t address = rsw::window_low; address < rsw::window_high; address += 16u << 20) {
    if (address - segment_ip.base < segment_ip.size) continue;
    EXPECT_EQ(words_at(address)[0], 0u) << address;
  }
  EXPECT_EQ(words_at(segment_ip.base + segment_ip.size - 4)[0], 0u) << "a hole of the file";
}

TEST_F(Segment, IsTakenOverWithItsContents) {
  published().reset();
  std::string reason;
  {
    const auto second = SegmentMap::create(segment_ip, &reason);
    ASSERT_NE(second, nullptr) << reason;
    words_at(segment_ip.base + rsw::segment_page)[0] = 99;
  }
  const auto third = SegmentMap::create(segment_ip, &reason);
  ASSERT_NE(third, nullptr) << reason;
  EXPECT_TRUE(third->took_over());
  EXPECT_EQ(third->header()->instance, 3u);
  EXPECT_EQ(words_at(segment_ip.base + rsw::segment_page)[0], 99u);
  EXPECT_EQ(third->header()->used_end, segment_ip.base + 3 * rsw::segment_page);
}

TEST_F(Segment, OfAKilledWriterIsTakenOver) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  Process killed([&] {
    const auto writer = published();
    words_at(segment_ip.base + rsw::segment_page)[0] = 4711;
    if (write(ready[1], "x", 1) != 1) return 1;
    for (;;) pause();
  });
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  killed.kill_now();
  std::string reason;
  const auto next = SegmentMap::create(segment_ip, &reason);
  ASSERT_NE(next, nullptr) << reason;
  EXPECT_TRUE(next->took_over());
  EXPECT_EQ(next->header()->writer_pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(words_at(segment_ip.base + rsw::segment_page)[0], 4711u);
}

TEST_F(Segment, HasOneWriterPerProcess) {
  const auto writer = published();
  std::string reason;
  EXPECT_EQ(SegmentMap::create(segment_ip, &reason), nullptr);
  EXPECT_TRUE(says(reason, "its writer already")) << reason;
}

TEST_F(Segment, MayBeWrittenAnewInAProcessThatStillReadsIt) {
  auto writer = published();
  std::string reason;
  const auto reader = SegmentMap::attach(segment_ip, &reason);
  writer.reset();
  writer = SegmentMap::create(segment_ip, &reason);
  ASSERT_NE(writer, nullptr) << reason;
  EXPECT_TRUE(writer->took_over());
}

TEST_F(Segment, OfAnotherLayoutIsReplacedAndItsReadersGoOn) {
  SegmentLayout older = segment_ip;
  older.layout_hash ^= 0x5a5a5a5a;
  int ready[2];
  int replaced[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(replaced), 0);
  Process old_system([&] {
    const auto writer = published(older);
    words_at(segment_ip.base + rsw::segment_page)[0] = 1;
    char byte = 0;
    if (write(ready[1], "x", 1) != 1 || read(replaced[0], &byte, 1) != 1) return 2;
    return words_at(segment_ip.base + rsw::segment_page)[0] == 1 ? 0 : 1;
  });
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  std::shared_ptr<SegmentMap> writer;
  const std::string log = standard_error_of([&] { writer = published(); });
  EXPECT_TRUE(says(log, "making a new segment")) << log;
  EXPECT_FALSE(writer->took_over());
  words_at(segment_ip.base + rsw::segment_page)[0] = 2;
  ASSERT_EQ(write(replaced[1], "x", 1), 1);
  EXPECT_EQ(old_system.wait(), 0);
}

TEST_F(Segment, GrowsToTheLastPageOfItsWindowAndNotBeyond) {
  const auto writer = published(rsw::segment_sysmgr);
  const uint32_t end = rsw::segment_sysmgr.base + rsw::segment_sysmgr.size;
  std::string reason;
  EXPECT_TRUE(writer->grow(end - rsw::segment_page, &reason)) << reason;
  EXPECT_EQ(writer->header()->used_end, end - rsw::segment_page);
  EXPECT_FALSE(writer->grow(end - rsw::segment_page + 1, &reason));
  EXPECT_TRUE(says(reason, "is full")) << reason;
}

TEST_F(Segment, NeverShrinks) {
  const auto writer = published();
  const uint32_t before = writer->header()->used_end;
  std::string reason;
  EXPECT_TRUE(writer->grow(segment_ip.base + rsw::segment_page, &reason));
  EXPECT_EQ(writer->header()->used_end, before);
}

// --- refusals

TEST_F(Segment, MissingIsRefused) {
  EXPECT_TRUE(says(refusal(), "No such file or directory"));
}

TEST_F(Segment, EmptyIsRefused) {
  close(open(file_of().c_str(), O_CREAT | O_WRONLY, 0644));
  EXPECT_TRUE(says(refusal(), "is empty")) << refusal();
}

TEST_F(Segment, TruncatedIsRefusedAtEveryLength) {
  published().reset();
  for (const off_t length : {1, 50, 95, 96, 4095, 4096, 65536, 1 << 20}) {
    ASSERT_EQ(truncate(file_of().c_str(), length), 0);
    EXPECT_TRUE(says(refusal(), "truncated") || says(refusal(), "not a segment")) << length << ": " << refusal();
    std::filesystem::remove(file_of());
    published().reset();
  }
}

TEST_F(Segment, ThatIsTooLongIsRefused) {
  published().reset();
  ASSERT_EQ(truncate(file_of().c_str(), static_cast<off_t>(segment_ip.size) + 4096), 0);
  EXPECT_NE(refusal(), "");
}

TEST_F(Segment, OfAnotherLayoutIsRefusedWithBothHashes) {
  published().reset();
  SegmentLayout ours = segment_ip;
  ours.layout_hash = 0x00c0ffee;
  char theirs[16];
  snprintf(theirs, sizeof theirs, "0x%08x", segment_ip.layout_hash);
  EXPECT_TRUE(says(refusal(ours), "0x00c0ffee")) << refusal(ours);
  EXPECT_TRUE(says(refusal(ours), theirs)) << refusal(ours);
}

TEST_F(Segment, ThatIsADirectoryIsRefused) {
  ASSERT_EQ(mkdir(file_of().c_str(), 0755), 0);
  EXPECT_TRUE(says(refusal(), "not a regular file")) << refusal();
}

TEST_F(Segment, ThatIsASymbolicLinkIsRefused) {
  published().reset();
  std::filesystem::rename(file_of(), run_.path() + "/elsewhere");
  std::filesystem::create_symlink(run_.path() + "/elsewhere", file_of());
  EXPECT_TRUE(says(refusal(), "symbolic link")) << refusal();
}

TEST_F(Segment, ThatIsAFifoIsRefusedAtOnce) {
  ASSERT_EQ(mkfifo(file_of().c_str(), 0644), 0);
  EXPECT_TRUE(says(refusal(), "not a regular file")) << refusal();
}

TEST_F(Segment, OfAnotherOwnerIsRefused) {
  if (geteuid() != 0) return;  // only root can give files away
  published().reset();
  ASSERT_EQ(chown(file_of().c_str(), 12345, static_cast<gid_t>(-1)), 0);
  EXPECT_TRUE(says(refusal(), "belongs to uid 12345")) << refusal();
}

TEST_F(Segment, OfTheRunDirectorysOwnerIsAccepted) {
  if (geteuid() != 0) return;
  published().reset();
  ASSERT_EQ(chown(file_of().c_str(), 12345, static_cast<gid_t>(-1)), 0);
  ASSERT_EQ(chown(run_.path().c_str(), 12345, static_cast<gid_t>(-1)), 0);
  EXPECT_EQ(refusal(), "");
}

TEST_F(Segment, WithAnyDamagedHeaderWordIsRefused) {
  published().reset();
  const int fd = open(file_of().c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  SegmentHeader whole{};
  ASSERT_EQ(pread(fd, &whole, sizeof whole, 0), static_cast<ssize_t>(sizeof whole));
  const auto refused_with = [&](auto damage) {
    SegmentHeader header = whole;
    damage(header);
    EXPECT_EQ(pwrite(fd, &header, sizeof header, 0), static_cast<ssize_t>(sizeof header));
    return refusal();
  };
  EXPECT_EQ(refused_with([](SegmentHeader &) {}), "");
  EXPECT_TRUE(says(refused_with([](SegmentHeader &h) { h.magic = 1; }), "not a segment"));
  EXPECT_TRUE(says(refused_with([](SegmentHeader &h) { h.header_version = 9; }), "version 9"));
  EXPECT_TRUE(says(refused_with([](SegmentHeader &h) { h.base += 65536; }), "damaged"));
  EXPECT_TRUE(says(refused_with([](SegmentHeader &h) { h.size /= 2; }), "damaged"));
  EXPECT_TRUE(says(refused_with([](SegmentHeader &h) { h.used_end = 0; }), "used area"));
  EXPECT_TRUE(says(refused_with([](SegmentHeader &h) { h.used_end = h.base + h.size; }), "used area"));
  EXPECT_TRUE(says(refused_with([](SegmentHeader &h) { h.root = 0x10; }), "root record"));
  EXPECT_TRUE(says(refused_with([](SegmentHeader &h) { h.root += 2; }), "root record"));
  EXPECT_TRUE(says(refused_with([](SegmentHeader &h) { h.root = h.base + h.size - 4; }), "root record"));
  EXPECT_TRUE(says(refused_with([](SegmentHeader &h) { h.name[3] = 'X'; }), "another name"));
  EXPECT_TRUE(says(refused_with([](SegmentHeader &h) { memset(h.name, 'x', sizeof h.name); }), "another name"));
  close(fd);
}

TEST_F(Segment, OfARunDirectoryThatCannotBeMadeIsRefused) {
  const test_support::Environment elsewhere("RSW_RUN_DIR", "/proc/nowhere/at/all");
  std::string reason;
  EXPECT_EQ(SegmentMap::create(segment_ip, &reason), nullptr);
  EXPECT_TRUE(says(reason, "cannot make the run directory")) << reason;
}

TEST_F(Segment, SaysWhenTheFileSystemIsFull) {
  if (geteuid() != 0) return;  // needs a small file system of its own
  Process child([this] {
    const std::string small = run_.path() + "/small";
    mkdir(small.c_str(), 0755);
    if (mount("none", small.c_str(), "tmpfs", 0, "size=256k") != 0) return 0;  // not allowed here
    setenv("RSW_RUN_DIR", small.c_str(), 1);
    std::string reason;
    int verdict = 0;
    {
      const auto writer = SegmentMap::create(segment_ip, &reason);
      if (writer == nullptr) verdict = 2;
      if (verdict == 0 && writer->grow(segment_ip.base + (1u << 20), &reason)) verdict = 3;
      if (verdict == 0 && !says(reason, "No space left")) verdict = 4;
      if (verdict == 0 && !writer->grow(segment_ip.base + (64u << 10), &reason)) verdict = 5;
    }
    umount2(small.c_str(), MNT_DETACH);
    return verdict;
  });
  EXPECT_EQ(child.wait(), 0);
}

TEST(Reservation, NamesWhatIsInTheWay) {
  const RunDirectory run;
  Process child({"/proc/self/exe", "--range-taken"});  // a fresh process: the range may be reserved in this one
  EXPECT_EQ(child.wait(), 0) << child.output();
}

// --- generations

TEST_F(Segment, GenerationIsWaitedFor) {
  const auto writer = published();
  const uint32_t seen = writer->header()->generation;
  EXPECT_EQ(rsw::wait_for_generation(writer->header(), seen, 1), seen);
  std::thread changer([&] { writer->publish_generation(); });
  EXPECT_EQ(rsw::wait_for_generation(writer->header(), seen, 10000), seen + 1);
  changer.join();
}

TEST_F(Segment, GenerationWakesAReaderInAnotherProcess) {
  const auto writer = published();
  Process reader({"/proc/self/exe", "--wait-for-generation"});
  // The reader says that it is attached; what it waits for comes afterwards, whether it sleeps by then or not.
  ASSERT_TRUE(wait_until([&] { return says(reader.output(), "attached"); }));
  writer->publish_generation();
  EXPECT_EQ(reader.wait(), 0) << reader.output();
}

int wait_as_a_reader() {
  std::string reason;
  const auto map = SegmentMap::attach(segment_ip, &reason);
  if (map == nullptr) {
    puts(reason.c_str());
    return 1;
  }
  const uint32_t seen = map->header()->generation;
  puts("attached");
  fflush(stdout);
  return rsw::wait_for_generation(map->header(), seen, 20000) == seen + 1 ? 0 : 2;
}

// Something stands in the range before the first attach: the refusal must name it.
int attach_with_the_range_taken() {
  void *const wish = reinterpret_cast<void *>(static_cast<uintptr_t>(0x68000000u));
  const int exe = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  if (mmap(wish, 4096, PROT_READ, MAP_PRIVATE | MAP_FIXED_NOREPLACE, exe, 0) != wish) return 3;
  std::string reason;
  if (SegmentMap::create(segment_ip, &reason) != nullptr) return 4;
  puts(reason.c_str());
  return says(reason, "in the way is 68000000-68001000") && says(reason, "segment_map_test") ? 0 : 5;
}

}  // namespace

int main(int argc, char **argv) {
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--wait-for-generation") == 0) return wait_as_a_reader();
    if (strcmp(argv[i], "--range-taken") == 0) return attach_with_the_range_taken();
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
