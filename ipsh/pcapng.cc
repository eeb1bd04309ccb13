// SPDX-License-Identifier: Apache-2.0
// A block: type, length, body, options, length again; everything begins at a multiple of 4.
#include "pcapng.h"

namespace ipsh {
namespace {

constexpr uint32_t section_block = 0x0a0d0d0a, interface_block = 1, packet_block = 6;
constexpr uint32_t byte_order = 0x1a2b3c4d;
constexpr uint16_t raw_ip = 101;  // of an interface: packets begin with their IP header
constexpr uint16_t end_of_options = 0, comment_option = 1;
constexpr uint16_t user_application = 4;                     // of a section
constexpr uint16_t interface_name = 2, interface_ticks = 9;  // of an interface
constexpr uint16_t packet_flags = 2, packets_dropped = 4;    // of a packet
constexpr uint8_t nanosecond_ticks = 9;                      // negative power of 10
constexpr uint32_t inbound_flag = 1, outbound_flag = 2;

class Block {
 public:
  explicit Block(uint32_t type) {
    number(type);
    number(uint32_t{0});
  }
  template <class Number>
  void number(Number value) {
    for (size_t i = 0; i < sizeof value; ++i) bytes_.push_back(static_cast<uint8_t>(uint64_t{value} >> (8 * i)));
  }
  void padded(std::span<const uint8_t> bytes) {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    while (bytes_.size() % 4 != 0) bytes_.push_back(0);
  }
  void option(uint16_t code, std::span<const uint8_t> value) {
    number(code);
    number(static_cast<uint16_t>(value.size()));
    padded(value);
  }
  void option(uint16_t code, std::string_view text) {
    text = text.substr(0, UINT16_MAX);
    option(code, std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size()));
  }
  template <class Number>
  void number_option(uint16_t code, Number value) {
    number(code);
    number(static_cast<uint16_t>(sizeof value));
    number(value);
    padded({});
  }
  [[nodiscard]] std::vector<uint8_t> finished() {
    number(uint32_t{end_of_options});
    const auto length = static_cast<uint32_t>(bytes_.size() + sizeof(uint32_t));
    number(length);
    for (size_t i = 0; i < sizeof length; ++i) bytes_[4 + i] = static_cast<uint8_t>(length >> (8 * i));
    return std::move(bytes_);
  }

 private:
  std::vector<uint8_t> bytes_;
};

std::vector<uint8_t> interface_of(std::string_view name) {
  Block block(interface_block);
  block.number(raw_ip);
  block.number(uint16_t{0});
  block.number(uint32_t{0});  // as long as it is
  block.option(interface_name, name);
  block.number_option(interface_ticks, nanosecond_ticks);
  return block.finished();
}

}  // namespace

std::vector<uint8_t> PcapngWriter::section(std::string_view application) {
  Block block(section_block);
  block.number(byte_order);
  block.number(uint16_t{1});
  block.number(uint16_t{0});
  block.number(UINT64_MAX);  // the section's length: not known
  block.option(user_application, application);
  return block.finished();
}

std::vector<uint8_t> PcapngWriter::packet(std::string_view interface, const PcapngPacket &packet) {
  std::vector<uint8_t> bytes;
  const auto [place, first] = interfaces_.emplace(interface, static_cast<uint32_t>(interfaces_.size()));
  if (first) bytes = interface_of(interface);
  Block block(packet_block);
  block.number(place->second);
  block.number(static_cast<uint32_t>(packet.nanoseconds >> 32));
  block.number(static_cast<uint32_t>(packet.nanoseconds));
  block.number(static_cast<uint32_t>(packet.bytes.size()));
  block.number(packet.length);
  block.padded(packet.bytes);
  block.option(comment_option, packet.comment);
  block.number_option(packet_flags, packet.outbound ? outbound_flag : inbound_flag);
  if (packet.dropped != 0) block.number_option(packets_dropped, packet.dropped);
  const std::vector<uint8_t> own = block.finished();
  bytes.insert(bytes.end(), own.begin(), own.end());
  return bytes;
}

}  // namespace ipsh
