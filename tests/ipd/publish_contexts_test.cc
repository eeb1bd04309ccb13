// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "ipd/publish_system.h"
#include "l3vm.h"

namespace publish_test {
namespace {

TEST(PublishContexts, AContextIsFoundByIdAndByName) {
  System system;
  ASSERT_TRUE(system->set_context(default_context));
  ASSERT_TRUE(system->set_context(context(7, "blue")));
  system.go_live();
  ASSERT_NE(ip_get_api_context(7), nullptr);
  EXPECT_EQ(ip_get_api_context(7), ip_get_api_context_by_name("blue"));
  EXPECT_STREQ(ip_get_api_context_name(7), "blue");
  EXPECT_EQ(ip_get_api_context_id("default"), 1u);
  EXPECT_EQ(ip_get_api_context(7)->table_id, 1007u);
}

TEST(PublishContexts, StandInOrderOfIdWhateverTheOrderOfTheirArrival) {
  System system;
  for (const uint32_t id : {9u, 1u, 5u}) ASSERT_TRUE(system->set_context(context(id, "c" + std::to_string(id))));
  system.go_live();
  for (const uint32_t id : {3u, 12u}) ASSERT_TRUE(system->set_context(context(id, "c" + std::to_string(id))));
  EXPECT_EQ(context_ids(), (std::vector<uint32_t>{1, 3, 5, 9, 12}));
  ASSERT_TRUE(system->remove_context(1));
  ASSERT_TRUE(system->remove_context(5));
  ASSERT_TRUE(system->remove_context(12));
  EXPECT_EQ(context_ids(), (std::vector<uint32_t>{3, 9}));
}

TEST(PublishContexts, NothingIsToBeSeenBeforeTheFirstCommit) {
  System system;
  ASSERT_TRUE(system->set_context(default_context));
  ASSERT_TRUE(system->set_interface(interface(2)));
  system.attach();  // the writer's own process may look at a segment without a name
  EXPECT_TRUE(context_ids().empty());
  EXPECT_EQ(interface_record(system->iod(2)), nullptr);
}

TEST(PublishContexts, ARenamedContextAnswersToItsNewNameOnly) {
  System system;
  ASSERT_TRUE(system->set_context(default_context));
  ASSERT_TRUE(system->set_context(context(7, "blue")));
  ASSERT_TRUE(system->set_interface(interface(2)));
  ASSERT_TRUE(system->set_address(2, primary(ip(10, 0, 0, 1), 24)));
  system.go_live();
  ASSERT_TRUE(system->set_context({.id = 1, .name = "main", .table_id = 254, .router_id = 0}));
  EXPECT_EQ(ip_get_api_context_by_name("default"), nullptr);
  EXPECT_EQ(ip_get_iod_for_local_address("main", ip(10, 0, 0, 1)), system->iod(2));
  EXPECT_EQ(context_ids(), (std::vector<uint32_t>{1, 7}));
  EXPECT_EQ(ip_get_api_context(1)->router_id, ip(10, 0, 0, 1));
  EXPECT_TRUE(system->set_context(context(8, "default"))) << "the old name is free again";
}

TEST(PublishContexts, AnotherTableReachesTheContextAndItsInterfaces) {
  System system;
  ASSERT_TRUE(system->set_context(default_context));
  ASSERT_TRUE(system->set_interface(interface(2)));
  system.go_live();
  const ip_api_context_type *before = ip_get_api_context(1);
  ASSERT_TRUE(system->set_context({.id = 1, .name = "default", .table_id = 77, .router_id = 0}));
  EXPECT_EQ(ip_get_api_context(1), before);
  EXPECT_EQ(before->table_id, 77u);
  EXPECT_EQ(l3vm_if_get_table_id(system->iod(2), 1, "base"), 77u);
}

TEST(PublishContexts, AContextWithInterfacesIsNotRemoved) {
  System system;
  ASSERT_TRUE(system->set_context(default_context));
  ASSERT_TRUE(system->set_interface(interface(2)));
  system.go_live();
  EXPECT_FALSE(system->remove_context(1));
  EXPECT_EQ(system->last_error(), "context default has 1 interfaces");
  ASSERT_TRUE(system->remove_interface(2));
  EXPECT_TRUE(system->remove_context(1));
  EXPECT_TRUE(context_ids().empty());
  EXPECT_TRUE(system->remove_context(1)) << "what is not there is removed";
}

TEST(PublishContexts, BadArgumentsAreRefusedWithAReason) {
  System system;
  ASSERT_TRUE(system->set_context(default_context));
  EXPECT_FALSE(system->set_context(context(0, "zero")));
  EXPECT_EQ(system->last_error(), "0 is not a context id");
  EXPECT_FALSE(system->set_context(context(2, "")));
  EXPECT_FALSE(system->set_context(context(2, std::string(36, 'x'))));
  EXPECT_EQ(system->last_error(), "context name \"" + std::string(36, 'x') + "\" is not 1 to 35 characters long");
  EXPECT_TRUE(system->set_context(context(2, std::string(35, 'x'))));
  EXPECT_FALSE(system->set_context(context(3, "default")));
  EXPECT_EQ(system->last_error(), "context name default belongs to context 1");
  EXPECT_EQ(system->use().contexts, 2u);
}

class PublishRouterId : public testing::Test {
 protected:
  PublishRouterId() {
    system->set_context(default_context);
    system->set_interface(interface(2));
    auto loopback = interface(1, "lo");
    loopback.loopback = true;
    system->set_interface(loopback);
    system.go_live();
  }
  void expect(uint32_t router_id, uint32_t ifindex) {
    ASSERT_TRUE(system.commit());
    EXPECT_EQ(ip_get_api_context(1)->router_id, router_id);
    EXPECT_EQ(ip_get_api_context(1)->router_id_iod, system->iod(ifindex));
  }
  System system;
};

TEST_F(PublishRouterId, IsNothingWithoutAddresses) {
  expect(0, 0);
}

TEST_F(PublishRouterId, IsTheHighestAddressWhenNoLoopbackInterfaceHasOne) {
  system->set_address(1, primary(ip(127, 0, 0, 1), 8, 254));
  system->set_address(2, primary(ip(10, 0, 0, 1), 24));
  system->set_address(2, primary(ip(9, 0, 0, 1), 24));
  expect(ip(10, 0, 0, 1), 2);
}

TEST_F(PublishRouterId, PrefersTheHighestLoopbackAddressOutside127) {
  system->set_address(1, primary(ip(127, 0, 0, 1), 8, 254));
  system->set_address(1, primary(ip(1, 0, 0, 1), 32));
  system->set_address(1, primary(ip(1, 0, 0, 9), 32));
  system->set_address(2, primary(ip(10, 0, 0, 1), 24));
  expect(ip(1, 0, 0, 9), 1);
  system->remove_address(1, ip(1, 0, 0, 9), 32);
  expect(ip(1, 0, 0, 1), 1);
  system->remove_address(1, ip(1, 0, 0, 1), 32);
  expect(ip(10, 0, 0, 1), 2);
  system->remove_interface(2);
  expect(0, 0);
}

TEST_F(PublishRouterId, IsTheConfiguredOneWhoeverHoldsIt) {
  system->set_address(1, primary(ip(1, 0, 0, 1), 32));
  system->set_context({.id = 1, .name = "default", .table_id = 254, .router_id = ip(192, 0, 2, 1)});
  expect(ip(192, 0, 2, 1), 0);
  system->set_address(2, primary(ip(192, 0, 2, 1), 24));
  expect(ip(192, 0, 2, 1), 2);
  system->set_context(default_context);
  expect(ip(1, 0, 0, 1), 1);
}

TEST_F(PublishRouterId, DoesNotTakeAVirtualAddress) {
  system->set_address(2, primary(ip(10, 0, 0, 1), 24));
  system->set_vip({.ifindex = 2, .addr = ip(10, 0, 0, 254)});
  expect(ip(10, 0, 0, 1), 2);
}

TEST_F(PublishRouterId, FollowsAnInterfaceThatBecomesALoopback) {
  system->set_address(2, primary(ip(10, 0, 0, 1), 24));
  system->set_address(1, primary(ip(1, 0, 0, 1), 32));
  auto state = interface(2);
  state.loopback = true;
  ASSERT_TRUE(system->set_interface(state));
  expect(ip(10, 0, 0, 1), 2);
  state.loopback = false;
  ASSERT_TRUE(system->set_interface(state));
  expect(ip(1, 0, 0, 1), 1);
}

}  // namespace
}  // namespace publish_test
