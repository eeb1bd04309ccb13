// SPDX-License-Identifier: Apache-2.0
// Notifications of interface information that cannot be encoded, for want of memory or otherwise.
#include <gtest/gtest.h>

#include "fake_platform/platform.h"
#include "ipd/control/if_info_encoding.h"

namespace {

using fake_platform::platform;
using ipd::control::encode_if_info;

class IfInfoMemory : public testing::Test {
 protected:
  IfInfoMemory() {
    platform().reset();
    for (uint8_t i = 1; i <= 24; ++i) platform().tlv.encoded.push_back(i);
  }
  ~IfInfoMemory() override {
    EXPECT_TRUE(platform().allocations.empty()) << "a block is left";
    EXPECT_TRUE(platform().tlv.buffers.empty()) << "a buffer of the TLV library is left";
  }
};

TEST_F(IfInfoMemory, TheBytesAreTheLibrarysAndNothingIsLeft) {
  const auto bytes = encode_if_info({});
  ASSERT_TRUE(bytes);
  ASSERT_EQ(bytes->size(), 24u);
  EXPECT_EQ(bytes->front(), std::byte{1});
  EXPECT_EQ(bytes->back(), std::byte{24});
}

TEST_F(IfInfoMemory, WhatCannotBeEncodedIsNotSent) {
  platform().scripts.fail("tlvu_table_convert_struct_to_tlv");
  EXPECT_FALSE(encode_if_info({}));
}

TEST_F(IfInfoMemory, WhatHasNoBytesIsNotSent) {
  platform().tlv.encoded.clear();
  EXPECT_FALSE(encode_if_info({}));
}

}  // namespace
