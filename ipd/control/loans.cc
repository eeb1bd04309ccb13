// SPDX-License-Identifier: Apache-2.0
// A loan belongs to a borrower, which the client names by its iod, and to the process that asked for it last. It ends
// when that process is gone, when the borrower is, or when anybody who may configure says so; it rests while the lender
// is not there, and while the configuration says something about the same borrower.
//
// The box knows loans by names. A borrower that is renamed keeps its loan, so its name is looked up anew whenever an
// interface changed; the lender is the interface that has that name, whichever it is.
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
  loans_[asked.iod] = {.pid = request.sender.pid, .lender = lender};
  tell();
  return Refusal::none;
}

Refusal Loans::unset(const Request &request) {
  const uint32_t iod = request.as<ip_msg_unnumbered>().iod;
  if (!box_.interface(iod)) return Refusal::no_interface;
  loans_.erase(iod);
  tell();
  return Refusal::none;
}

// Interfaces that are gone are what a clean-up may well list.
Refusal Loans::clean_up(const Request &request) {
  const auto iods = listed_interfaces(request);
  if (!iods) return Refusal::bad_field;
  for (const uint32_t iod : *iods) loans_.erase(iod);
  tell();
  return Refusal::none;
}

void Loans::process_gone(int32_t pid) {
  std::erase_if(loans_, [pid](const auto &loan) { return loan.second.pid == pid; });
  tell();
}

void Loans::interfaces_changed(const std::set<uint32_t> & /*ifindexes*/) {
  if (!loans_.empty()) tell();
}

// What the box is told makes it call interfaces_changed(), which then finds nothing new to tell.
void Loans::tell() {
  std::vector<UnnumberedRule> rules;
  for (auto loan = loans_.begin(); loan != loans_.end();) {
    const auto borrower = box_.interface(loan->first);
    if (!borrower) {
      loan = loans_.erase(loan);
      continue;
    }
    rules.push_back({.interface = borrower->state.name, .source = loan->second.lender});
    ++loan;
  }
  if (rules == told_) return;
  told_ = rules;
  box_.lend(rules);
}

void Loans::add_holdings(int32_t pid, Holdings &held) const {
  const auto count = std::ranges::count_if(loans_, [pid](const auto &loan) { return loan.second.pid == pid; });
  held.loans += static_cast<uint32_t>(count);
}

}  // namespace ipd::control
