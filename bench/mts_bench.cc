// SPDX-License-Identifier: Apache-2.0
// What a message costs, beside the system call under it and beside other ways to ask another process.
//
// "send": processor time of the sender for one message, MTS beside one sendmsg(2) of the same bytes (MTS's header
// included) on a connected SOCK_SEQPACKET pair. "drained" is a receiver that takes everything between two batches, so
// that nobody sleeps; "reader" is a receiver of its own process that sleeps whenever there is nothing, and whom the
// sender then wakes.
//
// "round_trip": elapsed time of a request and its answer, both of the same size, with another process.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <mqueue.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mts.h"
#include "mts/mts_server.h"
#include "mts_bench_dbus.h"
#include "ratios.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using test_support::Process;

constexpr uint32_t local_node = 0xFE000000;
constexpr uint32_t no_queue = ~0u;
constexpr uint32_t header_bytes = 32;  // what MTS puts in front of a payload
constexpr uint32_t opcode = 1;
constexpr uint32_t drained_sap = 300, reader_sap = 301, echo_sap = 302;
constexpr int send_buffer_bytes = 212992;  // MTS's

[[noreturn]] void stop(const std::string &reason) {
  fprintf(stderr, "mts_bench: %s\n", reason.c_str());
  exit(1);
}

std::vector<uint8_t> bytes_of(size_t size) {
  return std::vector<uint8_t>(size, 0x5a);
}

// Each in a process of its own, killed at the end of the run.
std::vector<Process> &peers() {
  static std::vector<Process> all;
  return all;
}

uint32_t bound(int32_t sap) {
  mts_bind_opts opts{1, sap == -1 ? 0u : 1u, 1024, 267, 0, 15};
  const uint32_t queue = mts_bind(1, sap, &opts, "mts_bench");
  if (queue == no_queue || mts_recv_q_unblock(queue) != 0) stop("a SAP cannot be bound");
  return queue;
}

uint32_t client_queue() {
  static const uint32_t queue = bound(-1);
  return queue;
}

bool mts_send_to(uint32_t sap, std::vector<uint8_t> &payload) {
  static mts_send_opts opts{{1}};
  return mts_send(client_queue(), local_node, sap, opcode, payload.data(), static_cast<uint32_t>(payload.size()),
                  nullptr, 0, &opts) == 0;
}

// Whoever a peer process serves is asked until it is there.
void wait_for_sap(uint32_t sap) {
  std::vector<uint8_t> hello(1);
  if (!test_support::wait_until([&] { return mts_send_to(sap, hello); })) stop("a peer does not start");
}

// --------------------------------------------------------------------------------------------------------------- send

double thread_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Batches of what fits into a socket's buffer at any rate.
template <class Send, class Drain>
void send_batches(benchmark::State &state, uint32_t size, const Send &send, const Drain &drain) {
  const int64_t batch = std::clamp<int64_t>(200000 / (2 * size + 1024), 1, 64);
  while (state.KeepRunningBatch(batch)) {
    const double begin = thread_seconds();
    bool sent = true;
    for (int64_t i = 0; i < batch; ++i) sent = send() && sent;
    state.SetIterationTime(thread_seconds() - begin);
    if (!sent) stop("a message is not sent");
    drain(batch);
  }
}

void send_mts_drained(benchmark::State &state, uint32_t size) {
  static const uint32_t receiver = bound(drained_sap);
  std::vector<uint8_t> payload = bytes_of(size);
  send_batches(
      state, size, [&] { return mts_send_to(drained_sap, payload); },
      [](int64_t batch) {
        mts_msg_ref_t msg = nullptr;
        for (; batch > 0; --batch) {
          if (mts_recv_now(receiver, &msg) != 0 || mts_drop(receiver, msg) != 0) stop("a message is lost");
        }
      });
}

struct Pair {
  Pair() {
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) stop("no socket pair");
    for (const int end : ends) setsockopt(end, SOL_SOCKET, SO_SNDBUF, &send_buffer_bytes, sizeof send_buffer_bytes);
  }
  int ends[2];
};

bool bare_send(int socket, std::vector<uint8_t> &bytes, int flags) {
  iovec part{bytes.data(), bytes.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  return sendmsg(socket, &message, flags | MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

ssize_t bare_receive(int socket, std::vector<uint8_t> &room) {
  iovec part{room.data(), room.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  return recvmsg(socket, &message, 0);
}

void send_bare_drained(benchmark::State &state, uint32_t size) {
  static const Pair pair;
  std::vector<uint8_t> bytes = bytes_of(header_bytes + size);
  std::vector<uint8_t> room(bytes.size());
  send_batches(
      state, size, [&] { return bare_send(pair.ends[0], bytes, MSG_DONTWAIT); },
      [&](int64_t batch) {
        for (; batch > 0; --batch) {
          if (bare_receive(pair.ends[1], room) < 0) stop("a message is lost");
        }
      });
}

template <class Send>
void send_to_reader(benchmark::State &state, const Send &send) {
  while (state.KeepRunningBatch(64)) {
    const double begin = thread_seconds();
    for (int i = 0; i < 64; ++i) {
      if (!send()) stop("a message is not sent");
    }
    state.SetIterationTime(thread_seconds() - begin);
  }
}

void send_mts_reader(benchmark::State &state, uint32_t size) {
  std::vector<uint8_t> payload = bytes_of(size);
  send_to_reader(state, [&] { return mts_send_to(reader_sap, payload); });
}

const Pair &reader_pair() {
  static const Pair pair;
  return pair;
}

void send_bare_reader(benchmark::State &state, uint32_t size) {
  std::vector<uint8_t> bytes = bytes_of(header_bytes + size);
  send_to_reader(state, [&] { return bare_send(reader_pair().ends[0], bytes, 0); });
}

int take_all_mts() {
  const uint32_t queue = bound(reader_sap);
  mts_recv_opts opts{{1}};
  mts_msg_ref_t msg = nullptr;
  while (true) {
    if (mts_recv(queue, &msg, &opts) == 0) mts_drop(queue, msg);
  }
}

int take_all_bare() {
  std::vector<uint8_t> room(1 << 17);
  while (bare_receive(reader_pair().ends[1], room) > 0) {
  }
  return 0;
}

// -------------------------------------------------------------------------------------------------------- round trips

int echo_mts() {
  const uint32_t queue = bound(echo_sap);
  mts_recv_opts opts{{1}};
  mts_msg_ref_t msg = nullptr;
  while (true) {
    if (mts_recv(queue, &msg, &opts) != 0) continue;
    if (rsw::mts_is_request(msg)) rsw::mts_reply(queue, msg, opcode, mts_payload_get(msg), mts_payload_size(msg));
    mts_drop(queue, msg);
  }
}

void round_trip_mts(benchmark::State &state, uint32_t size) {
  std::vector<uint8_t> payload = bytes_of(size);
  mts_recv_opts opts{{1}};
  for (auto _ : state) {
    mts_msg_ref_t sent = nullptr;
    mts_msg_ref_t answer = nullptr;
    if (mts_send(client_queue(), local_node, echo_sap, opcode, payload.data(), size, &sent, 0, nullptr) != 0) {
      stop("a request is not sent");
    }
    opts.w[3] = mts_rr_token_get(sent);
    if (mts_recv(client_queue(), &answer, &opts) != 0 || mts_payload_size(answer) != size) stop("no answer");
    mts_drop(client_queue(), answer);
    mts_drop(client_queue(), sent);
  }
}

const Pair &echo_pair() {
  static const Pair pair;
  return pair;
}

int echo_bare() {
  std::vector<uint8_t> room(1 << 17);
  for (ssize_t size = 0; (size = bare_receive(echo_pair().ends[1], room)) > 0;) {
    iovec part{room.data(), static_cast<size_t>(size)};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (sendmsg(echo_pair().ends[1], &message, MSG_NOSIGNAL) != size) return 1;
  }
  return 0;
}

void round_trip_bare(benchmark::State &state, uint32_t size) {
  std::vector<uint8_t> bytes = bytes_of(header_bytes + size);
  std::vector<uint8_t> room(bytes.size());
  for (auto _ : state) {
    if (!bare_send(echo_pair().ends[0], bytes, 0)) stop("a request is not sent");
    if (bare_receive(echo_pair().ends[0], room) != static_cast<ssize_t>(bytes.size())) stop("no answer");
  }
}

// A queue each way, of the size that the system allows without asking.
struct Mq {
  static constexpr long largest = 8192;
  Mq() {
    for (mqd_t &queue : queues) {
      const std::string name = "/mts_bench." + std::to_string(getpid()) + "." + std::to_string(&queue - queues);
      mq_attr attributes{};
      attributes.mq_maxmsg = 10;
      attributes.mq_msgsize = largest;
      queue = mq_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600, &attributes);
      if (queue < 0) stop("no POSIX message queue");
      mq_unlink(name.c_str());
    }
  }
  mqd_t queues[2];
};

const Mq &echo_mq() {
  static const Mq queues;
  return queues;
}

int echo_mqueue() {
  std::vector<char> room(Mq::largest);
  while (true) {
    const ssize_t size = mq_receive(echo_mq().queues[0], room.data(), room.size(), nullptr);
    if (size < 0 || mq_send(echo_mq().queues[1], room.data(), static_cast<size_t>(size), 0) != 0) return 1;
  }
}

void round_trip_mqueue(benchmark::State &state, uint32_t size) {
  const std::vector<char> bytes(header_bytes + size, 'Z');
  std::vector<char> room(Mq::largest);
  for (auto _ : state) {
    if (mq_send(echo_mq().queues[0], bytes.data(), bytes.size(), 0) != 0) stop("a request is not sent");
    if (mq_receive(echo_mq().queues[1], room.data(), room.size(), nullptr) != static_cast<ssize_t>(bytes.size())) {
      stop("no answer");
    }
  }
}

void round_trip_dbus(benchmark::State &state, DBusConnection *connection, uint32_t size) {
  const std::vector<uint8_t> bytes = bytes_of(size);
  for (auto _ : state) {
    if (!dbus_peer::call(connection, bytes.data(), size)) stop("no answer over D-Bus");
  }
}

// ---------------------------------------------------------------------------------------------------------- the whole

std::string sized(uint32_t size) {
  std::string end = "/";
  return end += std::to_string(size);
}

void add_all(const std::map<std::string, DBusConnection *> &buses) {
  for (const uint32_t size : {232u, 4096u, 65536u, 120832u}) {
    const std::string end = sized(size);
    bench::add("send_drained/mts" + end, bench::Time::processor,
               [size](auto &state) { send_mts_drained(state, size); });
    bench::add("send_drained/sendmsg" + end, bench::Time::processor,
               [size](auto &state) { send_bare_drained(state, size); });
  }
  bench::add("send_reader/mts/232", bench::Time::processor, [](auto &state) { send_mts_reader(state, 232); });
  bench::add("send_reader/sendmsg/232", bench::Time::processor, [](auto &state) { send_bare_reader(state, 232); });
  for (const uint32_t size : {232u, 4096u}) {
    const std::string end = sized(size);
    bench::add("round_trip/mts" + end, bench::Time::elapsed, [size](auto &state) { round_trip_mts(state, size); });
    bench::add("round_trip/seqpacket" + end, bench::Time::elapsed,
               [size](auto &state) { round_trip_bare(state, size); });
    bench::add("round_trip/posix_mq" + end, bench::Time::elapsed,
               [size](auto &state) { round_trip_mqueue(state, size); });
    for (const auto &[name, connection] : buses) {
      DBusConnection *kept = connection;
      bench::add("round_trip/" + name + end, bench::Time::elapsed,
                 [size, kept](auto &state) { round_trip_dbus(state, kept, size); });
    }
  }
}

std::map<std::string, DBusConnection *> start_dbus(const std::string &directory) {
  const std::string direct = "unix:path=" + directory + "/direct";
  const std::string bus = "unix:path=" + directory + "/bus";
  const std::string configuration = directory + "/bus.conf";
  std::ofstream(configuration) << dbus_peer::bus_configuration(bus);
  peers().emplace_back([direct] { return dbus_peer::serve_direct(direct); });
  peers().emplace_back(
      std::vector<std::string>{"dbus-daemon", "--config-file=" + configuration, "--nofork", "--nopidfile"});
  peers().emplace_back([bus] { return dbus_peer::serve_on_bus(bus); });
  std::map<std::string, DBusConnection *> opened = {{"dbus", nullptr}, {"dbus_daemon", nullptr}};
  const uint8_t byte = 0;
  if (!test_support::wait_until([&] { return (opened["dbus"] = dbus_peer::connect_direct(direct)) != nullptr; }) ||
      !test_support::wait_until([&] { return (opened["dbus_daemon"] = dbus_peer::connect_to_bus(bus)) != nullptr; }) ||
      !test_support::wait_until([&] { return dbus_peer::call(opened["dbus_daemon"], &byte, 1); })) {
    stop("D-Bus does not start");
  }
  return opened;
}

}  // namespace

int main(int argc, char **argv) {
  const test_support::RunDirectory directory;
  // What a peer and this program share is made before the peer is.
  reader_pair();
  echo_pair();
  echo_mq();
  for (int (*body)() : {take_all_mts, take_all_bare, echo_mts, echo_bare, echo_mqueue}) peers().emplace_back(body);
  const std::map<std::string, DBusConnection *> buses = start_dbus(directory.path());
  wait_for_sap(reader_sap);
  wait_for_sap(echo_sap);
  add_all(buses);
  bench::Ratios ratios("send", {"mts"}, {"sendmsg", "seqpacket", "posix_mq", "dbus", "dbus_daemon"});
  bench::run_interleaved(argc, argv, ratios);
  peers().clear();
  return 0;
}
