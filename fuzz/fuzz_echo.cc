// SPDX-License-Identifier: Apache-2.0
// Packets of any bytes as what comes back to a ping: whoever is on the wire sends them. News is told of echoes with our
// id alone, of whole messages with the right checksum; and nothing outside of the packet is read, which lies in memory
// of exactly its size.
//
// Input: our id, a byte whose bit 0 has the checksum put right, the packet.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>

#include "input.h"
#include "ip_packet_util.h"
#include "ipsh/echo.h"

namespace {

constexpr size_t ip_header = 20;
constexpr size_t least_news = 28;

// Where the message begins, if there is room for one.
size_t message_place(std::span<const uint8_t> packet) {
  return packet.size() < ip_header ? packet.size() : size_t{packet[0] & 15u} * 4;
}

void put_checksum_right(std::span<uint8_t> packet) {
  const size_t place = message_place(packet);
  if (place + 4 > packet.size()) return;
  const auto message = packet.subspan(place);
  message[2] = message[3] = 0;
  const uint16_t sum = ip_checksum(message.data(), static_cast<uint32_t>(message.size()));
  std::memcpy(&message[2], &sum, sizeof sum);
}

void check(const ipsh::EchoNews &news, std::span<const uint8_t> packet) {
  if (packet.size() < least_news || news.length > packet.size() - ip_header) abort();
  const auto message = packet.subspan(message_place(packet));
  if (message.size() != news.length || message[0] != news.type || message[1] != news.code) abort();
  if (ip_checksum(message.data(), static_cast<uint32_t>(message.size())) != 0) abort();
  if (ipsh::icmp_type_text(news.type) == nullptr) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Input input(data, size);
  const auto id = static_cast<uint16_t>(input.byte() << 8 | input.byte());
  const bool has_good_checksum = (input.byte() & 1) != 0;
  const size_t length = size > 3 ? size - 3 : 0;
  const std::unique_ptr<uint8_t[]> copy(new uint8_t[length]);
  const std::span<uint8_t> packet(copy.get(), length);
  if (length > 0) std::memcpy(packet.data(), data + 3, length);
  if (has_good_checksum) put_checksum_right(packet);
  if (const auto news = ipsh::read_echo_news(packet, id); news) {
    check(*news, packet);
    if (ipsh::read_echo_news(packet, static_cast<uint16_t>(id + 1))) abort();
  }
  if (ipsh::echo_sequence(packet, id) && ipsh::echo_sequence(packet, static_cast<uint16_t>(id + 1))) abort();
  return 0;
}
