// SPDX-License-Identifier: Apache-2.0
// IP_MSG_REPORT_LINK_LOCAL: what processes report, a value by reference number. It means to them what they like; it is
// kept as long as they live, and shown.
#ifndef IPD_CONTROL_LINK_LOCAL_H
#define IPD_CONTROL_LINK_LOCAL_H

#include <cstdint>
#include <map>

#include "ipd/control/handler.h"

namespace ipd::control {

class LinkLocal final : public Handler {
 public:
  static constexpr size_t most_of_a_process = 1024;
  using Reports = std::map<uint32_t, uint32_t>;  // value by reference number

  Refusal handle(const Request &request) override;
  void process_gone(int32_t pid) override { reports_.erase(pid); }
  void add_holdings(int32_t pid, Holdings &held) const override;

  [[nodiscard]] const std::map<int32_t, Reports> &reports() const { return reports_; }  // by process

 private:
  std::map<int32_t, Reports> reports_;
};

}  // namespace ipd::control

#endif
