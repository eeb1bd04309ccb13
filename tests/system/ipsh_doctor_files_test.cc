// SPDX-License-Identifier: Apache-2.0
// The doctor without an ipd: what is wrong with files, the address space, the kernel, and with who pretends to be ipd.
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <fstream>

#include "ip_api.h"
#include "ip_msg.h"
#include "ipsh_diagnosed.h"
#include "ipsh_schema_problems.h"
#include "mbuf.h"
#include "mbuf/pool.h"
#include "mts.h"
#include "mts/mts_server.h"
#include "process_facts.h"
#include "sm/segment.h"
#include "support/network_namespace.h"
#include "support/process.h"

namespace ipsh_test {
namespace {

using test_support::Process;
using test_support::wait_until;

constexpr std::chrono::seconds long_wait(60);

// Waits for requests and answers all but the first `ignored` with a reject.
int serve(uint32_t ignored) {
  mts_bind_opts options{1, 1, 1024, 267, 0, 15};
  const uint32_t queue = mts_bind(1, IP_SAP_CONTROL, &options, "pretends");
  if (mts_recv_q_unblock(queue) != 0) return 2;
  for (;;) {
    mts_msg_ref_t message = nullptr;
    mts_recv_opts forever{{1}};
    if (mts_recv(queue, &message, &forever) != 0) {
      if (errno == ECONNRESET) continue;  // who asked has gone
      return 1;
    }
    if (ignored != 0) {
      --ignored;
    } else {
      rsw::mts_reject(queue, message);
    }
    mts_drop(queue, message);
  }
}

// Whether somebody takes what is sent to the control service.
bool is_served(const std::string &run_directory) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = run_directory + "/mts/" + std::to_string(IP_SAP_CONTROL);
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int sender = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  const bool taken = connect(sender, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
  close(sender);
  return taken;
}

TEST_F(IpshWithoutIpd, TheDoctorFindsThatThereIsNoRunDirectory) {
  const std::string nowhere = run_directory_.path() + "/nowhere";
  const Diagnosed bad = diagnosed({"env", "RSW_RUN_DIR=" + nowhere});
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_ROW(bad, "run directory", "failed", nowhere + ": No such file or directory", "--run-dir or RSW_RUN_DIR");
  for (const char *check : {"segment", "ipd", "database", "queues", "sockets"}) EXPECT_TRUE(bad.left_out(check));
  EXPECT_EQ(schema_problems(run_directory_.path(), bad.text), "");
  std::ofstream(nowhere) << "a file";
  EXPECT_ROW(diagnosed({"env", "RSW_RUN_DIR=" + nowhere}), "run directory", "failed", "is not a directory", "");
}

TEST_F(IpshWithoutIpd, TheDoctorFindsAnEmptyRunDirectory) {
  const Diagnosed bad = diagnosed();
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_ROW(bad, "ipd", "failed", "it does not run", "start ipd");
  EXPECT_ROW(bad, "segment ip", "failed", "/ip: No such file or directory: nothing is published", "start ipd");
  EXPECT_ROW(bad, "segment mbuf", "warning", "packets travel as bytes", "start ipd");
}

TEST_F(IpshWithoutIpd, TheDoctorsTableHasTheRemedyUnderTheFinding) {
  const Outcome outcome = ipsh({"doctor", "--color=always"});
  EXPECT_EQ(outcome.exit_code, 1);
  const size_t row = outcome.out.find("\nipd  ");
  ASSERT_NE(row, std::string::npos) << outcome.out;
  const size_t end = outcome.out.find('\n', row + 1);
  EXPECT_NE(outcome.out.substr(row, end - row).find("\x1b[31mfailed\x1b[0m"), std::string::npos) << outcome.out;
  const std::string next = outcome.out.substr(end + 1, outcome.out.find('\n', end + 1) - end - 1);
  EXPECT_EQ(next.substr(next.find_first_not_of(' ')).find("remedy: start ipd"), 0u) << next;
  EXPECT_NE(outcome.out.find(" failed; after what failed, not made: "), std::string::npos) << outcome.out;
}

TEST_F(IpshWithSystem, TheDoctorFindsASegmentOfAnotherVersion) {
  std::fstream file(run_directory_.path() + "/im", std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(offsetof(rsw::SegmentHeader, layout_hash));
  file.write("othe", 4).flush();
  const Diagnosed bad = diagnosed();
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_ROW(bad, "segment im", "failed", "has layout 0x6568746f, this library has 0x", "libraries of ipd's version");
  EXPECT_TRUE(bad.left_out("database")) << bad.text;
}

TEST_F(IpshWithSystem, TheDoctorFindsDamagedAndMissingSegments) {
  ASSERT_EQ(truncate((run_directory_.path() + "/ip").c_str(), 100000), 0);
  ASSERT_EQ(unlink((run_directory_.path() + "/sysmgr").c_str()), 0);
  const Diagnosed bad = diagnosed();
  EXPECT_ROW(bad, "segment ip", "failed", "is truncated", "restart ipd: it makes a new one");
  EXPECT_ROW(bad, "segment sysmgr", "failed", "No such file", "start ipd");
}

TEST_F(IpshWithSystem, TheDoctorDoesNotHangOnWhoNeverAnswers) {
  Process mute([] { return serve(1000); });
  ASSERT_TRUE(wait_until([this] { return is_served(run_directory_.path()); }, long_wait));
  const Diagnosed bad = diagnosed();
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_ROW(bad, "ipd", "failed", "does not serve messages: ipd does not answer", "another process may have its SAP");
  EXPECT_TRUE(bad.left_out("rights"));
}

TEST_F(IpshWithSystem, AnAnswerThatComesLateIsAWarning) {
  Process slow([] { return serve(1); });
  ASSERT_TRUE(wait_until([this] { return is_served(run_directory_.path()); }, long_wait));
  EXPECT_ROW(diagnosed(), "ipd", "warning", "answers after more than 1 s", "busy");
}

TEST_F(IpshWithSystem, ADatabaseThatIsNotTheKernelsStateFails) {
  std::string reason;
  ASSERT_TRUE(test_support::enter_network_namespace(&reason)) << reason;
  Process pretender([] { return serve(0); });
  ASSERT_TRUE(wait_until([this] { return is_served(run_directory_.path()); }, long_wait));
  const Diagnosed bad = diagnosed();
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_ROW(bad, "kernel", "failed", "1 interfaces and 0 addresses, published are 4 and", "restart ipd");
  EXPECT_NE(bad.finding("kernel", "failed").find("; eth0 and 2 more not in the kernel"), std::string::npos) << bad.text;
}

TEST_F(IpshWithoutIpd, TheDoctorNamesWhoHasTheBuffersWhenTheyRunOut) {
  std::string reason;
  ASSERT_TRUE(rsw::mbuf_open_for_writing(&reason)) << reason;
  std::vector<struct mbuf *> taken;
  for (struct mbuf *one = m_gethdr(); one != nullptr; one = m_gethdr()) taken.push_back(one);
  EXPECT_GT(taken.size(), 1000u);
  EXPECT_ROW(diagnosed(), "packet buffers", "warning", "were refused", "process " + std::to_string(getpid()) + " (");
  for (struct mbuf *one : taken) m_freem(one);
  rsw::mbuf_leave();
}

// A plain limit of the address space is none that a sanitized program could live with.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(IpshWithSystem, TheDoctorFindsThatTheAddressesCannotBeHad) {
  const Diagnosed bad = diagnosed({"/bin/sh", "-c", "ulimit -v 400000; exec \"$@\"", "sh"});
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_ROW(bad, "segment ip", "failed", "cannot reserve the addresses 60000000-7f000000", "ulimit -v");
}
#endif

// Runs the doctor where pidfd_open(2) is not there.
int run_in_sandbox() {
  const auto number_at = static_cast<uint32_t>(offsetof(seccomp_data, nr));
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, number_at),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pidfd_open, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | 38),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{static_cast<unsigned short>(std::size(program)), program};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) return 9;
  execl(IPSH, IPSH, "doctor", nullptr);
  return 127;
}

TEST_F(IpshWithoutIpd, TheDoctorFindsAKernelFeatureThatIsMissing) {
  const std::string file = run_directory_.path() + "/said";
  Process doctor([&] { return freopen(file.c_str(), "w", stdout) == nullptr ? 8 : run_in_sandbox(); });
  EXPECT_EQ(doctor.wait(), 1);
  std::stringstream said;
  said << std::ifstream(file).rdbuf();
  EXPECT_NE(said.str().find("kernel features  failed   no pidfd_open: ipd does not see clients end"), std::string::npos)
      << said.str();
  EXPECT_NE(said.str().find("remedy: run Linux 5.3 or later"), std::string::npos) << said.str();
}

TEST(ProcessFacts, AStatLineMayHoldAnyName) {
  std::string rest = " T 1";
  for (int field = 5; field <= 21; ++field) rest += " 0";
  const auto stat = ipsh::parse_stat("7 (a) (b) )" + rest + " 4711 0 0\n");
  ASSERT_TRUE(stat.has_value());
  EXPECT_EQ(stat->state, 'T');
  EXPECT_EQ(stat->started_at_tick, 4711u);
  EXPECT_FALSE(ipsh::parse_stat(""));
  EXPECT_FALSE(ipsh::parse_stat("7 (a) T 1 2"));
  EXPECT_FALSE(ipsh::parse_stat("7 a T"));
}

TEST(ProcessFacts, AStatusLineIsFoundByItsWholeName) {
  EXPECT_EQ(ipsh::parse_status("UidX:\t1\nUid:\t2 3\n", "Uid"), "2 3");
  EXPECT_EQ(ipsh::parse_status("Uid:", "Uid"), "");
  EXPECT_FALSE(ipsh::parse_status("Gid:\t2\n", "Uid"));
}

TEST(ProcessFacts, MapsAreFilesOnce) {
  EXPECT_EQ(ipsh::parse_maps("1-2 r--p 0 0:0 1   /lib/a b.so\n2-3 r--p 0 0:0 1   /lib/a b.so\n3-4 rw-p 0 0:0 0 [heap]\n"
                             "4-5 r--p 0 0:0 2   /lib/c.so (deleted)"),
            (std::vector<std::string>{"/lib/a b.so", "/lib/c.so (deleted)"}));
}

TEST(ProcessFacts, AnOptionStandsAsOneWordOrTwo) {
  EXPECT_EQ(ipsh::option_of({"ipd", "--config", "a"}, "--config"), "a");
  EXPECT_EQ(ipsh::option_of({"ipd", "--config=b"}, "--config"), "b");
  EXPECT_EQ(ipsh::option_of({"ipd", "--config"}, "--config"), "");
  EXPECT_FALSE(ipsh::option_of({"--config", "--configuration=b"}, "--config"));
}

TEST(ProcessFacts, ADurationIsWrittenForPeople) {
  EXPECT_EQ(ipsh::duration_text(0), "0 s");
  EXPECT_EQ(ipsh::duration_text(59), "59 s");
  EXPECT_EQ(ipsh::duration_text(60), "1 min");
  EXPECT_EQ(ipsh::duration_text(3600 + 180), "1 h 3 min");
  EXPECT_EQ(ipsh::duration_text(2 * 86400 + 4 * 3600), "2 d 4 h");
}

}  // namespace
}  // namespace ipsh_test
