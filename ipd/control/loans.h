// SPDX-License-Identifier: Apache-2.0
// IP_MSG_SET_UNNUMBERED, IP_MSG_UNSET_UNNUMBERED, IP_MSG_UNNUMBERED_PSS_CLEANUP: interfaces that borrow the address of
// another one because a client asked for it.
#ifndef IPD_CONTROL_LOANS_H
#define IPD_CONTROL_LOANS_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ipd/control/box.h"
#include "ipd/control/handler.h"

namespace ipd::control {

class Loans final : public Handler {
 public:
  explicit Loans(Box &box) : box_(box) {}

  Refusal handle(const Request &request) override;
  void process_gone(int32_t pid) override;
  void add_holdings(int32_t pid, Holdings &held) const override;
  void interfaces_changed(const std::set<uint32_t> &ifindexes) override;
  void tick(Clock::time_point now) override;

  // So many are told to the box at once; more wait for the next tick, so that a flood of requests costs one look at
  // all.
  static constexpr size_t few = 64;

 private:
  struct Loan {
    int32_t pid = 0;  // of whoever asked last
    uint32_t ifindex = 0;
    std::string borrower, lender;
  };
  Refusal set(const Request &request);
  Refusal unset(const Request &request);
  Refusal clean_up(const Request &request);
  bool forget(uint32_t iod);
  void changed();
  void tell();

  Box &box_;
  std::map<uint32_t, Loan> loans_;           // by the borrower's iod
  std::map<uint32_t, uint32_t> by_ifindex_;  // of loans_
  bool told_ = true;
};

}  // namespace ipd::control

#endif
