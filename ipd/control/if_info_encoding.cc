// SPDX-License-Identifier: Apache-2.0
// The conversion releases the notification when it finds no memory for the payload, and does not say so. Whoever looked
// at the notification then would look at released memory. So as much memory is taken and given back first: what was
// there a moment ago is there, since nothing else in this process runs in between.
#include "ipd/control/if_info_encoding.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "ip_api.h"
#include "mtrack.h"

namespace ipd::control {
namespace {

struct Released {
  void operator()(void *block) const { mtrack_free(block); }
};
template <class T>
using Tracked = std::unique_ptr<T, Released>;

Tracked<void> allocate(uint32_t type, uint32_t size) {
  return Tracked<void>(mtrack_alloc(IP_COMPONENT, type, size));
}

// The record that the tables describe: a count and the entries behind it, all of them words or characters.
std::vector<uint32_t> record_of(std::span<const ip_if_info_msg_entry> entries) {
  static_assert(sizeof(ip_if_info_msg) == sizeof(uint32_t) && sizeof(ip_if_info_msg_entry) % sizeof(uint32_t) == 0);
  std::vector<uint32_t> record(1 + entries.size_bytes() / sizeof(uint32_t));
  record[0] = static_cast<uint32_t>(entries.size());
  if (!entries.empty()) std::memcpy(&record[1], entries.data(), entries.size_bytes());
  return record;
}

}  // namespace

std::optional<std::vector<std::byte>> encode_if_info(uint32_t id, std::span<const ip_if_info_msg_entry> entries) {
  std::vector<uint32_t> record = record_of(entries);
  auto *message = reinterpret_cast<ip_if_info_msg *>(record.data());
  Tracked<void> block = allocate(IP_MEM_ip_if_info_msg, sizeof(ip_if_info_notification));
  if (block == nullptr || allocate(IP_MEM_ip_msgtype, ip_if_info_msg_get_tlv_sz(message)) == nullptr)
    return std::nullopt;

  auto *notification =
      new (block.release()) ip_if_info_notification{.id = id, .payload = nullptr, .payload_len = 0, .tlv_payload = 0};
  ip_convert_if_info_notification_to_tlv(notification, message);
  const Tracked<void> owned(notification);
  const Tracked<void> payload(notification->payload);
  const auto *bytes = static_cast<const std::byte *>(notification->payload);
  // What could not be encoded is left all zeros, and no TLV buffer begins with zeros.
  if (bytes == nullptr || notification->payload_len == 0 || bytes[0] == std::byte{0}) return std::nullopt;
  return std::vector<std::byte>(bytes, bytes + notification->payload_len);
}

}  // namespace ipd::control
