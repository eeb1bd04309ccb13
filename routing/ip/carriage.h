// SPDX-License-Identifier: Apache-2.0
// Carriage: how a packet travels with its message to the IP process, and who frees what afterwards.
//
// A call checks its arguments and fills its message; send_packet() does the rest, for all of them alike. What they do
// not have alike is the disposal of what they were given. That is a PacketCall: one row per call, to be read beside the
// table at the top of ip_packet.h. A packet that was sent by reference is the IP process's and never freed.
#ifndef IP_CARRIAGE_H
#define IP_CARRIAGE_H

#include <cstring>

#include "ip_api.h"
#include "mbuf.h"
#include "message.h"
#include "mts.h"
#include "report.h"

namespace libip {

// With what the vector of a packet's pieces, and the block for those beyond the limit, are released.
enum class Pieces {
  by_mtrack_free,  // the vector only if the conversion says that it allocated one
  by_free,         // whatever the conversion says
};

struct PacketCall {
  const char *name;                // in the line about pieces that found no memory
  bool frees_unconverted;          // the packet, when its pieces found no memory
  bool frees_sent;                 // after a good send by segments
  bool frees_unsent;               // after a bad send, however it was to travel
  bool message_from_heap = false;  // it is released after the send; without memory for the pieces it is lost
  Pieces pieces = Pieces::by_free;
  const char *shown_as = nullptr;        // in the lines about the send; null: there are none
  const uint32_t *shows_good = nullptr;  // the flag of "good send"; that of "bad send" is dbg_ip_api_misc
};

// One packet on its way.
class Carriage {
 public:
  // Chooses, by the process's own flags. False: no memory for the pieces; told, and the packet freed if the call does.
  [[nodiscard]] bool choose(const PacketCall &call, mbuf *packet);

  // What the message says of the packet: its address, or 0.
  [[nodiscard]] uint32_t reference() const;

  // Sends the finished message and disposes of everything. Results: 1 sent, 0 not.
  uint32_t send(const PacketCall &call, uint32_t queue, ip_msgtype *message);

 private:
  [[nodiscard]] bool by_segments() const { return vector_ != nullptr; }
  void release_pieces(Pieces how);

  mbuf *packet_ = nullptr;
  mts_send_opts options_ = send_options();
  mts_iovec *vector_ = nullptr;
  void *overflow_ = nullptr;
  uint32_t vector_allocated_ = 0;
};

// Completes a message that is filled but for what it says of its packet, and sends it.
//   packet  not null
//   Record  a packet message of ip_packet.h; they do not have these fields at the same places
template <class Record>
uint32_t send_packet(const PacketCall &call, uint32_t queue, mbuf *packet, Record &message) {
  message.packet_word = packet->hdr_word;
  Carriage carriage;
  if (!carriage.choose(call, packet)) return 0;
  message.packet_ref = carriage.reference();
  message.packet_len = static_cast<uint16_t>(m_length(packet));  // its low 16 bits
  message.packet_byte = packet->hdr_byte;
  return carriage.send(call, queue, as_message(message));
}

// Copies a layer-2 address into a message. Null: the zeros stay.
inline void copy_l2_address(uint8_t (&field)[6], const uint8_t *l2_addr) {
  if (l2_addr != nullptr) std::memcpy(field, l2_addr, sizeof field);
}

// The debug lines of what a call refuses: "ip_cl_output: bad packet".
inline void debug_refusal(const char *name, const char *reason) {
  if (dbg_ip_api_misc != 0) debug_line("%s: %s\n", name, reason);
}

// Where the console's warnings about memory place the packet calls: their lines in it are constants, known to those who
// read the warnings.
inline constexpr char packet_calls_file[] = "routing/ip/ip_api.cc";

}  // namespace libip

#endif
