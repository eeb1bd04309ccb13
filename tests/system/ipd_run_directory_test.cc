// SPDX-License-Identifier: Apache-2.0
// Run directories in which ipd cannot start, each with one line that names the path and says what to do; and those that
// look bad and do not keep it from serving.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "other_users.h"
#include "run_directory_fixture.h"

namespace {

using namespace run_directory_test;

constexpr const char *make_room = "; make room in that file system, or ";

class IpdRunDirectory : public RunDirectoryTest {};

mode_t mode_of(const std::string &path) {
  struct stat what {};
  return stat(path.c_str(), &what) == 0 ? what.st_mode & 07777 : 0;
}

TEST_F(IpdRunDirectory, ThatIsFullIsRefusedWithWhatToDo) {
  const std::string directory = mounted("full", "size=64k");
  fill(directory + "/filler", ~size_t{0});
  expect_refused(directory, directory + "/ipd.lock: No space left on device" + make_room + other_directory);
  unlink((directory + "/filler").c_str());
  // What makes room for nothing but the lock shows that it starts as soon as there is some.
  ASSERT_EQ(mount("none", directory.c_str(), "tmpfs", MS_REMOUNT, "mode=755,size=16m"), 0) << strerror(errno);
  expect_starts_in(directory);
}

TEST_F(IpdRunDirectory, WithRoomForAPartIsRefusedOrServesAndStartsWhenThereIsMore) {
  constexpr size_t all = size_t{8} << 20;
  const std::string directory = mounted("tight", "size=" + std::to_string(all));
  unsigned refusals = 0;
  unsigned starts = 0;
  for (const size_t kilobytes : {4, 8, 12, 16, 24, 40, 152, 156, 300, 664, 680, 1200, 1700, 3700, 3740, 4300, 4700}) {
    fill(directory + "/filler", all - kilobytes * 1024);
    test_support::Process ipd(ipd_test::ipd_command({"--once", "--run-dir", directory}));
    const int status = ipd.wait(std::chrono::seconds(60));
    if (status == 1) {
      ++refusals;
      const std::string text = ipd.output();
      const std::string last = text.substr(text.rfind("ipd: "));
      EXPECT_TRUE(last.starts_with("ipd: " + directory + "/")) << kilobytes << ": " << text;
      EXPECT_TRUE(last.ends_with(std::string("No space left on device") + make_room + other_directory + "\n"))
          << kilobytes << ": " << text;
    } else {
      ++starts;
      EXPECT_EQ(status, 0) << kilobytes << ": " << ipd.output();
    }
    unlink((directory + "/filler").c_str());
    expect_starts_in(directory);
    use(run_directory_.path());
    ASSERT_EQ(umount2(directory.c_str(), MNT_DETACH), 0);
    ASSERT_EQ(mount("none", directory.c_str(), "tmpfs", 0, "mode=755,size=8m"), 0);
  }
  EXPECT_GT(refusals, 5u);
  EXPECT_GT(starts, 0u);
}

TEST_F(IpdRunDirectory, WithoutRoomForMoreFilesIsRefusedWithWhatToDo) {
  const std::string directory = mounted("inodes", "size=16m,nr_inodes=2");
  expect_refused(directory,
                 directory + "/sysmgr.new: cannot make it: No space left on device" + make_room + other_directory);
  ASSERT_EQ(mount("none", directory.c_str(), "tmpfs", MS_REMOUNT, "mode=755,nr_inodes=1000"), 0);
  expect_starts_in(directory);
}

TEST_F(IpdRunDirectory, ThatCannotBeWrittenIsRefusedAndGoneOnWithWhenItCan) {
  const std::string directory = made("read-only");
  expect_starts_in(directory);
  use(run_directory_.path());
  // Not the file system itself: this process has files of it mapped.
  ASSERT_EQ(mount(directory.c_str(), directory.c_str(), nullptr, MS_BIND, nullptr), 0) << strerror(errno);
  ASSERT_EQ(mount("none", directory.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0) << strerror(errno);
  expect_refused(directory, directory +
                                "/ipd.lock: Read-only file system; name a run directory that can be written "
                                "(--run-dir)");
  const std::string below = directory + "/below";
  expect_refused(below, "cannot make the run directory " + below +
                            ": Read-only file system; name a run directory that can be written (--run-dir)");
  ASSERT_EQ(umount2(directory.c_str(), MNT_DETACH), 0) << strerror(errno);
  expect_starts_in(directory);
}

TEST_F(IpdRunDirectory, ThatIsAFileIsRefusedWithWhatToDo) {
  write_file(path("file"), "x");
  const std::string remedy = "; remove it, or name another one (--run-dir)";
  expect_refused(path("file"), "the run directory " + path("file") + " is not a directory" + remedy);
  ASSERT_EQ(symlink("/nowhere", path("link").c_str()), 0);
  expect_refused(path("link"), "the run directory " + path("link") + " is not a directory" + remedy);
  const std::string below = path("file") + "/below";
  expect_refused(below, "cannot make the run directory " + below +
                            ": Not a directory; a part of the path is no directory: " + other_directory);
}

TEST_F(IpdRunDirectory, WithNothingAboveItIsRefusedWithWhatToDo) {
  const std::string directory = path("none") + "/below";
  expect_refused(directory, "cannot make the run directory " + directory +
                                ": No such file or directory; make the directories above it, or " + other_directory);
  EXPECT_NE(access(path("none").c_str(), F_OK), 0);
}

TEST_F(IpdRunDirectory, WithALongNameIsRefusedWithWhatToDo) {
  const std::string directory = path(std::string(300, 'a'));
  expect_refused(directory, "cannot make the run directory " + directory +
                                ": File name too long; name a run directory with a shorter path (--run-dir)");
  expect_starts_in(path(std::string(200, 'a')));
}

TEST_F(IpdRunDirectory, ThatIsMissingIsMadeForAllToReadWhateverTheMask) {
  const mode_t mask = umask(077);
  expect_starts_in(path("fresh"));
  umask(mask);
  EXPECT_EQ(mode_of(path("fresh")), 0755u);
  EXPECT_EQ(mode_of(path("fresh/mts")), 0755u);
  EXPECT_EQ(mode_of(path("fresh/mts/dynamic")), 01777u);
  EXPECT_EQ(mode_of(path("fresh/ip")), 0644u);
}

TEST_F(IpdRunDirectory, WithADirectoryInPlaceOfAFileIsRefusedByItsName) {
  for (const char *name : {"ipd.lock", "sysmgr", "tsp", "ip", "im"}) {
    const std::string directory = made(std::string("in-place-of-") + name);
    const std::string in_the_way = directory + "/" + name;
    ASSERT_EQ(mkdir(in_the_way.c_str(), 0755), 0);
    expect_refused(directory, in_the_way + ": Is a directory; remove it, or " + other_directory);
    ASSERT_EQ(rmdir(in_the_way.c_str()), 0);
    expect_starts_in(directory);
  }
}

TEST_F(IpdRunDirectory, WithADirectoryInPlaceOfAFileThatItCanDoWithoutServesTheRest) {
  const std::array<std::pair<const char *, const char *>, 3> files{{{"mtrack", "memory is not counted: "},
                                                                    {"mbuf", "packets travel as bytes: "},
                                                                    {"urib", "no routes are served: "}}};
  for (const auto &[name, text] : files) {
    const std::string directory = made(std::string("without-") + name);
    ASSERT_EQ(mkdir((directory + "/" + name).c_str(), 0755), 0);
    use(directory);
    ASSERT_NO_FATAL_FAILURE(start_ipd());
    EXPECT_TRUE(ipd_said(text + directory + "/" + name + ": Is a directory; remove it, or " + other_directory))
        << ipd_.output();
    ASSERT_NO_FATAL_FAILURE(expect_served());
    kill_ipd();
  }
}

TEST_F(IpdRunDirectory, WhoseSocketsCannotBeMadeServesQueriesAndRequestsWhenTheyCan) {
  const std::string directory = made("sockets");
  write_file(directory + "/mts", "x");
  use(directory);
  ASSERT_NO_FATAL_FAILURE(start_ipd());
  EXPECT_TRUE(ipd_said("no requests are served: ")) << ipd_.output();
  EXPECT_TRUE(ipd_said("Not a directory")) << ipd_.output();
  attach();
  expect_same_as_kernel();
  ASSERT_EQ(unlink((directory + "/mts").c_str()), 0);
  EXPECT_TRUE(test_support::wait_until([this] { return ipd_said("packets are taken now"); }, std::chrono::seconds(60)))
      << ipd_.output();
  expect_served();
}

TEST_F(IpdRunDirectory, ThatOthersMayWriteIsWarnedOfAndServed) {
  for (const mode_t mode : {0777, 0775, 01777}) {
    const std::string directory = made("mode-" + std::to_string(mode));
    ASSERT_EQ(chmod(directory.c_str(), mode), 0);
    use(directory);
    ASSERT_NO_FATAL_FAILURE(start_ipd());
    EXPECT_TRUE(ipd_said("ipd: others may replace what is in the run directory " + directory + "; chmod 0755 " +
                         directory + "\n"))
        << ipd_.output();
    ASSERT_NO_FATAL_FAILURE(expect_served());
    kill_ipd();
  }
}

// Root's alone: who else could be somebody else?
class IpdRunDirectoryOfOthers : public RunDirectoryTest, public testing::WithParamInterface<other_users::Users> {
 protected:
  void SetUp() override {
    RunDirectoryTest::SetUp();
    ASSERT_EQ(chmod(run_directory_.path().c_str(), 0755), 0);
  }
  [[nodiscard]] std::vector<std::string> as_stranger() const {
    return other_users::as_user(GetParam().stranger, GetParam().stranger, "-all");
  }
};

constexpr const char *be_the_owner = ": Permission denied; start ipd as the user that it belongs to, or ";

TEST_P(IpdRunDirectoryOfOthers, IsRefusedWithWhatToDo) {
  const std::string directory = made("roots");
  EXPECT_EQ(refused(directory, 1, as_stranger()),
            "ipd: " + directory + "/ipd.lock" + be_the_owner + other_directory + "\n");
  const std::string below = directory + "/below";
  EXPECT_EQ(refused(below, 1, as_stranger()),
            "ipd: cannot make the run directory " + below + be_the_owner + other_directory + "\n");
}

TEST_P(IpdRunDirectoryOfOthers, IsRefusedWithTheLockThatRootLeftInIt) {
  const std::string directory = made("given");
  expect_starts_in(directory);
  other_users::give_to(directory, GetParam().stranger);
  EXPECT_EQ(refused(directory, 1, as_stranger()),
            "ipd: " + directory + "/ipd.lock" + be_the_owner + other_directory + "\n");
}

TEST_P(IpdRunDirectoryOfOthers, IsServedByRootWhoMayEverything) {
  const std::string directory = made("somebodys");
  other_users::give_to(directory, GetParam().stranger);
  expect_starts_in(directory);
}

TEST_P(IpdRunDirectoryOfOthers, HasNoSegmentOfAStrangerTakenOver) {
  const std::string directory = made("planted");
  for (const char *name : {"sysmgr", "mtrack", "mbuf", "tsp", "ip", "im", "urib"}) {
    expect_starts_in(directory);
    const std::string segment = directory + "/" + name;
    ASSERT_EQ(chown(segment.c_str(), GetParam().stranger, GetParam().stranger), 0);
    use(directory);
    ASSERT_NO_FATAL_FAILURE(start_ipd());
    EXPECT_TRUE(ipd_said(segment + " belongs to uid " + std::to_string(GetParam().stranger) +
                         ", not to this system; making a new segment"))
        << ipd_.output();
    ASSERT_NO_FATAL_FAILURE(expect_served());
    kill_ipd();
  }
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(IpdRunDirectoryOfOthers);
INSTANTIATE_TEST_SUITE_P(Root, IpdRunDirectoryOfOthers, testing::ValuesIn(other_users::all()),
                         [](const auto &) { return "BecomesSomebody"; });

}  // namespace
