// SPDX-License-Identifier: Apache-2.0
// Every query over damaged segments: a small system is published once, each input overwrites bytes of the database and
// of the interface table and then asks everything. Any answer will do; a fault, a sanitizer report or a long walk will
// not.
#include <stdlib.h>
#include <string.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#define LIBIP_NO_INET_NTOA
#include "im.h"
#include "ip_api.h"
#include "ipd/publish/publisher.h"
#include "l3vm.h"
#include "sm/segment_map.h"
#include "support/run_directory.h"

namespace {

constexpr uint32_t interfaces = 12;

class System {
 public:
  System() {
    setenv("RSW_LOG", "none", 1);
    std::string reason;
    publisher_ = ipd::Publisher::open(&reason, std::chrono::milliseconds(0));
    if (!publisher_ || !fill()) {
      fprintf(stderr, "cannot publish: %s\n", publisher_ ? publisher_->last_error().c_str() : reason.c_str());
      abort();
    }
    ip_shm_api_init();
    ip_segment_ = rsw::SegmentMap::attach(rsw::segment_ip, &reason);
    im_segment_ = rsw::SegmentMap::attach(rsw::segment_im, &reason);
    if (!ip_segment_ || !im_segment_ || ip_api_attached == 0) {
      fprintf(stderr, "cannot attach: %s\n", reason.c_str());
      abort();
    }
    ip_original_ = bytes(*ip_segment_);
    im_original_ = bytes(*im_segment_);
    ip_words_ = words_in_use(ip_original_);
    im_words_ = words_in_use(im_original_);
  }

  // The input is a list of (segment, offset, value) writes.
  void damage(const uint8_t *data, size_t size) {
    for (; size >= 8; data += 8, size -= 8) {
      uint32_t place;
      uint32_t value;
      memcpy(&place, data, 4);
      memcpy(&value, data + 4, 4);
      const bool im = (place & 1) != 0;
      // Half of the values become plausible words: addresses inside the database.
      if ((place & 2) != 0) value = rsw::segment_ip.base + value % rsw::segment_ip.size;
      const std::vector<uint32_t> &words = im ? im_words_ : ip_words_;
      memcpy(address(im ? *im_segment_ : *ip_segment_) + words[(place >> 2) % words.size()], &value, 4);
    }
  }

  void mend() {
    memcpy(address(*ip_segment_), ip_original_.data(), ip_original_.size());
    memcpy(address(*im_segment_), im_original_.data(), im_original_.size());
  }

 private:
  bool fill() {
    bool done =
        publisher_->set_context({1, "default", 254, 0}) && publisher_->set_context({2, "blue", 100, 0x01020304});
    for (uint32_t i = 1; done && i <= interfaces; i++) {
      done = publisher_->set_interface(
          {i, "eth" + std::to_string(i), true, true, i == 1, true, false, false, 1500, 1 + i % 2});
      for (uint32_t k = 0; done && k < i % 5; k++) {
        done = publisher_->set_address(i, {0x0a000001 + (i << 8) + k, 24, k != 0, 0});
      }
    }
    return done && publisher_->set_vip({3, 0x0a0003fe}) && publisher_->set_unnumbered(5, 1, "eth1") &&
           publisher_->commit();
  }

  static uint8_t *address(const rsw::SegmentMap &segment) {
    return reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(segment.layout().base));
  }

  static std::vector<uint8_t> bytes(const rsw::SegmentMap &segment) {
    const uint32_t used = segment.header()->used_end - segment.layout().base;
    return {address(segment), address(segment) + used};
  }

  // Where it hurts: most of a segment is empty, and overwriting what nobody reads finds nothing.
  static std::vector<uint32_t> words_in_use(const std::vector<uint8_t> &original) {
    std::vector<uint32_t> offsets;
    for (uint32_t offset = 0; offset + 4 <= original.size(); offset += 4) {
      uint32_t word;
      memcpy(&word, original.data() + offset, 4);
      if (word != 0) offsets.push_back(offset);
    }
    return offsets;
  }

  test_support::RunDirectory directory_;
  std::unique_ptr<ipd::Publisher> publisher_;
  std::shared_ptr<rsw::SegmentMap> ip_segment_, im_segment_;
  std::vector<uint8_t> ip_original_, im_original_;
  std::vector<uint32_t> ip_words_, im_words_;
};

void ask_about_interface(uint32_t iod) {
  uint32_t addr = 0;
  uint8_t len = 0;
  for (int steps = 0; steps < 8; steps++) {
    ip_get_next_secondary(iod, &addr, &len);
    if (addr == 0) break;
  }
  ip_is_address_on_interface(0x0a000301, iod);
  ip_get_local_mask_len(0x0a000301, iod);
  ip_get_secondary_count(iod);
  ip_is_group_joined(0xe0000001, iod);
  ip_allow_directed_broadcast(iod);
  ip_is_iod_unnumbered(iod);
  ip_is_multicast_enabled(iod);
  ip_get_mtu(iod);
  const char *name = im_get_if_name(iod);
  if (name != nullptr && strnlen(name, 4096) == 4096) abort();
  im_is_if_up(iod);
  im_is_adminup(iod);
  if (l3vm_if_get_context_id(iod) != 0) ip_get_api_context_name(l3vm_if_get_context_id(iod));
  l3vm_if_get_table_id(iod, 1, "base");
  uint32_t vip = 0;
  ip_get_best_intf_vip(1, 0x0a000301, iod, &vip);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static System *const system = new System;
  system->damage(data, size);
  for (uint32_t iod = 0; iod <= interfaces + 2; iod++) ask_about_interface(iod);
  uint32_t iod = 0;
  for (uint32_t i = 0; i <= interfaces; i++) {
    ip_get_iod_for_local_address(i % 2 != 0 ? "default" : "blue", 0x0a000001 + (i << 8));
    im_get_iod_frm_ifindex(i, &iod);
  }
  ip_get_api_context(2);
  ip_get_api_context_by_name("blue");
  ip_get_api_context_id("no such context");
  for (uint32_t steps = 0, next = im_get_next_ext_if(0, 267); next != 0 && steps < 100; steps++) {
    next = im_get_next_ext_if(next, 267);
  }
  system->mend();
  return 0;
}
