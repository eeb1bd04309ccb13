// SPDX-License-Identifier: Apache-2.0
// The publisher over the segments "/rsw/shm/ip" and "/rsw/shm/im". Its setters are spread over publisher_contexts.cc,
// publisher_interfaces.cc, publisher_addresses.cc and publisher_multicast.cc; opening, taking over and committing stand
// in publisher.cc.
#ifndef IPD_PUBLISH_SEGMENT_PUBLISHER_H
#define IPD_PUBLISH_SEGMENT_PUBLISHER_H

#include <array>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>

#include "im/im_writer.h"
#include "ipd/publish/context_list.h"
#include "ipd/publish/picture.h"
#include "ipd/publish/prefix_claims.h"
#include "ipd/publish/publisher.h"
#include "sm/segment_map.h"
#include "tsp/epochs.h"

namespace ipd {

class SegmentPublisher final : public Publisher {
 public:
  // `own_epochs`: null when `epochs` is the caller's.
  static std::unique_ptr<Publisher> open(rsw::Epochs &epochs, std::unique_ptr<rsw::Epochs> own_epochs,
                                         std::string *reason, std::chrono::milliseconds quarantine);
  SegmentPublisher(std::unique_ptr<rsw::Epochs> own_epochs, std::shared_ptr<rsw::SegmentMap> segment,
                   std::unique_ptr<rsw::Arena> arena, std::unique_ptr<rsw::ImWriter> interface_table);
  void make_room(const rsw::ArenaLimits &limits);

  bool set_context(const ContextState &context) override;
  bool remove_context(uint32_t id) override;
  bool set_interface(const InterfaceState &interface) override;
  bool remove_interface(uint32_t ifindex) override;
  bool set_address(uint32_t ifindex, const AddressState &address) override;
  bool remove_address(uint32_t ifindex, uint32_t addr, uint8_t mask_len) override;
  bool set_vip(const VipState &vip) override;
  bool remove_vip(const VipState &vip) override;
  bool set_unnumbered(uint32_t ifindex, uint32_t source_ifindex, const std::string &source_name) override;
  bool set_groups(uint32_t ifindex, const std::vector<GroupState> &groups) override;
  bool set_multicast_counters(uint32_t ifindex, const MulticastCounters &counters) override;
  bool set_pim_asserts(uint32_t ifindex, uint32_t count) override;
  bool set_load_share(uint8_t mode, uint32_t value) override;
  bool commit() override;
  void tick(std::chrono::steady_clock::time_point now) override;
  [[nodiscard]] uint32_t iod(uint32_t ifindex) const override;
  [[nodiscard]] uint32_t pim_asserts(uint32_t ifindex) const override;
  [[nodiscard]] std::optional<MulticastCounters> multicast_counters(uint32_t ifindex) const override;
  [[nodiscard]] const std::string &last_error() const override { return error_; }
  [[nodiscard]] PublisherUse use() const override;

 private:
  bool commit_changes();
  template <class... Text>
  bool refuse(const Text &...text) {
    error_.clear();
    (error_.append(text), ...);
    return false;
  }
  bool refuse_for_storage(const std::string &what) { return refuse("no room in the shared segment for ", what); }

  [[nodiscard]] Interface *find_interface(uint32_t ifindex);
  [[nodiscard]] Context *find_context(uint32_t id);

  bool add_context(const ContextState &state);
  bool rename_context(Context &context, const std::string &name);
  void change_table(Context &context, uint32_t table_id);

  bool add_interface(const InterfaceState &state, Context &context);
  bool change_interface(Interface &interface, const InterfaceState &state, Context &context);
  [[nodiscard]] bool claim_everything(Interface &interface, Context &context, Claims &claims);
  uint32_t set_in_table(const InterfaceState &state, const Context &context);
  void fill_record(const Interface &interface, ip_iftype &record) const;
  void swing_record(Interface &interface, ip_iftype *fresh);
  void renew_record(Interface &interface);
  void tell_borrowers(uint32_t lender_ifindex);
  void forget_lender(Interface &interface);

  bool change_address(Interface &interface, Address &address, const AddressState &state);

  // Of an interface of the previous ipd: what it counted, and its record, which readers see until the first commit.
  struct Inherited {
    ip_iftype *record;
    StatisticsBlock *statistics;  // null: none, or the new interface's now
    uint32_t pim_asserts;
  };
  void inherit_counters();
  void take_inherited(Interface &interface);
  void forget_inherited();
  void withdraw_unadopted();
  void publish_load_share();

  void first_commit();
  void commit_context(Context &context);
  void choose_router_id(Context &context);
  void report_memory();

  // Declared in the order in which they stand on each other.
  std::unique_ptr<rsw::Epochs> own_epochs_;
  std::shared_ptr<rsw::SegmentMap> segment_;
  std::unique_ptr<rsw::Arena> arena_;
  std::unique_ptr<rsw::ImWriter> interface_table_;
  ip_root *root_;
  ContextList context_list_;

  std::map<uint32_t, Context> contexts_;                        // by id
  std::unordered_map<std::string, uint32_t> context_names_;     // of contexts_
  std::unordered_map<uint32_t, Interface> interfaces_;          // by ifindex
  std::unordered_map<uint32_t, std::set<uint32_t>> borrowers_;  // ifindexes, by ifindex of the lender
  std::set<Context *> router_ids_due_;
  std::unordered_map<uint32_t, Inherited> inherited_;  // by ifindex; empty after the first commit
  uint8_t load_share_mode_ = 0;
  uint32_t load_share_value_ = 0;  // host order
  uint64_t arrivals_ = 0;
  uint32_t address_count_ = 0;
  bool live_ = false;     // the first commit has been made: changes are visible at once
  bool changed_ = false;  // since the last commit
  std::array<uint64_t, memory_types> reported_blocks_{};
  std::string error_;
};

}  // namespace ipd

#endif
