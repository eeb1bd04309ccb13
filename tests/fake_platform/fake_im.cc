// SPDX-License-Identifier: Apache-2.0
// The interface manager and the layer-3 context manager, over one table of interfaces.
#include <cstring>

#include "fake_platform/platform.h"
#include "im.h"
#include "l3vm.h"

using fake_platform::Interface;
using fake_platform::platform;

namespace {

const Interface *interface_of(uint32_t iod) {
  const auto found = platform().interfaces.find(iod);
  return found == platform().interfaces.end() ? nullptr : &found->second;
}

}  // namespace

void *lcache_im_get_extension1(uint32_t iod, uint32_t component) {
  platform().log.call(__func__, iod, component);
  void *record = nullptr;
  if (const Interface *entry = interface_of(iod)) {
    const auto slot = entry->extensions.find(component);
    if (slot != entry->extensions.end()) record = slot->second;
  }
  return platform().scripts.result<void *>(__func__, record, nullptr);
}

uint32_t lcache_im_get_if_mtu(uint32_t iod) {
  platform().log.call(__func__, iod);
  const Interface *entry = interface_of(iod);
  return platform().scripts.result<uint32_t>(__func__, entry != nullptr ? entry->mtu : 0, 0);
}

uint32_t im_get_iod_frm_ifindex(uint32_t ifindex, uint32_t *iod) {
  platform().log.call(__func__, ifindex, fake_platform::Bare{"preset " + std::to_string(*iod)});
  for (const auto &[candidate, entry] : platform().interfaces) {
    if (entry.ifindex == ifindex) {
      *iod = candidate;
      return platform().scripts.result<uint32_t>(__func__, 0, 1);
    }
  }
  return platform().scripts.result<uint32_t>(__func__, 1, 1);
}

uint32_t im_get_next_ext_if(uint32_t prev, uint32_t component) {
  platform().log.call(__func__, prev, component);
  uint32_t next = 0;
  for (auto entry = platform().interfaces.upper_bound(prev); entry != platform().interfaces.end(); ++entry) {
    if (!entry->second.extensions.contains(component)) continue;
    next = entry->first;
    break;
  }
  return platform().scripts.result<uint32_t>(__func__, next, 0);
}

uint32_t im_is_if_up(uint32_t iod) {
  platform().log.call(__func__, iod);
  const Interface *entry = interface_of(iod);
  return platform().scripts.result<uint32_t>(__func__, entry != nullptr && entry->up ? 1 : 0, 0);
}

uint32_t im_is_adminup(uint32_t iod) {
  platform().log.call(__func__, iod);
  const Interface *entry = interface_of(iod);
  return platform().scripts.result<uint32_t>(__func__, entry != nullptr && entry->admin_up ? 1 : 0, 0);
}

const char *im_get_if_name(uint32_t iod) {
  platform().log.call(__func__, iod);
  const Interface *entry = interface_of(iod);
  return platform().scripts.result<const char *>(__func__, entry != nullptr ? entry->name.c_str() : nullptr, nullptr);
}

uint32_t im_ext_pub_lib_init(uint32_t component, uint32_t zero1, uint32_t zero2) {
  platform().log.call(__func__, component, zero1, zero2);
  return platform().scripts.result<uint32_t>(__func__, 0, 1);
}

uint32_t im_ext_pub_lib_close(uint32_t component, uint32_t zero) {
  platform().log.call(__func__, component, zero);
  return platform().scripts.result<uint32_t>(__func__, 0, 1);
}

uint32_t l3vm_if_get_context_id(uint32_t iod) {
  platform().log.call(__func__, iod);
  const Interface *entry = interface_of(iod);
  return platform().scripts.result<uint32_t>(__func__, entry != nullptr ? entry->context_id : 0, 0);
}

uint32_t l3vm_if_get_table_id(uint32_t iod, uint32_t one, const char *base) {
  platform().log.call(__func__, iod, one, base);
  const Interface *entry = interface_of(iod);
  return platform().scripts.result<uint32_t>(__func__, entry != nullptr ? entry->table_id : 0, 0);
}
