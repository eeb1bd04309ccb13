// SPDX-License-Identifier: Apache-2.0
// The calls that hand a packet to the IP process, one row each, and the fixture in which each is made.
#ifndef TESTS_UNIT_PACKET_CALLS_H
#define TESTS_UNIT_PACKET_CALLS_H

#include <functional>
#include <optional>
#include <ostream>

#include "fake_platform/packets.h"
#include "unit/messages.h"

namespace unit {

inline constexpr uint32_t packet_opcode = 0x14c04;
inline constexpr uint8_t l2_address[6] = {0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6};
inline constexpr uint8_t l2_address2[6] = {0xb1, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6};

// What becomes of a packet that did not travel by reference.
enum class Fate { freed, callers };

using PacketCallFunction = std::function<uint32_t(mbuf *packet, struct ip_client *client)>;

struct PacketCallRow {
  const char *name;
  PacketCallFunction call;
  Image message;                    // all of it but what it says of its packet; never changed
  size_t length_offset = 58;        // where packet_len is; the first buffer's word and byte follow
  const char *conversion_name;      // in the line about pieces that found no memory
  std::optional<Fate> null_client;  // none: the call takes no client
  std::optional<Fate> no_memory;    // none: the message is not from the heap
  Fate unconverted, sent, unsent;
  bool tracked_pieces = false;  // they are released by the memory tracker
};

const std::vector<PacketCallRow> &packet_calls();

inline std::ostream &operator<<(std::ostream &out, const PacketCallRow &row) {
  return out << row.name;
}

class PacketTest : public MessagingTest {
 protected:
  static constexpr uint32_t data_q = 31;
  static constexpr uint16_t packet_word = 0xbeef;
  static constexpr uint8_t packet_byte = 0x5c;

  PacketTest();
  void TearDown() override;

  // A packet named "packet" in the log, with these parts.
  static mbuf *packet_of(const std::vector<Bytes> &parts);
  // One of two buffers, 5 bytes.
  static mbuf *packet() { return packet_of({{1, 2, 3}, {4, 5}}); }

  static void by_segments() { ip_client.flags = 1; }
  static void by_reference() { ip_client.flags = ~uint32_t{1}; }

  // The row's message with a packet of `length` bytes that travels by reference (null: by segments).
  static Image expected(const PacketCallRow &row, const mbuf *reference, uint16_t length = 5);
  static std::string packet_send_call(size_t size = 232) {
    return "mts_send(31, 4261412864, 264, 84996, " + std::to_string(size) + ", 0)";
  }
  static size_t times_freed() { return platform().log.count("m_freem"); }
  static std::string shown(const void *address);
  // Words of a test's own about what it leaves unreleased, in the order of unreleased_blocks().
  void expect_unreleased(Calls blocks) { unreleased_ = std::move(blocks); }

  struct ip_client client = {};  // its data queue is 31; everything else is another process's

 private:
  Calls unreleased_;
};

}  // namespace unit

#endif
