// SPDX-License-Identifier: Apache-2.0
// What follows the names of interfaces: virtual addresses, which the configuration gives, and loans of addresses, which
// the configuration gives or somebody asks for at run time.
#include "ipd/process/log.h"
#include "ipd/state/state.h"

namespace ipd {

void State::apply_vips() {
  std::set<std::pair<uint32_t, uint32_t>> want;
  for (const VipRule &rule : configuration_.vips) {
    if (const auto found = by_name_.find(rule.interface); found != by_name_.end()) {
      want.insert({found->second, rule.address});
    }
  }
  for (auto told = vips_.begin(); told != vips_.end();) {
    if (!want.contains(*told) && accepted(publisher_.remove_vip({.ifindex = told->first, .addr = told->second}),
                                          "take back virtual address", print_address(told->second))) {
      told = vips_.erase(told);
    } else {
      ++told;
    }
  }
  for (const auto &vip : want) {
    if (vips_.contains(vip)) continue;
    if (accepted(publisher_.set_vip({.ifindex = vip.first, .addr = vip.second}), "publish virtual address",
                 print_address(vip.second))) {
      vips_.insert(vip);
    }
  }
}

// The configuration's rules first: what it says about a borrower holds, also while the lender is not there.
std::map<uint32_t, State::Loan> State::wanted_loans() const {
  std::map<uint32_t, Loan> want;
  const auto add = [&](const UnnumberedRule &rule) {
    const auto borrower = by_name_.find(rule.interface);
    const auto source = by_name_.find(rule.source);
    if (borrower == by_name_.end() || source == by_name_.end()) return;
    want[borrower->second] = {.source_ifindex = source->second, .source_name = rule.source};
  };
  std::set<std::string> configured;
  for (const UnnumberedRule &rule : configuration_.unnumbered) {
    configured.insert(rule.interface);
    add(rule);
  }
  for (const UnnumberedRule &rule : asked_loans_) {
    if (!configured.contains(rule.interface) && rule.interface != rule.source) add(rule);
  }
  return want;
}

void State::note_loan(uint32_t borrower, const Loan &loan) {
  forget_loan(borrower);
  loans_[borrower] = loan;
  borrowers_[loan.source_ifindex].insert(borrower);
}

void State::forget_loan(uint32_t borrower) {
  const auto loan = loans_.find(borrower);
  if (loan == loans_.end()) return;
  const auto of_lender = borrowers_.find(loan->second.source_ifindex);
  of_lender->second.erase(borrower);
  if (of_lender->second.empty()) borrowers_.erase(of_lender);
  loans_.erase(loan);
}

void State::apply_unnumbered(std::set<uint32_t> &touched) {
  const std::map<uint32_t, Loan> want = wanted_loans();
  std::vector<uint32_t> unwanted;
  for (const auto &[borrower, loan] : loans_) {
    if (!want.contains(borrower)) unwanted.push_back(borrower);
  }
  for (const uint32_t borrower : unwanted) {
    if (!accepted(publisher_.set_unnumbered(borrower, 0, ""), "end the loan to", std::to_string(borrower))) continue;
    forget_loan(borrower);
    touched.insert(borrower);
  }
  for (const auto &[borrower, loan] : want) {
    const auto told = loans_.find(borrower);
    if (told != loans_.end() && told->second == loan) continue;
    if (accepted(publisher_.set_unnumbered(borrower, loan.source_ifindex, loan.source_name), "lend the address of",
                 loan.source_name)) {
      note_loan(borrower, loan);
      touched.insert(borrower);
    }
  }
}

void State::add_borrowers(std::set<uint32_t> &touched) const {
  if (borrowers_.empty()) return;
  std::set<uint32_t> borrowers;
  for (const uint32_t lender : touched) {
    const auto of_lender = borrowers_.find(lender);
    if (of_lender != borrowers_.end()) borrowers.insert(of_lender->second.begin(), of_lender->second.end());
  }
  touched.merge(borrowers);
}

void State::lend(std::vector<UnnumberedRule> loans) {
  if (loans == asked_loans_) return;
  asked_loans_ = std::move(loans);
  if (configured_anew_) return;  // the next update compares everything
  std::set<uint32_t> touched;
  apply_unnumbered(touched);
  if (!touched.empty()) commit(touched);
}

uint32_t State::lender(uint32_t ifindex) const {
  const auto loan = loans_.find(ifindex);
  return loan == loans_.end() ? 0 : loan->second.source_ifindex;
}

}  // namespace ipd
