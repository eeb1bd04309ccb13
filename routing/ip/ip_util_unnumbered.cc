// SPDX-License-Identifier: Apache-2.0
// What an unnumbered interface borrows, and from whom; and the source address of ICMP errors that follows an interface.
//
// ip_get_unnumbered_info answers 1 whenever it could look, and says by its flag whether it found an address, by the
// error text why not. The lender's name is there before its record is looked at: an operator reads the name of a lender
// that is gone. It is copied to its terminator, and where a damaged record has none, to the next zero of the segment: the
// caller's buffer is all that bounds it.
#include <cstring>

#include "guard.h"
#include "ip_api.h"
#include "lending.h"
#include "report.h"
#include "walks.h"

namespace libip {
namespace {

// The lender's name, with which the record begins.
const char *name_of(const ip_unnumbered *unnumbered) {
  return static_cast<const char *>(static_cast<const void *>(unnumbered));
}

uint32_t as_word(const void *pointer) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pointer));
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_get_unnumbered_info(uint32_t iod, uint32_t *addr, char *name, uint32_t *flag) {
  using namespace libip;
  clear_error_text();
  if (addr == nullptr || name == nullptr) {
    set_error_text("Invalid ip_addr 0x%x/ifname 0x%x", as_word(addr), as_word(name));
    return 0;
  }
  *addr = 0;
  *flag = 0;
  if (!attached()) {
    set_error_text("IP API Init not done");
    return 0;
  }
  const ReadGuard guard;
  const ip_iftype *interface = interface_record(iod);
  if (interface == nullptr) {
    set_error_text("No ip_if for iod %d", static_cast<int32_t>(iod));
    return 1;
  }
  const ip_unnumbered *unnumbered = follow(interface->unnum_data);
  if (unnumbered == nullptr) {
    set_error_text("Not an unnumbered interface %d", static_cast<int32_t>(iod));
    return 1;
  }
  if (interface->unnum_src_iod == 0) {
    set_error_text("Unnumbered intf down");
    return 1;
  }
  const char *lender_name = name_of(unnumbered);
  std::memcpy(name, lender_name, std::strlen(lender_name) + 1);
  const ip_iftype *lender = interface_record(interface->unnum_src_iod);
  if (lender == nullptr) {
    set_error_text("No ip_if for unnumbered iod %d", static_cast<int32_t>(iod));
    return 1;
  }
  const ip_addrtype *primary = addresses_of(*lender).first();
  if (primary == nullptr) {
    // The lender's own lender, 0 as a rule: who reads the text knows the number under this meaning.
    set_error_text("No addr config for unnumbered iod %d", static_cast<int32_t>(lender->unnum_src_iod));
    return 1;
  }
  *addr = primary->addr;
  *flag = 1;
  return 1;
}

uint32_t ip_update_icmp_err_source_address(ip_icmp_err_source *rec, uint32_t iod, uint32_t flag) {
  const char *name = im_get_if_name(iod);
  if (name == nullptr) return 0;
  const int difference = std::strcmp(name, rec->if_name);
  if (difference != 0) return static_cast<uint32_t>(difference);
  rec->src_addr = flag != 0 ? ip_get_local_addr(iod) : 0;
  return rec->src_addr;
}

}  // extern "C"
