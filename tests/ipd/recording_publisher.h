// SPDX-License-Identifier: Apache-2.0
// A publisher that keeps what it was told in plain containers, refuses what the real one refuses, and remembers the
// calls.
#ifndef TESTS_IPD_RECORDING_PUBLISHER_H
#define TESTS_IPD_RECORDING_PUBLISHER_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ipd/publish/publisher.h"

namespace test_support {

struct RecordedInterface {
  ipd::InterfaceState state;
  std::vector<ipd::AddressState> addresses;  // in the order that readers see
  std::set<uint32_t> vips;
  std::pair<uint32_t, std::string> lender;  // ifindex 0: none
  std::vector<ipd::GroupState> groups;
  std::optional<ipd::MulticastCounters> counters;
  uint32_t pim_asserts = 0;
  uint64_t made = 0;  // another number: the interface was removed and came again
};

class RecordingPublisher final : public ipd::Publisher {
 public:
  bool set_context(const ipd::ContextState &context) override;
  bool remove_context(uint32_t id) override;
  bool set_interface(const ipd::InterfaceState &interface) override;
  bool remove_interface(uint32_t ifindex) override;
  bool set_address(uint32_t ifindex, const ipd::AddressState &address) override;
  bool remove_address(uint32_t ifindex, uint32_t addr, uint8_t mask_len) override;
  bool set_vip(const ipd::VipState &vip) override;
  bool remove_vip(const ipd::VipState &vip) override;
  bool set_unnumbered(uint32_t ifindex, uint32_t source_ifindex, const std::string &source_name) override;
  bool set_groups(uint32_t ifindex, const std::vector<ipd::GroupState> &groups) override;
  bool set_multicast_counters(uint32_t ifindex, const ipd::MulticastCounters &counters) override;
  bool set_pim_asserts(uint32_t ifindex, uint32_t count) override;
  bool set_load_share(uint8_t mode, uint32_t value) override;
  bool commit() override;
  void tick(std::chrono::steady_clock::time_point) override { ++ticks; }
  [[nodiscard]] uint32_t iod(uint32_t ifindex) const override;
  [[nodiscard]] uint32_t pim_asserts(uint32_t ifindex) const override;
  [[nodiscard]] std::optional<ipd::MulticastCounters> multicast_counters(uint32_t ifindex) const override;
  [[nodiscard]] const std::string &last_error() const override { return error_; }
  [[nodiscard]] ipd::PublisherUse use() const override;

  // Everything as text, the same for the same picture.
  [[nodiscard]] std::string picture() const;
  [[nodiscard]] std::vector<uint32_t> addresses(uint32_t ifindex) const;

  std::map<uint32_t, ipd::ContextState> contexts;
  std::map<uint32_t, RecordedInterface> interfaces;
  std::pair<uint8_t, uint32_t> load_share;  // mode, value
  std::vector<std::string> calls;
  uint32_t commits = 0;
  uint32_t ticks = 0;
  size_t room = SIZE_MAX;  // interfaces that fit

 private:
  bool refuse(const std::string &why);
  std::string error_;
  uint64_t made_ = 0;
};

}  // namespace test_support

#endif
