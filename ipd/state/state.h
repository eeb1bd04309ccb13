// SPDX-License-Identifier: Apache-2.0
// Merges the kernel's picture with the configuration and tells the publisher what differs from what it was told before.
#ifndef IPD_STATE_STATE_H
#define IPD_STATE_STATE_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ipd/config.h"
#include "ipd/kernel/picture.h"
#include "ipd/publish/publisher.h"
#include "ipd/state/contexts.h"
#include "ipd/state/routes.h"

namespace ipd {

class State {
 public:
  State(Publisher &publisher, ContextIds &ids) : publisher_(publisher), ids_(ids) {}

  // Takes effect at the next update(), which then compares everything.
  void configure(Configuration configuration);
  // Called in each update() before its commit, with the interfaces that may have come, changed or gone: for those who
  // publish more about them.
  void before_commit(std::function<void(const std::set<uint32_t> &ifindexes)> call) {
    before_commit_ = std::move(call);
  }
  // Called after a commit with the interfaces that may look different to a reader now: that came, changed or went,
  // their addresses too, and those that borrow an address of one of them. Whoever is called may call lend().
  void after_commit(std::function<void(const std::set<uint32_t> &ifindexes)> call) { after_commit_ = std::move(call); }

  // Publishes what `changes` name and commits, once for the whole batch. False: the publisher refused something, now or
  // earlier (logged); it is tried again when everything is compared next, which retry_due() asks for.
  bool update(const kernel::Picture &picture, kernel::Changes changes);
  [[nodiscard]] bool retry_due() const { return refused_; }

  // Loans that were asked for at run time: all of them, each time. Published and committed at once, unless nothing was
  // published yet. Where the configuration has a rule for the same borrower, that holds.
  void lend(std::vector<UnnumberedRule> loans);

  // What is published, by ifindex. Null, 0, nothing: there is no such interface, or no loan.
  [[nodiscard]] const InterfaceState *interface(uint32_t ifindex) const;
  [[nodiscard]] std::vector<AddressState> addresses(uint32_t ifindex) const;  // as readers see them, the primary first
  // Of all interfaces of a context, with their iods.
  [[nodiscard]] std::vector<std::pair<uint32_t, AddressState>> addresses_of_context(uint32_t id) const;
  [[nodiscard]] uint32_t lender(uint32_t ifindex) const;
  [[nodiscard]] uint32_t ifindex_of(uint32_t iod) const;
  [[nodiscard]] std::vector<uint32_t> iods() const;  // ascending

  [[nodiscard]] bool has_context(uint32_t id) const { return contexts_.contains(id); }
  [[nodiscard]] uint32_t vrf_of_context(uint32_t id) const;  // ifindex of its VRF device; 0: it has none

  // What routes need to know of it; another number: it may have changed.
  [[nodiscard]] uint64_t surroundings_version() const { return surroundings_version_; }
  [[nodiscard]] RouteSurroundings surroundings() const;

 private:
  using AddressId = std::pair<uint32_t, uint8_t>;  // addr, mask_len
  struct ToldAddress {
    AddressState state;
    kernel::AddressPlace place;
  };
  struct Told {
    InterfaceState state;
    uint32_t iod = 0;
    uint64_t incarnation = 0;
    std::map<AddressId, ToldAddress> addresses;
  };
  struct Loan {
    uint32_t source_ifindex = 0;
    std::string source_name;
    bool operator==(const Loan &) const = default;
  };

  [[nodiscard]] bool watch_vrfs(const kernel::Picture &picture, const kernel::Changes &changes);
  [[nodiscard]] std::optional<InterfaceState> wanted(const kernel::Picture &picture, uint32_t ifindex) const;
  void plan_again();
  void remove_clashing_contexts();
  void set_contexts();
  void remove_stale_contexts();
  void remove_interface(uint32_t ifindex);
  void remove_gone(const kernel::Picture &picture, const std::set<uint32_t> &interfaces);
  void set_interface(const kernel::Picture &picture, uint32_t ifindex, bool compare_addresses);
  void compare_addresses(const kernel::InterfaceAddresses *addresses, uint32_t ifindex, Told &told);
  void change_addresses(const kernel::Picture &picture, uint32_t ifindex, const std::vector<AddressId> &ids);
  void apply_vips();
  [[nodiscard]] std::map<uint32_t, Loan> wanted_loans() const;
  void apply_unnumbered(std::set<uint32_t> &touched);
  void note_loan(uint32_t borrower, const Loan &loan);
  void forget_loan(uint32_t borrower);
  void add_borrowers(std::set<uint32_t> &touched) const;
  void commit(const std::set<uint32_t> &touched);
  bool tell_address(uint32_t ifindex, Told &told, const AddressState &address, const kernel::AddressPlace &place);
  void untell_address(uint32_t ifindex, Told &told, const AddressId &id);
  bool accepted(bool done, const char *what, const std::string &name);

  Publisher &publisher_;
  ContextIds &ids_;
  Configuration configuration_;
  bool configured_anew_ = true;
  std::map<uint32_t, kernel::LinkMessage> vrfs_;
  ContextPlan plan_;
  std::set<std::string> remarked_;

  std::map<uint32_t, ContextState> contexts_;         // told, by id
  std::map<uint32_t, Told> interfaces_;               // told, by ifindex
  std::map<std::string, uint32_t> by_name_;           // of interfaces_
  std::map<uint32_t, uint32_t> by_iod_;               // of interfaces_
  std::set<std::pair<uint32_t, uint32_t>> vips_;      // told: ifindex, addr
  std::map<uint32_t, Loan> loans_;                    // told, by the borrower's ifindex
  std::map<uint32_t, std::set<uint32_t>> borrowers_;  // of loans_, by the lender's ifindex
  std::vector<UnnumberedRule> asked_loans_;           // by lend()
  bool names_changed_ = true;                         // an interface came, went or was renamed
  uint64_t surroundings_version_ = 1;
  std::function<void(const std::set<uint32_t> &)> before_commit_;
  std::function<void(const std::set<uint32_t> &)> after_commit_;
  bool refused_ = false;
  uint64_t refusals_ = 0;
};

}  // namespace ipd

#endif
