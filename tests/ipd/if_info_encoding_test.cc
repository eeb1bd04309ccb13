// SPDX-License-Identifier: Apache-2.0
// Notifications of interface information through the library and the real TLV utilities.
#include "ipd/control/if_info_encoding.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "ip_api.h"
#include "ipd/control/download.h"

namespace {

using ipd::control::encode_if_info;
using Entry = ip_if_info_msg_entry;

std::vector<Entry> entries(size_t count) {
  std::vector<Entry> made(count);
  for (uint32_t i = 0; i < count; ++i) {
    made[i] = {.f0 = i + 1, .f3 = ~i, .f7 = 1, .f2 = i, .f4 = ~0u, .f8 = 32, .f9 = 65535, .f10 = i, .f1 = {}};
    std::memset(made[i].f1, 'a' + static_cast<int>(i % 26), sizeof made[i].f1);
  }
  return made;
}

std::vector<Entry> decoded(const std::vector<std::byte> &bytes) {
  void *out = nullptr;
  EXPECT_EQ(ip_if_info_msg_to_struct(&out, bytes.data(), static_cast<uint32_t>(bytes.size()), 0), 0u);
  if (out == nullptr) return {};
  std::vector<Entry> found(ip_if_info_msg_get_sz(out));
  if (!found.empty()) {
    std::memcpy(found.data(), static_cast<const std::byte *>(out) + sizeof(ip_if_info_msg),
                found.size() * sizeof(Entry));
  }
  ip_free_if_info_tlv(out, 0);
  return found;
}

TEST(IfInfoEncoding, WhatWasEncodedIsWhatAClientDecodes) {
  for (const size_t count : {0u, 1u, 3u}) {
    const auto sent = entries(count);
    const auto bytes = encode_if_info(sent);
    ASSERT_TRUE(bytes);
    const auto found = decoded(*bytes);
    ASSERT_EQ(found.size(), count);
    EXPECT_TRUE(count == 0 || std::memcmp(found.data(), sent.data(), count * sizeof(Entry)) == 0);
  }
}

TEST(IfInfoEncoding, AFullNotificationFitsIntoAMessage) {
  const auto bytes = encode_if_info(entries(ipd::control::most_entries));
  ASSERT_TRUE(bytes);
  EXPECT_LE(bytes->size(), IP_MAX_IPC_PAYLOAD);
  EXPECT_EQ(decoded(*bytes).size(), ipd::control::most_entries);
}

}  // namespace
