// SPDX-License-Identifier: Apache-2.0
// What it costs a client to hand a packet over, beside the system calls by which a process sends a packet on its own:
// processor time of the sender for one packet, of which the receiver takes everything between two batches.
//
// "reference" and "segments" are ip_cl_output in its two ways, the packet taken from the pool and filled for each send,
// as a client does it; "sendmsg" is one bare message of as many bytes on a connected SOCK_SEQPACKET pair; "raw_socket"
// is a sendto of the packet on a raw socket that has the header included, "af_packet" one of the frame on a packet
// socket, both on a loopback interface of its own.
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "ip_api.h"
#include "mbuf/buffers.h"
#include "mbuf/pool.h"
#include "mbuf/references.h"
#include "mts/mts_server.h"
#include "ratios.h"
#include "support/network_namespace.h"
#include "support/run_directory.h"
#include "sysmgr/sysmgr_writer.h"

namespace {

constexpr uint32_t mts_header = 32;
constexpr uint8_t protocol = 253;  // for experiments: RFC 3692
constexpr int batch = 16;

[[noreturn]] void stop(const std::string &reason) {
  fprintf(stderr, "packet_bench: %s\n", reason.c_str());
  exit(1);
}

double thread_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

template <class Send, class Drain>
void send_batches(benchmark::State &state, const Send &send, const Drain &drain) {
  while (state.KeepRunningBatch(batch)) {
    const double begin = thread_seconds();
    bool sent = true;
    for (int i = 0; i < batch; ++i) sent = send() && sent;
    state.SetIterationTime(thread_seconds() - begin);
    if (!sent) stop("a packet is not sent");
    for (int i = 0; i < batch; ++i) drain();
  }
}

std::vector<uint8_t> packet_of(uint32_t size) {
  std::vector<uint8_t> packet(size, 0x5a);
  const uint8_t header[20] = {0x45, 0, 0, 0, 0, 0, 0, 0, 1, protocol, 0, 0, 127, 0, 0, 1, 127, 0, 0, 1};
  memcpy(packet.data(), header, sizeof header);
  packet[2] = static_cast<uint8_t>(size >> 8);
  packet[3] = static_cast<uint8_t>(size);
  return packet;
}

struct Queues {
  Queues() {
    if (ip_init_mts(&server, IP_SAP_PACKET) == 0 || ip_init_mts(&client.data_q, -1) == 0) stop("no queue");
  }
  uint32_t server = 0;
  struct ip_client client {};
};

// What the IP process does with it, as far as the pool is concerned.
void take(uint32_t server) {
  mts_msg_ref_t msg = nullptr;
  if (mts_recv_now(server, &msg) != 0) stop("a message is lost");
  uint32_t reference = 0;
  memcpy(&reference, static_cast<const char *>(mts_payload_get(msg)) + offsetof(ip_msg_output, packet_ref),
         sizeof reference);
  if (reference != 0 && rsw::free_packet_of(reference, getpid()) == 0) stop("a packet is lost");
  mts_drop(server, msg);
}

void send_ours(benchmark::State &state, uint32_t size, bool by_segments) {
  static Queues queues;
  const std::vector<uint8_t> bytes = packet_of(size);
  ip_client.flags = by_segments ? IP_CLIENT_RECV_MTS : 0;
  send_batches(
      state,
      [&] {
        struct mbuf *packet = rsw::make_packet(bytes);
        return packet != nullptr && ip_cl_output(0, packet, 0, 0, 0, &queues.client) == 1;
      },
      [] { take(queues.server); });
}

void send_bare(benchmark::State &state, uint32_t size) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) stop("no socket pair");
  const int buffer = 212992;
  for (const int end : ends) setsockopt(end, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
  std::vector<uint8_t> bytes(mts_header + IP_MSG_SIZE + size, 0x5a);
  std::vector<uint8_t> room(bytes.size());
  send_batches(
      state,
      [&] {
        iovec part{bytes.data(), bytes.size()};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        return sendmsg(ends[0], &message, MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(bytes.size());
      },
      [&] {
        if (recv(ends[1], room.data(), room.size(), MSG_DONTWAIT) < 0) stop("a message is lost");
      });
  for (const int end : ends) close(end);
}

void send_raw(benchmark::State &state, uint32_t size) {
  const int socket_ = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_RAW);
  if (socket_ < 0) stop("no raw socket");
  const std::vector<uint8_t> bytes = packet_of(size);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  send_batches(
      state,
      [&] {
        return sendto(socket_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to) ==
               static_cast<ssize_t>(bytes.size());
      },
      [] {});
  close(socket_);
}

void send_frame(benchmark::State &state, uint32_t size) {
  const int socket_ = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (socket_ < 0) stop("no packet socket");
  const std::vector<uint8_t> bytes = packet_of(size);
  sockaddr_ll to{};
  to.sll_family = AF_PACKET;
  to.sll_protocol = htons(ETH_P_IP);
  to.sll_ifindex = static_cast<int>(if_nametoindex("lo"));
  to.sll_halen = 6;
  send_batches(
      state,
      [&] {
        return sendto(socket_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to) ==
               static_cast<ssize_t>(bytes.size());
      },
      [] {});
  close(socket_);
}

void bring_loopback_up() {
  const int socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP;
  if (ioctl(socket_, SIOCSIFFLAGS, &request) != 0) stop("no loopback interface");
  close(socket_);
}

}  // namespace

int main(int argc, char **argv) {
  std::string reason;
  if (!test_support::enter_network_namespace(&reason)) stop(reason);
  bring_loopback_up();
  const test_support::RunDirectory directory;
  if (!rsw::sysmgr_open_for_writing(&reason) || !rsw::mbuf_open_for_writing(&reason)) stop(reason);
  for (const uint32_t size : {64u, 1400u}) {
    std::string end = "/";
    end += std::to_string(size);
    const auto add = [&](const char *who, const std::function<void(benchmark::State &)> &body) {
      bench::add(std::string("hand_over/") + who + end, bench::Time::processor, body);
    };
    add("reference", [size](auto &state) { send_ours(state, size, false); });
    add("segments", [size](auto &state) { send_ours(state, size, true); });
    add("sendmsg", [size](auto &state) { send_bare(state, size); });
    add("raw_socket", [size](auto &state) { send_raw(state, size); });
    add("af_packet", [size](auto &state) { send_frame(state, size); });
  }
  bench::Ratios ratios("hand_over", {"reference", "segments"}, {"sendmsg", "raw_socket", "af_packet"});
  bench::run_interleaved(argc, argv, ratios);
  return 0;
}
