// SPDX-License-Identifier: Apache-2.0
// Notifications of interface information when something cannot be had: no memory, no encoding.
#include <gtest/gtest.h>

#include <algorithm>

#include "fake_platform/platform.h"
#include "ipd/control/if_info_encoding.h"

namespace {

using fake_platform::platform;
using ipd::control::encode_if_info;

class IfInfoMemory : public testing::Test {
 protected:
  IfInfoMemory() {
    platform().reset();
    platform().scripts.answer("tlvu_table_size", 24);
    for (uint8_t i = 1; i <= 24; ++i) platform().tlv.encoded.push_back(i);
  }
  ~IfInfoMemory() override {
    EXPECT_TRUE(platform().allocations.empty()) << "a block is left";
    EXPECT_TRUE(platform().tlv.buffers.empty()) << "a buffer of the TLV library is left";
  }
  static long calls_of(const std::string &function) {
    return std::ranges::count_if(platform().log.lines(),
                                 [&](const std::string &line) { return line.starts_with(function + "("); });
  }
};

TEST_F(IfInfoMemory, TheBytesAreTheLibrarysAndNothingIsLeft) {
  const auto bytes = encode_if_info(5, {});
  ASSERT_TRUE(bytes);
  ASSERT_EQ(bytes->size(), 24u);
  EXPECT_EQ(bytes->front(), std::byte{1});
  EXPECT_EQ(bytes->back(), std::byte{24});
}

TEST_F(IfInfoMemory, WithoutMemoryForTheNotificationNothingIsConverted) {
  platform().scripts.fail_call("mtrack_alloc", 1);
  platform().scripts.succeed("tlvu_table_size");
  EXPECT_FALSE(encode_if_info(5, {}));
  EXPECT_EQ(calls_of("tlvu_table_convert_struct_to_tlv"), 0);
}

TEST_F(IfInfoMemory, WithoutMemoryForThePayloadNothingIsConverted) {
  platform().scripts.fail_call("mtrack_alloc", 2);
  EXPECT_FALSE(encode_if_info(5, {}));
  EXPECT_EQ(calls_of("tlvu_table_convert_struct_to_tlv"), 0);
}

TEST_F(IfInfoMemory, WhatCannotBeEncodedIsNotSentAsZeros) {
  platform().scripts.fail("tlvu_table_convert_struct_to_tlv");
  EXPECT_FALSE(encode_if_info(5, {}));
}

TEST_F(IfInfoMemory, WhatHasNoSizeIsNotSent) {
  platform().scripts.answer("tlvu_table_size", 0);
  platform().scripts.fail("tlvu_table_convert_struct_to_tlv");
  EXPECT_FALSE(encode_if_info(5, {}));
}

}  // namespace
