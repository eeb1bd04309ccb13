// SPDX-License-Identifier: Apache-2.0
// What a client of the contract headers writes into records that a platform reads: the packet vector of the send
// options. Layouts are asserted in the headers themselves.
#include <gtest/gtest.h>

#include <cstdint>

#include "mts.h"
#include "platform/contract_in_c.h"

namespace {

TEST(SendOptions, AFreshRecordNamesNoVector) {
  const mts_send_opts opts{};
  EXPECT_EQ(mts_send_opts_vector(&opts), nullptr);
}

TEST(SendOptions, AVectorThatIsSetIsReadBack) {
  mts_iovec vector[8];
  mts_send_opts opts{};
  mts_send_opts_set_vector(&opts, vector);
  EXPECT_EQ(mts_send_opts_vector(&opts), vector);
}

TEST(SendOptions, TheAddressStandsInTwoWordsLowOneFirst) {
  mts_iovec vector[1];
  mts_send_opts opts{};
  opts.w[3] = 0xffffffffu;
  mts_send_opts_set_vector(&opts, vector);
  const uint64_t address = reinterpret_cast<uintptr_t>(vector);
  EXPECT_EQ(opts.w[2], static_cast<uint32_t>(address));
  EXPECT_EQ(opts.w[3], static_cast<uint32_t>(address >> 32));
}

TEST(SendOptions, NoOtherWordIsTouched) {
  mts_iovec vector[1];
  mts_send_opts opts{};
  opts.w[0] = 1;
  opts.w[1] = 5;
  mts_send_opts_set_vector(&opts, vector);
  EXPECT_EQ(opts.w[0], 1u);
  EXPECT_EQ(opts.w[1], 5u);
  for (uint32_t i = 4; i < 17; ++i) EXPECT_EQ(opts.w[i], 0u) << i;
}

TEST(SendOptions, SettingNullTakesTheVectorAway) {
  mts_iovec vector[1];
  mts_send_opts opts{};
  mts_send_opts_set_vector(&opts, vector);
  mts_send_opts_set_vector(&opts, nullptr);
  EXPECT_EQ(opts.w[2], 0u);
  EXPECT_EQ(opts.w[3], 0u);
}

TEST(SendOptions, CReadsWhatCppWroteAndBack) {
  mts_iovec vector[1];
  mts_send_opts opts{};
  mts_send_opts_set_vector(&opts, vector);
  EXPECT_EQ(contract_vector_in_c(&opts), vector);
  mts_send_opts by_c{};
  contract_set_vector_in_c(&by_c, vector);
  EXPECT_EQ(mts_send_opts_vector(&by_c), vector);
}

}  // namespace
