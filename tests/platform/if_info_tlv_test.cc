// SPDX-License-Identifier: Apache-2.0
// Interface information through the real TLV library, by libip's own tables and calls.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ip_api.h"
#include "mtrack.h"

namespace {

struct Freed {
  void operator()(void *buffer) const { ip_free_if_info_tlv(buffer, 0); }
};

struct Encoded {
  std::unique_ptr<void, Freed> buffer;
  uint32_t size = 0;
  [[nodiscard]] uintptr_t address() const { return reinterpret_cast<uintptr_t>(buffer.get()); }
};

// A message in memory of exactly its size, so that a byte read beyond it is seen.
using Message = std::vector<uint8_t>;

Message message_of(const std::vector<ip_if_info_msg_entry> &entries) {
  const auto count = static_cast<uint32_t>(entries.size());
  Message message(sizeof count + count * sizeof(ip_if_info_msg_entry));
  std::memcpy(message.data(), &count, sizeof count);
  if (count > 0) std::memcpy(&message[4], entries.data(), count * sizeof(ip_if_info_msg_entry));
  return message;
}

// Every word of it depends on `number`.
ip_if_info_msg_entry entry(uint32_t number, const std::string &name) {
  const uint32_t high = 0x81000000u + (number << 16);
  ip_if_info_msg_entry made = {.f0 = high + 1,
                               .f3 = high + 2,
                               .f7 = high + 3,
                               .f2 = high + 4,
                               .f4 = high + 5,
                               .f8 = high + 6,
                               .f9 = high + 7,
                               .f10 = high + 8,
                               .f1 = {}};
  name.copy(made.f1, sizeof made.f1);
  return made;
}

Encoded encode(const Message &message) {
  void *out = nullptr;
  Encoded encoded;
  EXPECT_EQ(ip_if_info_msg_to_tlv(message.data(), &out, &encoded.size, 0, 0, 0), 0u);
  encoded.buffer.reset(out);
  return encoded;
}

Message decode(const Encoded &encoded) {
  void *out = nullptr;
  EXPECT_EQ(ip_if_info_msg_to_struct(&out, encoded.buffer.get(), encoded.size, 0), 0u);
  const std::unique_ptr<void, Freed> record(out);
  const int32_t size = ip_if_info_msg_get_struct_sz(encoded.buffer.get());
  if (record == nullptr || size < 0) return {};
  const auto *bytes = static_cast<const uint8_t *>(record.get());
  return {bytes, bytes + size};
}

std::vector<uint32_t> ids_in(const Encoded &encoded) {
  tlvu_iterator walk = {};
  EXPECT_EQ(ip_if_info_msg_field_itr_init(reinterpret_cast<uintptr_t>(&walk), encoded.address(), encoded.size, 0, 0),
            0u);
  std::vector<uint32_t> ids;
  tlvu_field field = {};
  while (ip_if_info_msg_field_get_next(&walk, &field) == 0) ids.push_back(field.id);
  return ids;
}

TEST(IfInfoTlv, AMessageWithoutEntriesIsItsCountAlone) {
  const Message message = message_of({});
  const Encoded encoded = encode(message);
  EXPECT_EQ(ids_in(encoded), std::vector<uint32_t>{5});
  EXPECT_EQ(decode(encoded), message);
}

TEST(IfInfoTlv, ThreeEntriesComeBackInTheirOrder) {
  const Message message = message_of({entry(1, "eth0"), entry(2, ""), entry(3, "lo")});
  const Encoded encoded = encode(message);
  EXPECT_EQ(ids_in(encoded), (std::vector<uint32_t>{5, 6}));
  const Message decoded = decode(encoded);
  EXPECT_EQ(decoded, message);
  EXPECT_EQ(ip_if_info_msg_get_sz(decoded.data()), 3u);
}

TEST(IfInfoTlv, ANameOf64BytesComesBackWhole) {
  std::string name;
  for (char letter = '0'; name.size() < 64; letter++) name += letter;
  const Message message = message_of({entry(1, name), entry(2, "next")});
  const Message decoded = decode(encode(message));
  EXPECT_EQ(decoded, message);
}

TEST(IfInfoTlv, TheSizesAreWhatTheConversionsGive) {
  for (size_t count : {0u, 1u, 50u}) {
    std::vector<ip_if_info_msg_entry> entries;
    for (size_t i = 0; i < count; i++) entries.push_back(entry(static_cast<uint32_t>(i), std::string(i % 65, 'n')));
    const Message message = message_of(entries);
    const Encoded encoded = encode(message);
    EXPECT_EQ(ip_if_info_msg_get_tlv_sz(message.data()), encoded.size) << count;
    EXPECT_EQ(ip_if_info_msg_get_struct_sz(encoded.buffer.get()), static_cast<int32_t>(message.size())) << count;
  }
}

TEST(IfInfoTlv, AnEntryStandsForItself) {
  const ip_if_info_msg_entry made = entry(7, "vlan7");
  void *tlv = nullptr;
  uint32_t size = 0;
  ASSERT_EQ(ip_if_info_msg_entry_to_tlv(&made, &tlv, &size, 0, 0, 0), 0u);
  const std::unique_ptr<void, Freed> encoded(tlv);
  EXPECT_EQ(ip_if_info_msg_entry_get_tlv_sz(&made), size);
  EXPECT_EQ(ip_if_info_msg_entry_get_struct_sz(tlv), 96);
  void *out = nullptr;
  ASSERT_EQ(ip_if_info_msg_entry_to_struct(&out, tlv, size, 0), 0u);
  const std::unique_ptr<void, Freed> decoded(out);
  EXPECT_EQ(std::memcmp(decoded.get(), &made, sizeof made), 0);
}

TEST(IfInfoTlv, AFieldIsFoundByItsId) {
  const Encoded encoded = encode(message_of({entry(1, "a"), entry(2, "b")}));
  tlvu_field field = {};
  ASSERT_EQ(ip_if_info_msg_get_field(reinterpret_cast<uintptr_t>(&field), encoded.address(), encoded.size, 6, 0), 0u);
  EXPECT_EQ(field.id, 6u);
  EXPECT_EQ(field.count, 2u);
  EXPECT_NE(ip_if_info_msg_get_field(reinterpret_cast<uintptr_t>(&field), encoded.address(), encoded.size, 7, 0), 0u);
}

TEST(IfInfoTlv, ACutBufferIsRefused) {
  const Encoded encoded = encode(message_of({entry(1, "eth0"), entry(2, "eth1")}));
  for (uint32_t size = 0; size < encoded.size; size++) {
    const std::unique_ptr<uint8_t[]> cut(new uint8_t[size]);
    if (size > 0) std::memcpy(cut.get(), encoded.buffer.get(), size);
    void *out = nullptr;
    EXPECT_NE(ip_if_info_msg_to_struct(&out, cut.get(), size, 0), 0u) << size;
    EXPECT_EQ(out, nullptr) << size;
  }
}

TEST(IfInfoTlv, ANotificationCarriesTheEncoding) {
  Message message = message_of({entry(1, "eth0"), entry(2, "eth1")});
  const Encoded encoded = encode(message);
  ip_if_info_notification notification = {.id = 1, .payload = nullptr, .payload_len = 0, .tlv_payload = 0};
  EXPECT_EQ(ip_convert_if_info_notification_to_tlv(&notification, reinterpret_cast<ip_if_info_msg *>(message.data())),
            0u);
  EXPECT_EQ(notification.tlv_payload, 1u);
  ASSERT_EQ(notification.payload_len, encoded.size);
  EXPECT_EQ(std::memcmp(notification.payload, encoded.buffer.get(), encoded.size), 0);
  mtrack_free(notification.payload);
}

}  // namespace
