// SPDX-License-Identifier: Apache-2.0
// Texts of any bytes as configuration and as simulation file: taken or refused with a reason that names the file, and
// what is taken keeps to its bounds and can be printed.
#include <stdlib.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "ipd/config.h"
#include "ipd/simulate/simulation.h"

namespace {

void check_reason(const std::string &reason) {
  if (!reason.starts_with("FILE") || reason.find('\n') != std::string::npos) abort();
}

void check(const ipd::Configuration &configuration) {
  for (const ipd::ContextRule &rule : configuration.contexts) {
    if (rule.name.empty() || rule.name.size() > 35) abort();
  }
  for (const ipd::VipRule &rule : configuration.vips) {
    if (rule.interface.empty() || rule.address == 0) abort();
  }
  for (const ipd::UnnumberedRule &rule : configuration.unnumbered) {
    if (rule.interface.empty() || rule.source.empty()) abort();
  }
  const std::string described = ipd::describe(configuration);
  for (const ipd::ContextRule &rule : configuration.contexts) {
    if (described.find(rule.name) == std::string::npos) abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view text(reinterpret_cast<const char *>(data), size);
  std::string reason;
  if (const auto configuration = ipd::parse_configuration(text, "FILE", &reason)) {
    check(*configuration);
  } else {
    check_reason(reason);
  }
  reason.clear();
  if (!ipd::parse_simulation(text, "FILE", &reason)) check_reason(reason);
  return 0;
}
