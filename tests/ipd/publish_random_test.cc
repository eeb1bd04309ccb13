// SPDX-License-Identifier: Apache-2.0
// Random changes beside the twin: after each of them, everything that libip answers is compared.
#include <gtest/gtest.h>

#include "ipd/publish_random.h"
#include "ipd/publish_system.h"
#include "ipd/publish_twin.h"

namespace publish_test {
namespace {

TEST(PublishRandom, ChangesArePublishedAsTheTwinHasThem) {
  RandomChanges changes;
  SCOPED_TRACE("PUBLISH_SEED=" + std::to_string(changes.seed()));
  System system;
  Twin twin;
  for (int i = 0; i < 40; ++i) changes.one(*system, twin);
  system.go_live();
  twin.expect_published(*system);
  for (int i = 0; i < 1500 && !testing::Test::HasFailure(); ++i) {
    changes.one(*system, twin);
    ASSERT_TRUE(system.commit());
    twin.expect_published(*system);
  }
}

TEST(PublishRandom, ATakeOverPublishesThePictureAsANewStartWould) {
  RandomChanges changes;
  SCOPED_TRACE("PUBLISH_SEED=" + std::to_string(changes.seed()));
  System system;
  Twin twin;
  for (int i = 0; i < 60; ++i) changes.one(*system, twin);
  system.go_live();
  for (int round = 0; round < 20 && !testing::Test::HasFailure(); ++round) {
    for (int i = 0; i < 30; ++i) changes.one(*system, twin);
    ASSERT_TRUE(system.commit());
    system.detach();
    system.publisher.reset();

    std::string reason;
    system.publisher = ipd::Publisher::open(&reason, std::chrono::milliseconds(0));
    ASSERT_NE(system.publisher, nullptr) << reason;
    twin.replay(*system);
    twin = twin.replayed();
    // What the previous one left and the next one does not know: half of the changes come before the first commit.
    for (int i = 0; i < 30; ++i) changes.one(*system, twin);
    system.go_live();
    twin.expect_published(*system);
  }
}

}  // namespace
}  // namespace publish_test
