// SPDX-License-Identifier: Apache-2.0
// Each call of the system that a client's life makes fails once, one after the other, and so does each allocation:
// every call of the library ends with a result that it has, a later life goes well from beginning to end, and neither
// the client nor ipd has more open than without the failure.
#include <errno.h>
#include <gtest/gtest.h>

#include <cstdio>

#include "fault_run.h"
#include "mbuf/pool.h"
#include "system/control_shown.h"
#include "system/ipd_fixture.h"

namespace {

using faults::Fault;
using faults::FaultRun;
using test_support::Process;
using test_support::wait_until;

constexpr auto patience = std::chrono::seconds(60);
constexpr unsigned most_calls = 2000;
constexpr char own_group[] = "239.1.1.1";

class ClientFaults : public ipd_test::IpdTest, public testing::WithParamInterface<Fault> {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    add_interface("ib", "10.0.0.1/24");
    start_ipd();
    attach();
    Process client({FAULT_CLIENT, own_group, "10.9.0.1"});
    ASSERT_EQ(client.wait(patience), 0) << client.output();
    descriptors_ = said_descriptors(client);
    ASSERT_GT(descriptors_, 0u);
    ASSERT_TRUE(wait_until([] { return nobody_is_known(); }, patience));
    ipd_descriptors_ = faults::open_descriptors(ipd_.pid());
  }

  // What a client said of its last life; 0: nothing.
  static unsigned said_descriptors(Process &client) {
    const std::string &text = client.output();
    const std::string label = "descriptors ";
    const size_t at = text.rfind(label);
    return at == std::string::npos ? 0 : static_cast<unsigned>(std::stoul(text.substr(at + label.size())));
  }

  // No client beside this one, no registration, no packet on its way.
  static bool nobody_is_known() {
    rsw::PoolReport pool;
    std::string reason;
    return ipd_test::shown_clients().size() == 1 && ipd_test::shown_registrations().empty() &&
           rsw::report_pool(&pool, &reason) && pool.in_use == 0;
  }

  // False: it makes fewer calls.
  bool fail(unsigned at) {
    FaultRun run(GetParam(), at, {FAULT_CLIENT, own_group, "10.9.0.1"}, run_directory_.path());
    Process &client = run.process();
    EXPECT_EQ(client.wait(patience), 0) << "call " << at << ": " << client.output();
    EXPECT_LE(said_descriptors(client), descriptors_) << "call " << at << ": " << client.output();
    EXPECT_TRUE(ipd_.running()) << "call " << at << ": " << ipd_.output();
    EXPECT_TRUE(wait_until([] { return nobody_is_known(); }, patience)) << "call " << at << ": " << client.output();
    const bool settled =
        wait_until([this] { return faults::open_descriptors(ipd_.pid()) <= ipd_descriptors_; }, patience);
    EXPECT_TRUE(settled) << "call " << at << ": ipd had " << ipd_descriptors_ << " descriptors and has "
                         << faults::open_descriptors(ipd_.pid());
    return run.happened();
  }

 private:
  unsigned descriptors_ = 0;
  unsigned ipd_descriptors_ = 0;
};

TEST_P(ClientFaults, AreSurvivedAndLeaveNothingBehind) {
  unsigned at = 1;
  while (at <= most_calls && fail(at) && !HasFailure()) ++at;
  // A reply may be there before anybody has to wait for it.
  const bool may_make_none = std::string(GetParam().call) == "poll";
  EXPECT_TRUE(at > 1 || may_make_none) << "it never makes this call";
  EXPECT_LT(at, most_calls);
  printf("%u calls of %s failed with %s\n", at - 1, GetParam().call, strerrorname_np(GetParam().error));
}

constexpr Fault table[] = {
    {"accept4", EMFILE},
    {"accept4", EINTR},
    {"bind", EADDRINUSE},
    {"connect", EINTR},
    {"connect", EAGAIN},
    {"epoll_create1", EMFILE},
    {"epoll_ctl", ENOMEM},
    {"epoll_wait", EINTR},
    {"eventfd", EMFILE},
    {"fchmod", EPERM},
    {"fcntl", ENOLCK},
    {"getsockopt", ENOBUFS},
    {"munmap", ENOMEM},
    {"pread", EIO},
    {"fstat", ENOMEM},
    {"listen", ENOMEM},
    {"malloc", ENOMEM},
    {"membarrier", EPERM},
    {"mkdirat", ENOSPC},
    {"mmap", ENOMEM},
    {"open", EMFILE},
    {"open", EINTR},
    {"poll", EINTR},
    {"poll", ENOMEM},
    {"posix_fallocate", ENOSPC},
    {"recvmsg", EINTR},
    {"recvmsg", EAGAIN},
    {"recvmsg", ENOMEM},
    {"send", EINTR},
    {"send", EAGAIN},
    {"send", ENOBUFS},
    {"sendmsg", EINTR},
    {"sendmsg", EAGAIN},
    {"sendmsg", ENOBUFS},
    {"setsockopt", ENOMEM},
    {"socket", EMFILE},
    {"unlinkat", EPERM},
};

INSTANTIATE_TEST_SUITE_P(EachCall, ClientFaults, testing::ValuesIn(table),
                         [](const testing::TestParamInfo<Fault> &row) { return faults::name_of(row.param); });

}  // namespace
