// SPDX-License-Identifier: Apache-2.0
#include "soak_clients.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "support/run_directory.h"

namespace soak {
namespace {

using test_support::Process;
using test_support::wait_until;

uint32_t load(uint32_t &plain) {
  return std::atomic_ref(plain).load(std::memory_order_relaxed);  // as all words of the board: it stands for itself
}

void store(uint32_t &plain, uint32_t value) {
  std::atomic_ref(plain).store(value, std::memory_order_relaxed);
}

const char *role_name(size_t number) {
  static constexpr const char *names[] = {"asks", "sends", "receives", "requests"};
  static_assert(std::size(names) == SOAK_ROLES);
  return names[number];
}

// Two seats for each role and program, so that packets are received by reference and by segments in each width.
size_t role_of(size_t seat) {
  return seat / 2 % SOAK_ROLES;
}

size_t program_of(size_t seat, size_t programs) {
  return seat / (size_t{2} * SOAK_ROLES) % programs;
}

uint32_t milliseconds_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint32_t>(now.tv_sec) * 1000u + static_cast<uint32_t>(now.tv_nsec / 1000000);
}

// For the log of what hangs.
std::string place_of(pid_t pid) {
  std::string text;
  for (const char *file : {"wchan", "syscall", "stack"}) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/" + file);
    std::ostringstream content;
    content << in.rdbuf();
    text += std::string(" ") + file + ": " + content.str();
  }
  return text;
}

}  // namespace

Clients::Clients(Record &record, std::vector<std::string> programs, std::string directory)
    : record_(record), programs_(std::move(programs)), board_file_(std::move(directory) + "/soak.board") {
  const int fd = open(board_file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ftruncate(fd, sizeof *board_) != 0) throw std::runtime_error(board_file_);
  void *mapped = mmap(nullptr, sizeof *board_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (mapped == MAP_FAILED) throw std::runtime_error(board_file_);
  board_ = static_cast<soak_board *>(mapped);
  clients_.resize(programs_.size() * 2 * SOAK_ROLES);
  if (clients_.size() > SOAK_SEATS) throw std::runtime_error("more clients than seats");
}

Clients::~Clients() {
  clients_.clear();
  munmap(board_, sizeof *board_);
}

size_t Clients::in_hand(size_t number) const {
  const uint32_t word = load(board_->seats[number].in_hand);
  return word == 0 || word > kinds ? between : word - 1;
}

std::string Clients::named(size_t number) const {
  return "client " + std::to_string(number) + ", which " + role_name(role_of(number)) + ", " +
         programs_[program_of(number, programs_.size())] + ": ";
}

void Clients::start(size_t number, std::mt19937 &random) {
  Client &client = clients_[number];
  store(board_->seats[number].in_hand, 0);
  client.process = Process({programs_[program_of(number, programs_.size())], board_file_, std::to_string(number),
                            std::to_string(role_of(number)), std::to_string(random())});
  client.is_there = true;
  client.stopped_until.reset();
  client.going_since = Clock::now();
  ++record_.clients_started;
}

void Clients::count(size_t number) {
  Client &client = clients_[number];
  soak_seat &seat = board_->seats[number];
  for (size_t kind = 0; kind < kinds; ++kind) {
    const uint32_t done = load(seat.done[kind]);
    const uint32_t refused = load(seat.refused[kind]);
    record_.by_kind[kind].done += done - std::exchange(client.done[kind], done);
    record_.by_kind[kind].refused += refused - std::exchange(client.refused[kind], refused);
  }
  const uint32_t by_reference = load(seat.by_reference);
  const uint32_t by_segments = load(seat.by_segments);
  const uint32_t references = by_reference - std::exchange(client.by_reference, by_reference);
  const uint32_t segments = by_segments - std::exchange(client.by_segments, by_segments);
  record_.packets_by_reference += references;
  record_.packets_by_segments += segments;
  client.received += references + segments;
  if (load(seat.wrong) != 0 && !std::exchange(client.told_wrong, true)) {
    record_.anomaly(named(number) + std::string(seat.wrong_text, strnlen(seat.wrong_text, sizeof seat.wrong_text)));
  }
}

void Clients::gone(size_t number, const std::string &how) {
  Client &client = clients_[number];
  if (!how.empty()) record_.anomaly(named(number) + how + client.process.output());
  client.is_there = false;
  client.stopped_until.reset();
  client.due = Clock::now();
}

void Clients::look_after(size_t number, std::mt19937 &random) {
  Client &client = clients_[number];
  const auto now = Clock::now();
  if (!client.is_there) {
    if (now >= client.due) start(number, random);
    return;
  }
  if (!client.process.running()) {
    const int status = client.process.wait();
    return gone(number, "ended with " + std::to_string(status) + " in " + kind_name(in_hand(number)) + ": ");
  }
  if (client.stopped_until) {
    if (now < *client.stopped_until) return;
    if (random() % 3 == 0) return kill(number, random);
    client.process.signal(SIGCONT);
    client.stopped_until.reset();
    client.going_since = now;
    return;
  }
  soak_seat &seat = board_->seats[number];
  const auto since = std::chrono::milliseconds(milliseconds_now() - load(seat.began));
  const bool is_late = since > operation_deadline && now - client.going_since > operation_deadline;
  if (in_hand(number) != between && is_late && !std::exchange(client.told_hanging, true)) {
    record_.anomaly(named(number) + "hangs in " + kind_name(in_hand(number)) + place_of(client.process.pid()));
  }
}

void Clients::tend(std::mt19937 &random) {
  for (size_t number = 0; number < clients_.size(); ++number) {
    look_after(number, random);
    count(number);
  }
}

void Clients::kill(size_t number, std::mt19937 &random) {
  Client &client = clients_[number];
  client.process.kill_now();
  // It stays as the client left it.
  ++record_.by_kind[in_hand(number)].killed;
  gone(number, "");
  client.due += std::chrono::milliseconds(random() % 200);
}

// Without a pause: many operations are over after some microseconds.
void Clients::look_for(size_t number, size_t kind, Clock::duration most) const {
  const auto end = Clock::now() + most;
  while (in_hand(number) != kind && Clock::now() < end) {
  }
}

void Clients::kill_one(std::mt19937 &random) {
  static constexpr std::array<std::array<size_t, 5>, SOAK_ROLES> aims{{
      {SOAK_QUERY, SOAK_WALK, SOAK_THREAD, SOAK_ATTACH, between},
      {SOAK_SEND_REFERENCE, SOAK_SEND_REFERENCE, SOAK_SEND_SEGMENTS, SOAK_HAND_IN, SOAK_REGISTER},
      {SOAK_RECEIVE, SOAK_REGISTER, SOAK_JOIN, SOAK_ATTACH, between},
      {SOAK_REGISTER, SOAK_CONFIGURE, SOAK_STATISTICS, SOAK_DOWNLOAD, SOAK_JOIN},
  }};
  const size_t number = random() % clients_.size();
  Client &client = clients_[number];
  if (!client.is_there || client.stopped_until || !client.process.running()) return;
  const size_t aim = aims[role_of(number)][random() % 5];
  look_for(number, aim, std::chrono::milliseconds(20));
  client.process.signal(SIGKILL);
  kill(number, random);
}

void Clients::stop_one(std::mt19937 &random) {
  const size_t number = random() % clients_.size();
  Client &client = clients_[number];
  if (!client.is_there || client.stopped_until) return;
  if (random() % 2 == 0) look_for(number, SOAK_QUERY, std::chrono::milliseconds(2));
  client.process.signal(SIGSTOP);
  ++record_.by_kind[in_hand(number)].stopped;
  client.stopped_until = Clock::now() + std::chrono::milliseconds(50 + random() % 1500);
}

void Clients::resume_all() {
  for (Client &client : clients_) {
    client.due = Clock::now();
    if (!client.is_there || !client.stopped_until) continue;
    client.process.signal(SIGCONT);
    client.stopped_until.reset();
    client.going_since = Clock::now();
  }
}

void Clients::mark() {
  for (Client &client : clients_) client.marked = client.received;
}

bool Clients::all_received_since_mark() const {
  bool all = true;
  for (size_t number = 0; number < clients_.size(); ++number) {
    const Client &client = clients_[number];
    all = all && (role_of(number) != SOAK_RECEIVES || client.received >= client.marked + 3);
  }
  return all;
}

void Clients::end_all() {
  store(board_->stop, 1);
  for (size_t number = 0; number < clients_.size(); ++number) {
    Client &client = clients_[number];
    if (!client.is_there) continue;
    const int status = client.process.wait(operation_deadline);
    count(number);
    if (status == 0) {
      gone(number, "");
    } else if (status < 0) {
      const std::string place = place_of(client.process.pid());
      client.process.kill_now();
      gone(number, std::string("does not end, in ") + kind_name(in_hand(number)) + place);
    } else {
      gone(number, "ends with " + std::to_string(status) + ": ");
    }
  }
  store(board_->stop, 0);
}

}  // namespace soak
