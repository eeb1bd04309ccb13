// SPDX-License-Identifier: Apache-2.0
#include "unit/packet_calls.h"

#include <cstdio>

#include "fake_platform/watched_blocks.h"

namespace unit {

namespace {

std::string l2_text(const uint8_t (&address)[6]) {
  return {reinterpret_cast<const char *>(address), sizeof address};
}

// The words that every row's call names.
Image output_message() {
  Image image = message(4);
  image.word(28, 0x11121314).word(36, 0x21222324).word(40, 0xfffffffe).word(48, 0x31323334);
  return image;
}

Image l2_message(uint16_t minor_type) {
  Image image = message(minor_type);
  image.word(64, 0x41424344).word(72, 0x51525354).word(76, 0x61626364).text(80, l2_text(l2_address));
  return image;
}

// A call that takes the packet over whatever happens.
PacketCallRow takes_the_packet(const char *name, PacketCallFunction call, const Image &image, const char *conversion) {
  return {.name = name,
          .call = std::move(call),
          .message = image,
          .conversion_name = conversion,
          .null_client = Fate::freed,
          .no_memory = Fate::freed,
          .unconverted = Fate::freed,
          .sent = Fate::freed,
          .unsent = Fate::freed};
}

// One that takes it over only when it was sent.
PacketCallRow keeps_failed(const char *name, PacketCallFunction call, const Image &image, const char *conversion) {
  return {.name = name,
          .call = std::move(call),
          .message = image,
          .conversion_name = conversion,
          .null_client = Fate::callers,
          .no_memory = Fate::callers,
          .unconverted = Fate::callers,
          .sent = Fate::freed,
          .unsent = Fate::callers};
}

// One that frees as its free_flag says.
PacketCallRow output_l2(const char *name, PacketCallFunction call, const Image &image, const char *conversion,
                        Fate by_flag) {
  return {.name = name,
          .call = std::move(call),
          .message = image,
          .conversion_name = conversion,
          .null_client = {},
          .no_memory = {},
          .unconverted = Fate::freed,
          .sent = by_flag,
          .unsent = by_flag};
}

uint32_t send_l2(mbuf *packet, uint32_t free_flag) {
  return ip_cl_output_l2(packet, 0x51525354, 0x41424344, 0x61626364, 0xffffffff, free_flag, l2_address, ~uint32_t{4});
}
uint32_t send_l2_mvr(mbuf *packet, uint32_t free_flag) {
  return ip_cl_output_l2_mvr(packet, 0x51525354, 0x41424344, 0x61626364, 0xffffffff, free_flag, l2_address,
                             ~uint32_t{1});
}
uint32_t send_l2_dce(mbuf *packet, uint32_t free_flag) {
  return ip_cl_output_l2_dce(packet, 0x51525354, 0x41424344, 0x61626364, free_flag, l2_address, 0x0707, 0x0808, 0x0909,
                             0x0a0a, 0x0b0b, 0x0c0c, 0x0d0d, 0x0e0e, l2_address2, 0x71727374, 0x81828384);
}
// The eight values do not lie in the order of the arguments.
Image dce_message() {
  Image image = l2_message(26);
  image.text(86, l2_text(l2_address2)).word(108, 0x81828384).word(112, 0x71727374);
  image.half(92, 0x0707).half(100, 0x0808).half(96, 0x0909).half(94, 0x0a0a);
  image.half(98, 0x0b0b).half(102, 0x0c0c).half(104, 0x0d0d).half(106, 0x0e0e);
  return image;
}

PacketCallRow icmp_error() {
  PacketCallRow row = keeps_failed(
      "IcmpError",
      [](mbuf *packet, struct ip_client *client) {
        return ip_icmp_error(0x11121314, packet, 11, 0x21222324, client, 0x31323334, 0x41424344);
      },
      message(12).word(28, 0x11121314).word(36, 11).word(40, 0x21222324).word(44, 0x31323334).word(48, 0x41424344),
      "ip_icmp_error");
  row.length_offset = 52;
  return row;
}

PacketCallRow replicate() {
  PacketCallRow row = takes_the_packet(
      "Replicate",
      [](mbuf *packet, struct ip_client *) { return ip_send_replicate(packet, 0x11121314, 0x21222324, 0xff); },
      message(11).word(28, 0x11121314).word(40, 0x21222324).byte(128, 1), "ip_send_replicate");
  row.null_client = row.no_memory = {};
  return row;
}

}  // namespace

const std::vector<PacketCallRow> &packet_calls() {
  static const std::vector<PacketCallRow> rows{
      {.name = "Output",
       .call =
           [](mbuf *packet, struct ip_client *client) {
             return ip_cl_output(0x11121314, packet, 0x21222324, -2, 0x31323334, client);
           },
       .message = output_message(),
       .conversion_name = "ip_cl_output_src_l2_addr_common",
       .null_client = Fate::freed,
       .no_memory = {},
       .unconverted = Fate::freed,
       .sent = Fate::freed,
       .unsent = Fate::freed,
       .tracked_pieces = true},
      {.name = "OutputNfree",
       .call =
           [](mbuf *packet, struct ip_client *client) {
             return ip_cl_output_nfree(0x11121314, packet, 0x21222324, -2, 0x31323334, client);
           },
       .message = output_message(),
       .conversion_name = "ip_cl_output_src_l2_addr_common",
       .null_client = Fate::callers,
       .no_memory = {},
       .unconverted = Fate::callers,
       .sent = Fate::callers,
       .unsent = Fate::callers,
       .tracked_pieces = true},
      {.name = "OutputSrcL2Addr",
       .call =
           [](mbuf *packet, struct ip_client *client) {
             return ip_cl_output_src_l2_addr(0x11121314, packet, 0x21222324, -2, 0x31323334, client, l2_address);
           },
       .message = output_message().text(52, l2_text(l2_address)).byte(63, 1),
       .conversion_name = "ip_cl_output_src_l2_addr_common",
       .null_client = Fate::freed,
       .no_memory = {},
       .unconverted = Fate::freed,
       .sent = Fate::freed,
       .unsent = Fate::freed,
       .tracked_pieces = true},
      takes_the_packet(
          "Input",
          [](mbuf *packet, struct ip_client *client) { return ip_cl_input(0x11121314, packet, 0x21222324, client); },
          message(3).word(28, 0x11121314).word(40, 0x21222324), "ip_cl_input"),
      takes_the_packet(
          "Consume",
          [](mbuf *packet, struct ip_client *client) {
            return ip_cl_consume(0x11121314, packet, 0x21222324, l2_address, client);
          },
          message(25).word(28, 0x11121314).word(40, 0x21222324).text(80, l2_text(l2_address)), "ip_cl_consume"),
      keeps_failed(
          "IcmpOutput",
          [](mbuf *packet, struct ip_client *client) {
            return ip_cl_icmp_output(0x11121314, packet, -2, client, 0x31323334);
          },
          message(6).word(28, 0x11121314).word(40, 0xfffffffe).word(44, 0x31323334), "ip_cl_icmp_output"),
      icmp_error(),
      output_l2(
          "OutputL2", [](mbuf *packet, struct ip_client *) { return send_l2(packet, 0); }, l2_message(20),
          "ip_cl_output_l2", Fate::callers),
      output_l2(
          "OutputL2Freeing", [](mbuf *packet, struct ip_client *) { return send_l2(packet, 1); }, l2_message(20),
          "ip_cl_output_l2", Fate::freed),
      output_l2(
          "OutputL2Mvr", [](mbuf *packet, struct ip_client *) { return send_l2_mvr(packet, 0); },
          l2_message(30).word(116, 1), "ip_cl_output_l2_mvr", Fate::callers),
      output_l2(
          "OutputL2MvrFreeing", [](mbuf *packet, struct ip_client *) { return send_l2_mvr(packet, 0x100); },
          l2_message(30).word(116, 1), "ip_cl_output_l2_mvr", Fate::freed),
      output_l2(
          "OutputL2Dce", [](mbuf *packet, struct ip_client *) { return send_l2_dce(packet, 0); }, dce_message(),
          "ip_cl_output_l2_dce", Fate::callers),
      output_l2(
          "OutputL2DceFreeing", [](mbuf *packet, struct ip_client *) { return send_l2_dce(packet, 0x80000000); },
          dce_message(), "ip_cl_output_l2_dce", Fate::freed),
      replicate(),
  };
  return rows;
}

PacketTest::PacketTest() {
  client.data_q = ip_client.data_q = data_q;
  client.ctrl_q = 999;
  client.flags = ~uint32_t{0};
  ip_client.ctrl_q = 998;
}

void PacketTest::TearDown() {
  EXPECT_EQ(fake_platform::unreleased_blocks(), unreleased_);
  MessagingTest::TearDown();
}

mbuf *PacketTest::packet_of(const std::vector<Bytes> &parts) {
  mbuf *first = fake_platform::packet_chain(parts);
  first->hdr_word = packet_word;
  first->hdr_byte = packet_byte;
  platform().log.name(first, "packet");
  return first;
}

Image PacketTest::expected(const PacketCallRow &row, const mbuf *reference, uint16_t length) {
  Image image = row.message;
  image.word(32, static_cast<uint32_t>(reinterpret_cast<uintptr_t>(reference)));
  image.half(row.length_offset, length).half(row.length_offset + 2, packet_word);
  image.byte(row.length_offset + 4, packet_byte);
  return image;
}

std::string PacketTest::shown(const void *address) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", static_cast<uint32_t>(reinterpret_cast<uintptr_t>(address)));
  return text;
}

}  // namespace unit
