// SPDX-License-Identifier: Apache-2.0
// Registrations: who made itself known, under which name and key.
#ifndef IPD_CONTROL_CLIENTS_H
#define IPD_CONTROL_CLIENTS_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "ip_msg.h"
#include "ipd/control/handler.h"
#include "ipd/control/processes.h"
#include "ipd/control/transport.h"

namespace ipd::control {

struct Registration {
  uint32_t serial = 0;  // counts all that were ever accepted; each has its own
  int32_t pid = 0;
  uint32_t uid = 0;
  std::string name;  // may be empty
  uint8_t key = 0;
  uint32_t mode = 0;
  uint32_t arg1 = 0;
  uint32_t arg2 = 0;
  uint32_t data_sap = 0;  // 0: no queue for packets
  uint32_t flags = 0;     // IP_CLIENT_...
  std::string receive_function;
};

class Clients final : public Handler {
 public:
  static constexpr size_t most_per_process = 256;

  // A registration, and the message that made it; null: it is not there any more.
  using Watch = std::function<void(const Registration &registration, const Request *request)>;

  Clients(Transport &transport, Processes &processes) : transport_(transport), processes_(processes) {}

  // `changed` runs after each registration that was made or taken back. One that takes another one's place is told
  // before that goes.
  void on_change(Watch changed) { changed_ = std::move(changed); }

  Refusal handle(const Request &request) override;
  void refused(const Request &request, Refusal refusal) override;
  void process_gone(int32_t pid) override;
  void add_holdings(int32_t pid, Holdings &held) const override;

  [[nodiscard]] size_t size() const { return by_id_.size(); }
  // Those with a greater serial number, ascending, at most so many.
  [[nodiscard]] std::vector<Registration> after(uint32_t serial, size_t most) const;

 private:
  // A registration without a name is nobody else's business: it is known by its process too.
  using Id = std::tuple<std::string, uint8_t, int32_t>;

  static Id id_of(const Request &request, const std::string &name, uint8_t key);
  Refusal enter(const Request &request);
  Refusal remove(const Request &request);
  void count_down(int32_t pid);
  void erase(std::map<Id, Registration>::iterator place);
  int reply(const Request &request, bool accepted);

  Transport &transport_;
  Processes &processes_;
  std::map<Id, Registration> by_id_;
  std::map<int32_t, size_t> held_;  // by process; never 0
  uint32_t last_serial_ = 0;
  Watch changed_;
};

}  // namespace ipd::control

#endif
