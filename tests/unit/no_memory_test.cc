// SPDX-License-Identifier: Apache-2.0
// Calls of the library that take memory from the C library, when there is none: this program has a malloc of its own,
// which fails when a test says so.
#include <cstdlib>

#include "unit/messages.h"

extern "C" void *__libc_malloc(size_t size);  // NOLINT(bugprone-reserved-identifier): the C library's own name

namespace {

// The next request of this size fails; 0: none does.
size_t failing_size = 0;

}  // namespace

extern "C" void *malloc(size_t size) {
  if (failing_size != 0 && size == failing_size) {
    failing_size = 0;
    return nullptr;
  }
  return __libc_malloc(size);
}

namespace unit {
namespace {

class NoMemoryTest : public MessagingTest {
 protected:
  void TearDown() override {
    EXPECT_EQ(failing_size, 0u) << "nobody asked for that much";
    failing_size = 0;
    EXPECT_EQ(sent_count(), messages_sent);
    EXPECT_TRUE(everything_is_dropped());
    MessagingTest::TearDown();
  }

  size_t messages_sent = 0;
  std::vector<uint32_t> iods = std::vector<uint32_t>(1000, 7);
};

TEST_F(NoMemoryTest, ACleanupIsReported) {
  failing_size = 232 + 4 * 1000;
  EXPECT_EQ(ip_unnumbered_pss_cleanup(42, 1000, iods.data()), 0u);
  EXPECT_EQ(calls(), Calls{limited("IP_FAILURE", " mem allocation failed")});
}

TEST_F(NoMemoryTest, RedirectsAreADebugLine) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  failing_size = 232 + 4 * 1000;
  EXPECT_EQ(ip_req_redirect_disable(42, 1000, iods.data()), 0u);
  EXPECT_EQ(debug_lines(), Calls{"ip_register: no memory\n"});
}

TEST_F(NoMemoryTest, ALoadShareRequestIsADebugLine) {
  show_debug_lines();
  dbg_ip_api_misc = 1;
  failing_size = 232;
  EXPECT_EQ(ip_request_load_share_cfg(42), 0u);
  EXPECT_EQ(debug_lines(), Calls{"ip_register: no memory\n"});
}

TEST_F(NoMemoryTest, AStatisticsResponseIsDropped) {
  Bytes request(36);
  void *reply = &request;
  arrive(control_opcode, Bytes(3333));
  failing_size = 3333;
  // The copy that the platform keeps of the response has been made by now; the next block of that size is the caller's.
  EXPECT_EQ(ip_get_interface_stats(42, request.data(), 36, &reply), 0u);
  EXPECT_EQ(reply, &request) << "untouched";
  EXPECT_EQ(calls().back(), "mts_drop(42)");
  messages_sent = 1;
}

}  // namespace
}  // namespace unit
