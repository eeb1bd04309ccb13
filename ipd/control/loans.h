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

 private:
  struct Loan {
    int32_t pid = 0;  // of whoever asked last
    std::string lender;
  };
  Refusal set(const Request &request);
  Refusal unset(const Request &request);
  Refusal clean_up(const Request &request);
  void tell();

  Box &box_;
  std::map<uint32_t, Loan> loans_;  // by the borrower's iod
  std::vector<UnnumberedRule> told_;
};

}  // namespace ipd::control

#endif
