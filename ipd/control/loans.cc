// SPDX-License-Identifier: Apache-2.0
// A loan belongs to a borrower, which the client names by its iod, and to the process that asked for it last. It ends
// when that process is gone, when the borrower is, or when anybody who may configure says so; it rests while the lender
// is not there, and while the configuration says something about the same borrower.
//
// The box knows loans by names. A borrower that is renamed keeps its loan, so its name is looked up anew when it
// changed; the lender is the interface that has that name, whichever it is.
#include "ipd/control/loans.h"

#include <algorithm>
#include <cstring>

#include "ip_msg.h"
#include "ipd/control/interface_list.h"

namespace ipd::control {

Refusal Loans::handle(const Request &request) {
  switch (request.minor) {
    case IP_MSG_SET_UNNUMBERED:
      return set(request);
    case IP_MSG_UNSET_UNNUMBERED:
      return unset(request);
    case IP_MSG_UNNUMBERED_PSS_CLEANUP:
      return clean_up(request);
    default:
      return Refusal::unknown_minor;
  }
}

Refusal Loans::set(const Request &request) {
  const auto asked = request.as<ip_msg_unnumbered>();
  const size_t length = strnlen(asked.lender, sizeof asked.lender);
  if (length == 0 || length == sizeof asked.lender) return Refusal::bad_field;  // no interface has so long a name
  const auto borrower = box_.interface(asked.iod);
  if (!borrower) return Refusal::no_interface;
  const std::string lender(asked.lender, length);
  if (lender == borrower->state.name) return Refusal::bad_field;
  const Loan loan{.pid = request.sender.pid,
                  .ifindex = borrower->state.ifindex,
                  .borrower = borrower->state.name,
                  .lender = lender};
  const auto [known, is_new] = loans_.try_emplace(asked.iod, loan);
  if (!is_new && known->second.lender == lender) {
    known->second.pid = loan.pid;
    return Refusal::none;
  }
  known->second = loan;
  by_ifindex_[loan.ifindex] = asked.iod;
  changed();
  return Refusal::none;
}

Refusal Loans::unset(const Request &request) {
  const uint32_t iod = request.as<ip_msg_unnumbered>().iod;
  if (!box_.interface(iod)) return Refusal::no_interface;
  if (forget(iod)) changed();
  return Refusal::none;
}

// Interfaces that are gone are what a clean-up may well list.
Refusal Loans::clean_up(const Request &request) {
  const auto iods = listed_interfaces(request);
  if (!iods) return Refusal::bad_field;
  bool any = false;
  for (const uint32_t iod : *iods) any |= forget(iod);
  if (any) changed();
  return Refusal::none;
}

bool Loans::forget(uint32_t iod) {
  const auto loan = loans_.find(iod);
  if (loan == loans_.end()) return false;
  by_ifindex_.erase(loan->second.ifindex);
  loans_.erase(loan);
  return true;
}

void Loans::process_gone(int32_t pid) {
  std::vector<uint32_t> held;
  for (const auto &[iod, loan] : loans_) {
    if (loan.pid == pid) held.push_back(iod);
  }
  for (const uint32_t iod : held) forget(iod);
  if (!held.empty()) changed();
}

void Loans::interfaces_changed(const std::set<uint32_t> &ifindexes) {
  bool any = false;
  for (const uint32_t ifindex : ifindexes) {
    const auto known = by_ifindex_.find(ifindex);
    if (known == by_ifindex_.end()) continue;
    const uint32_t iod = known->second;
    const auto borrower = box_.interface(iod);
    Loan &loan = loans_.at(iod);
    if (borrower && borrower->state.name == loan.borrower) continue;
    any = true;
    if (borrower) {
      loan.borrower = borrower->state.name;
    } else {
      forget(iod);
    }
  }
  if (any) changed();
}

void Loans::tick(Clock::time_point /*now*/) {
  if (!told_) tell();
}

void Loans::changed() {
  told_ = false;
  if (loans_.size() <= few) tell();
}

// The box then calls interfaces_changed(), which finds nothing that is new here.
void Loans::tell() {
  told_ = true;
  std::vector<UnnumberedRule> rules;
  rules.reserve(loans_.size());
  for (const auto &[iod, loan] : loans_) rules.push_back({.interface = loan.borrower, .source = loan.lender});
  box_.lend(rules);
}

void Loans::add_holdings(int32_t pid, Holdings &held) const {
  const auto count = std::ranges::count_if(loans_, [pid](const auto &loan) { return loan.second.pid == pid; });
  held.loans += static_cast<uint32_t>(count);
}

}  // namespace ipd::control
