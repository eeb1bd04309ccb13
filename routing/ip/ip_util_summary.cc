// SPDX-License-Identifier: Apache-2.0
// An interface's addresses in one line, for show commands.
#include "cli.h"
#include "guard.h"
#include "ip_api.h"
#include "log.h"
#include "walks.h"

namespace libip {
namespace {

constexpr size_t line_size = 100;

// The lender's name, with which the record begins.
const char *name_of(const ip_unnumbered *unnumbered) {
  return static_cast<const char *>(static_cast<const void *>(unnumbered));
}

void write_summary(char *line, const ip_iftype *interface) {
  const ip_unnumbered *unnumbered = interface == nullptr ? nullptr : follow(interface->unnum_data);
  if (unnumbered != nullptr) {
    // No more of the name is read than the line has room for.
    ksink_snprintf(line, line_size, "  IP unnumbered interface (%.*s)\n", static_cast<int>(line_size),
                   name_of(unnumbered));
    return;
  }
  const ip_addrtype *primary = interface == nullptr ? nullptr : addresses_of(*interface).first();
  if (primary == nullptr) {
    ksink_snprintf(line, line_size, "  IP address: none\n");
    return;
  }
  const uint32_t addr = primary->addr;
  const uint8_t mask_len = primary->mask_len;
  const char *address_text = ip_print_addr(addr);
  const char *subnet_text = ip_print_addr(addr & ip_bits2mask(mask_len));
  ksink_snprintf(line, line_size, "  IP address: %s, IP subnet: %s/%d\n", address_text, subnet_text, mask_len);
}

}  // namespace
}  // namespace libip

extern "C" {

void ip_print_addr_summary(uint32_t iod, void *out, void *arg) {
  using namespace libip;
  char line[line_size];
  const ReadGuard guard;
  write_summary(line, interface_record(iod));
  // The command line finds its argument behind the line, where no conversion asks for it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-extra-args"
  cli_new_printf(out, "%s", line, arg);
#pragma GCC diagnostic pop
}

}  // extern "C"
