// SPDX-License-Identifier: Apache-2.0
// Received packets of any bytes, cut into buffers anywhere, empty ones among them: is one valid, is one an MPLS echo
// request? The answers are those of the same questions to the bytes laid out flat. A packet that is returned has kept
// its bytes, and no buffer is lost, however it ends.
//
// Input: a count of cuts (low 4 bits of the first byte), a byte for the length of each part that is cut off (low 6
// bits), the packet.
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "ip_api.h"
#include "mbuf/buffers.h"

namespace {

using Bytes = std::vector<uint8_t>;

mbuf *buffer_with(std::span<const uint8_t> bytes) {
  mbuf *buffer = rsw::take_buffer();
  if (buffer == nullptr) abort();
  std::copy(bytes.begin(), bytes.end(), buffer->data.get());
  buffer->m_len = static_cast<uint32_t>(bytes.size());
  return buffer;
}

mbuf *packet_of(std::span<const uint8_t> cuts, std::span<const uint8_t> bytes) {
  mbuf *first = nullptr;
  mbuf *last = nullptr;
  const auto append = [&](std::span<const uint8_t> part) {
    mbuf *buffer = buffer_with(part);
    if (first == nullptr) first = buffer;
    if (last != nullptr) last->next = buffer;
    last = buffer;
  };
  for (const uint8_t cut : cuts) {
    const size_t length = std::min<size_t>(cut & 63u, bytes.size());
    append(bytes.first(length));
    bytes = bytes.subspan(length);
  }
  append(bytes);
  return first;
}

Bytes bytes_of(const mbuf *packet) {
  Bytes bytes;
  for (; packet != nullptr; packet = packet->next.get()) {
    bytes.insert(bytes.end(), packet->data.get(), packet->data.get() + packet->m_len);
  }
  return bytes;
}

uint32_t header_length(std::span<const uint8_t> bytes) {
  return (bytes[0] & 15u) * 4u;
}

uint32_t field(std::span<const uint8_t> bytes, size_t at) {
  return bytes[at] * 256u + bytes[at + 1];
}

bool is_valid(std::span<const uint8_t> bytes) {
  if (bytes.size() < 20 || bytes[0] >> 4 != 4 || header_length(bytes) < 20 || header_length(bytes) > bytes.size()) {
    return false;
  }
  uint32_t sum = 0;
  for (size_t at = 0; at < header_length(bytes); at += 2) sum += field(bytes, at);
  while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
  return sum == 0xffff && field(bytes, 2) >= header_length(bytes);
}

// One of these: too short to tell; no; yes.
enum class Echo { too_short, no, yes };

Echo is_echo_request(std::span<const uint8_t> bytes) {
  if (bytes.size() < 20) return Echo::too_short;
  if (bytes[16] != 127 || bytes[9] != 17) return Echo::no;
  if (bytes.size() < header_length(bytes) + 8) return Echo::too_short;
  return field(bytes, header_length(bytes) + 2) == 3503 ? Echo::yes : Echo::no;
}

void check_validity(std::span<const uint8_t> cuts, std::span<const uint8_t> bytes) {
  mbuf *packet = ip_packet_is_valid(packet_of(cuts, bytes));
  if ((packet != nullptr) != is_valid(bytes)) abort();
  if (packet != nullptr) {
    if (packet->m_len < header_length(bytes)) abort();
    if (bytes_of(packet) != Bytes(bytes.begin(), bytes.end())) abort();
    m_freem(packet);
  }
  if (rsw::buffers_in_use() != 0) abort();
}

void check_echo_request(std::span<const uint8_t> cuts, std::span<const uint8_t> bytes) {
  mbuf *packet = packet_of(cuts, bytes);
  const Echo expected = is_echo_request(bytes);
  if (ip_is_mpls_oam_echo_request_packet(&packet) != (expected == Echo::yes ? 1u : 0u)) abort();
  if ((packet == nullptr) != (expected == Echo::too_short)) abort();
  if (packet != nullptr) {
    if (bytes_of(packet) != Bytes(bytes.begin(), bytes.end())) abort();
    m_freem(packet);
  }
  if (rsw::buffers_in_use() != 0) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const std::span<const uint8_t> input(data, size);
  const size_t cut_count = std::min<size_t>(input[0] & 15u, size - 1);
  const auto cuts = input.subspan(1, cut_count);
  auto bytes = input.subspan(1 + cut_count);
  bytes = bytes.first(std::min<size_t>(bytes.size(), 1500));
  check_validity(cuts, bytes);
  check_echo_request(cuts, bytes);
  return 0;
}
