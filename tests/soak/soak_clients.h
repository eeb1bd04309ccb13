// SPDX-License-Identifier: Apache-2.0
// The clients of a soak: started, watched, killed and stopped at random points of what they do.
#ifndef TESTS_SOAK_SOAK_CLIENTS_H
#define TESTS_SOAK_SOAK_CLIENTS_H

#include <array>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "soak_record.h"
#include "support/process.h"

namespace soak {

// The longest that an operation may take, however busy the machine is.
inline constexpr auto operation_deadline = std::chrono::seconds(60);

class Clients {
 public:
  // The programs, one for each width.
  Clients(Record &record, std::vector<std::string> programs, std::string directory);
  ~Clients();
  Clients(const Clients &) = delete;
  Clients &operator=(const Clients &) = delete;

  [[nodiscard]] soak_board &board() { return *board_; }
  // Fills every seat that is due, counts, and looks whether anybody hangs, crashed or was answered wrong.
  void tend(std::mt19937 &random);
  // Picks one, waits a little until it is in the middle of something that is picked too, and kills it.
  void kill_one(std::mt19937 &random);
  // Stops one for a while; at the end of that, tend() lets it go on or kills it.
  void stop_one(std::mt19937 &random);
  // Nobody is stopped any more.
  void resume_all();
  // Each client that receives has received some packets since mark().
  void mark();
  [[nodiscard]] bool all_received_since_mark() const;
  // All end by themselves.
  void end_all();

 private:
  struct Client {
    test_support::Process process;
    bool is_there = false;
    std::optional<Clock::time_point> stopped_until;
    Clock::time_point due, going_since;
    std::array<uint32_t, kinds> done{}, refused{};
    uint32_t by_reference = 0, by_segments = 0;
    uint64_t received = 0, marked = 0;
    bool told_wrong = false, told_hanging = false;
  };
  void start(size_t number, std::mt19937 &random);
  void count(size_t number);
  void look_after(size_t number, std::mt19937 &random);
  void gone(size_t number, const std::string &how);
  void kill(size_t number, std::mt19937 &random);
  [[nodiscard]] size_t in_hand(size_t number) const;
  void look_for(size_t number, size_t kind, Clock::duration most) const;
  [[nodiscard]] std::string named(size_t number) const;

  Record &record_;
  std::vector<std::string> programs_;
  std::string board_file_;
  soak_board *board_ = nullptr;
  std::vector<Client> clients_;
};

}  // namespace soak

#endif
