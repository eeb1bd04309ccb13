// SPDX-License-Identifier: Apache-2.0
// Who is told of interfaces: downloads by SAP and cookie, begun, replaced and ended by messages, ended too when their
// process dies or their queue is there no more.
#ifndef IPD_CONTROL_DOWNLOADS_H
#define IPD_CONTROL_DOWNLOADS_H

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "ipd/control/box.h"
#include "ipd/control/download.h"
#include "ipd/control/handler.h"
#include "ipd/control/interface_entries.h"
#include "ipd/control/transport.h"

namespace ipd::control {

class Downloads final : public Handler {
 public:
  // Makes a notification's bytes. Nothing: there is no memory for it now.
  using Encode = std::function<std::optional<std::vector<std::byte>>(std::span<const ip_if_info_msg_entry> entries)>;

  static constexpr size_t most_of_a_process = 64;
  static constexpr size_t most_of_all = 4096;

  Downloads(const Box &box, Transport &transport, Encode encode)
      : transport_(transport), encode_(std::move(encode)), interfaces_(box) {}

  Refusal handle(const Request &request) override;
  void process_gone(int32_t pid) override;
  void add_holdings(int32_t pid, Holdings &held) const override;
  void queue_gone(const Sender &sender) override;
  void interfaces_changed(const std::set<uint32_t> &ifindexes) override;
  void tick(Clock::time_point now) override;

  [[nodiscard]] size_t count() const { return receivers_.size(); }

 private:
  using Key = std::pair<uint32_t, uint32_t>;  // SAP, cookie
  struct Receiver {
    Sender asked_by;
    Download download;
    Clock::duration pause{};  // before the next try; 0: the last one was good
    Clock::time_point next_try{};
  };
  using Receivers = std::map<Key, Receiver>;
  enum class Outcome : uint8_t { done, later, over };

  Refusal begin(Key key, const Sender &sender, bool follow);
  Outcome tell(Receiver &receiver, size_t &budget);
  void tell_all();
  template <class Predicate>
  void end_if(Predicate predicate);
  void tidy();

  Transport &transport_;
  Encode encode_;
  InterfaceEntries interfaces_;
  Receivers receivers_;
  Key served_{};  // the last one: tell_all() goes round from there
  Clock::time_point now_{};
};

}  // namespace ipd::control

#endif
