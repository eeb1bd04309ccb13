// SPDX-License-Identifier: Apache-2.0
// Taking the segment's name away, as the IP process may: nobody attaches any more, who is attached goes on.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#define LIBIP_NO_INET_NTOA
#include "ip_api.h"
#include "published_system.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using test_support::Process;
using test_support::RunDirectory;

constexpr uint32_t held = 0x0a000001;  // 10.0.0.1
constexpr uint32_t later = 0x0a000009;

enum Outcome { fine = 0, cannot_attach = 10, wrong_before = 11, wrong_after = 12, not_live = 13 };

// Attaches, says so, and waits for the word that the name is gone; its next answers must be right and live.
int attached_client(int say, int hear) {
  if (ip_shm_api_init() == nullptr) return cannot_attach;
  if (ip_get_iod_for_local_address("default", held) == 0) return wrong_before;
  char word = 'x';
  if (write(say, &word, 1) != 1 || read(hear, &word, 1) != 1) return wrong_after;
  if (ip_get_iod_for_local_address("default", held) == 0) return wrong_after;
  return ip_get_iod_for_local_address("default", later) != 0 ? fine : not_live;
}

TEST(RemovedSegment, NobodyAttachesAnyMoreAndWhoIsAttachedGoesOnWithTheLiveState) {
  const RunDirectory directory;
  const std::unique_ptr<ipd::Publisher> publisher = test_support::publish_test_system();
  ASSERT_NE(publisher, nullptr);
  int attached[2];
  int removed[2];
  ASSERT_EQ(pipe(attached), 0);
  ASSERT_EQ(pipe(removed), 0);
  Process client([&] { return attached_client(attached[1], removed[0]); });
  char word = 0;
  ASSERT_EQ(read(attached[0], &word, 1), 1);

  EXPECT_EQ(ip_remove_shm(), 1u);

  Process newcomer([] { return ip_shm_api_init() == nullptr ? cannot_attach : fine; });
  EXPECT_EQ(newcomer.wait(), cannot_attach);
  ASSERT_TRUE(publisher->set_address(2, {later, 24, true, 0})) << publisher->last_error();
  ASSERT_TRUE(publisher->commit());
  ASSERT_EQ(write(removed[1], &word, 1), 1);
  EXPECT_EQ(client.wait(), fine);
}

}  // namespace
