// SPDX-License-Identifier: Apache-2.0
#include "captured_row.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <ctime>

#include "arguments.h"
#include "control_state.h"
#include "ip_api.h"

namespace ipsh {
namespace {

constexpr size_t least_header = 20;

struct MessageName {
  uint32_t minor;
  const char *name;
};
constexpr std::array<MessageName, 10> message_names{{
    {IP_MSG_INPUT, "input"},
    {IP_MSG_OUTPUT, "output"},
    {IP_MSG_ICMP_OUTPUT, "ICMP output"},
    {IP_MSG_REPLICATE, "replicate"},
    {IP_MSG_ICMP_ERROR, "ICMP error"},
    {IP_MSG_DRIVER_ICMP, "driver ICMP error"},
    {IP_MSG_OUTPUT_L2, "layer-2 output"},
    {IP_MSG_CONSUME, "consume"},
    {IP_MSG_OUTPUT_L2_DCE, "layer-2 output DCE"},
    {IP_MSG_OUTPUT_L2_MVR, "layer-2 output MVR"},
}};

uint32_t address_at(const std::vector<uint8_t> &bytes, size_t place) {
  return uint32_t{bytes[place]} << 24 | uint32_t{bytes[place + 1]} << 16 | uint32_t{bytes[place + 2]} << 8 |
         bytes[place + 3];
}

std::string time_text(const CapturedPacket &packet) {
  const auto seconds = static_cast<std::time_t>(packet.seconds);
  std::tm local{};
  if (localtime_r(&seconds, &local) == nullptr) return fmt::format("{}.{:06}", seconds, packet.nanoseconds / 1000);
  return fmt::format("{:%H:%M:%S}.{:06}", local, packet.nanoseconds / 1000);
}

std::string who_text(const CapturedRow &row) {
  const CapturedPacket &packet = row.packet;
  if (packet.to_client) return fmt::format("delivery to process {}", packet.client);
  return fmt::format("{} from process {}", packet_message_name(packet.minor), packet.client);
}

}  // namespace

CapturedRow row_of(CapturedPacket packet, std::string interface) {
  CapturedRow row{.packet = std::move(packet), .interface = std::move(interface)};
  const std::vector<uint8_t> &bytes = row.packet.bytes;
  if (bytes.size() < least_header || bytes[0] >> 4 != 4) return row;
  row.has_header = true;
  row.source = address_at(bytes, 12);
  row.destination = address_at(bytes, 16);
  row.protocol = bytes[9];
  return row;
}

std::string packet_message_name(uint32_t minor) {
  const auto *const found = std::ranges::find(message_names, minor, &MessageName::minor);
  return found == message_names.end() ? fmt::format("message {}", minor) : found->name;
}

std::string comment_text(const CapturedRow &row) {
  return fmt::format("{}: {}", who_text(row), packet_outcome_name(row.packet.outcome));
}

std::string line_text(const CapturedRow &row) {
  std::string text = time_text(row.packet) + ' ' + who_text(row);
  if (!row.interface.empty()) text += ", " + row.interface;
  if (row.has_header) {
    text += fmt::format(": {} > {} {}", address_text(row.source), address_text(row.destination),
                        ip_get_proto_name(row.protocol));
  }
  text += fmt::format(", {} bytes: {}", row.packet.length, packet_outcome_name(row.packet.outcome));
  if (row.packet.dropped != 0) text += fmt::format(" ({} before it were not captured)", row.packet.dropped);
  return text;
}

}  // namespace ipsh
