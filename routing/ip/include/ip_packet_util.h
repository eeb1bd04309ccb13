// SPDX-License-Identifier: Apache-2.0
// Packets by the byte: IPv4 and UDP headers, the Internet checksum, the IPv4 authentication header, the names of
// protocols, and dumps. Part of ip_api.h, which says what its words mean (host order, Threads, Blocks, Owns).
//
// No function here needs an attached database, but ip_print_addr_summary(). A packet is a chain of buffers (mbuf.h);
// its IPv4 header begins with the first byte of the first buffer. Headers are in network order, but between
// ip_ntoh_header() and ip_hton_header().
//
// Unless a function says otherwise: Threads: any, one per packet or buffer. Blocks: no. Owns: nothing.
#ifndef IP_PACKET_UTIL_H
#define IP_PACKET_UTIL_H

#include <stdint.h>

#include "mbuf.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// ------------------------------------------------------------------------------------------------------------ headers

// Puts a 20-byte IPv4 header (RFC 791) in front of a packet, without options, identification, DF or fragment offset,
// with its checksum.
//   packet           what the header is to carry
//   tos, ttl, proto  written as they are given
//   total_len        host order, the header included; written as it is given
//   src, dst         host order
// Owns: takes the packet, returns it; a packet whose arguments are refused stays the caller's.
// Results: the packet. Null: packet, src or dst is 0: refused; or no buffer: the packet is gone.
struct mbuf *ip_build_header(struct mbuf *packet, uint8_t tos, uint16_t total_len, uint8_t ttl, uint8_t proto,
                             uint32_t src, uint32_t dst);

// Puts an 8-byte UDP header (RFC 768) in front of a packet, without a checksum.
//   packet       what the header is to carry; null: refused
//   sport        host order; 0: one of 49152 .. 65534, at random
//   dport        host order; 0: refused
//   payload_len  host order, without the header; 0: refused
//   src, dst     not looked at
//   reserved     0; anything else is refused
//   hdr_len      out: 8; 0 when there was no buffer; untouched when the arguments are refused. Not null
// Owns: takes the packet, returns it; a refused packet is freed.
// Results: the packet. Null: refused, or no buffer: the packet is gone.
struct mbuf *udp_build_header(struct mbuf *packet, uint16_t sport, uint16_t dport, uint16_t payload_len, uint32_t src,
                              uint32_t dst, uint32_t reserved, uint32_t *hdr_len);

// Turns total length, identification and flags with fragment offset into network order, and into host order.
// Addresses and checksum stay as they are.
//   hdr  20 bytes; null: nothing happens
void ip_hton_header(void *hdr);
void ip_ntoh_header(void *hdr);

// One field of a packet's header, which must lie in the first buffer (ip_pullup_header()). The checksum is not
// recomputed: that is the caller's.
//   ttl  out; or the value to write: 0 is refused
// Results: 1. 0: null, a refused value, or fewer than 20 bytes in the first buffer; nothing is written.
uint32_t ip_get_ttl_from_packet(struct mbuf *packet, uint8_t *ttl);
uint32_t ip_set_ttl_in_packet(struct mbuf *packet, uint8_t ttl);

// Sets DF in a header that is in host order (ip_ntoh_header()). The checksum is not recomputed, as above.
// Results: 1. 0: null, or fewer than 20 bytes in the first buffer; nothing is written.
uint32_t ip_set_df_in_packet(struct mbuf *packet);

// The total length that a packet's header says; its first 4 bytes must lie in the first buffer.
// Results: host order. 0: null, no data, or not version 4.
uint32_t ip_packet_hdr_total_len(struct mbuf *packet);

// Brings a packet's header into its first buffer.
//   whole  0: its first 20 bytes; else its options too
// Owns: takes the packet, returns it.
// Results: the packet, perhaps with another first buffer. Null: null, or the packet was too short or no buffer could be
//   had: it was freed.
struct mbuf *ip_pullup_header(struct mbuf *packet, uint32_t whole);

// Checks a received packet: at least 20 bytes, version 4, a header of at least 20 bytes that is all there, a good
// checksum, a total length that is not below the header's. Whether the packet is as long as that is not looked at, nor
// what the options say.
// Owns: takes the packet; returns it if it is valid.
// Results: the packet, perhaps with another first buffer, its header in that. Null: invalid: it was freed.
struct mbuf *ip_packet_is_valid(struct mbuf *packet);

// Is this an MPLS echo request (RFC 8029): UDP to port 3503 of an address in 127/8?
//   packet  in and out: the packet, whose first buffer may be replaced; null after a failure that freed it
// Results: 1 yes; 0 no, null, or the packet was too short.
uint32_t ip_is_mpls_oam_echo_request_packet(struct mbuf **packet);

// ---------------------------------------------------------------------------------------------------------- checksums

// The Internet checksum (RFC 1071): the ones' complement of the ones' complement sum of the 16-bit words as they lie in
// memory, an odd last byte counting as if a zero followed. Store it as it is. Over bytes that carry their checksum it
// is 0; over none it is 0xffff.

// The checksum of bytes that lie together.
//   buffer  of any alignment; not read when length is 0
uint16_t ip_checksum(const void *buffer, uint32_t length);

// The UDP checksum, over data and pseudo-header, in network order. 0 is not replaced by 0xffff: that is the caller's.
//   payload   the UDP header, its checksum 0, and its data
//   length    bytes of it
//   src, dst  the addresses as they lie in the IP header: 4 bytes each, 16 bytes for IPv6
//   is_ipv4   0: IPv6
uint16_t udp_checksum(const void *payload, uint32_t length, const void *src, const void *dst, uint32_t is_ipv4);

// The same sum over a part of a packet, whose buffers may be of any length and alignment.
//   chain   null: no bytes
//   offset  where the part begins; below 0 counts as 0
//   length  bytes, as far as there are so many; below 0 counts as 0
// Debug lines: dbg_in_cksum: the call, a dump of the packet, and when it is shorter than the part.
uint16_t in_cksum(struct mbuf *chain, int32_t offset, int32_t length);

// ----------------------------------------------------------------------------------------------- authentication header

// The authentication header (RFC 4302) with a check value of 16 bytes: 28 bytes, in front of the data that it protects
// and in one buffer with it. The check value is an HMAC over the header, the check value itself being zero there, and
// the data.
//   hdr       28 bytes, data_len bytes behind them
//   next_hdr  the IP protocol of the data
//   spi, seq  host order
//   key       16 bytes for MD5; a text, up to its NUL, for SHA
//   use_md5   0: HMAC-SHA; else HMAC-MD5. Of either the first 16 bytes
void ip_build_ah_header(void *hdr, uint8_t next_hdr, uint32_t spi, uint32_t seq, uint32_t data_len, const void *key,
                        uint32_t use_md5);

// Compares the check value, and leaves zeros in its place, whatever comes out. Arguments as above. Nothing else of the
// header is looked at, nor whether the sequence number was seen before. Results: 1 equal; 0 not.
uint32_t ip_verify_ah_header(void *hdr, uint32_t data_len, const void *key, uint32_t use_md5);

// -------------------------------------------------------------------------------------------------- names of protocols

// The keyword of an IP protocol number, proto: 89 is "ospf". Threads: any. Results: static text; "unknown" above 134.
const char *ip_get_proto_name(uint8_t proto);

// The IP protocol number of a keyword, name, in any letter case; its first 16 characters count. A number as text is no
// keyword. Threads: any. Results: 0 .. 134; 255: no such keyword.
uint32_t ip_get_proto_num(const char *name);

// -------------------------------------------------------------------------------------------------------------- dumps

// Copies a packet's first bytes.
//   buffer  room for length bytes
// Results: length. 0: null, a length below 1, or a packet that is shorter (logged as IP_NO_MBUF): the buffer's contents
//   are undefined then.
uint32_t ip_copy_packet_to_buffer(struct mbuf *packet, void *buffer, int32_t length);

// Shows bytes in hexadecimal, 16 per line, as debug lines: those of a packet, of a buffer, and of a buffer into the
// event history too. A length below 1 shows nothing, nor does a packet that is shorter.
//   title    stands in the first line, without a '%'
//   scratch  room for length bytes, written
//   level    of the debug lines and events; the first two show theirs at the library's own level
// Threads: any, but the texts of two that dump at once may mix. Blocks: as buginf (log.h).
void ip_dump_packet(struct mbuf *packet, int32_t length, const char *title, void *scratch);
void ip_dump_buffer(const void *buffer, const char *title, int32_t length);
void ip_dump_buffer_buginf(const void *buffer, const char *title, int32_t length, uint32_t level);

// Writes one line to a command's output: an interface's primary address and subnet, or whom it borrows an address from,
// or that it has none.
//   out, arg  as cli_new_printf takes them; arg follows the line and is not printed
// Threads: the one that runs the command. Blocks: as cli_new_printf.
void ip_print_addr_summary(uint32_t iod, void *out, void *arg);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
