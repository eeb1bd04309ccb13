// SPDX-License-Identifier: Apache-2.0
// Every query over damaged segments: a small system is published once, each input overwrites bytes of the database and
// of the interface table and then asks everything. Any answer will do; a fault, a sanitizer report or a long walk will
// not.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
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
#include "support/every_query.h"
#include "support/run_directory.h"

namespace {

constexpr uint32_t interfaces = 12;

class System {
 public:
  System() {
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
    ip_words_ = words_in_use(bytes(*ip_segment_));
    im_words_ = words_in_use(bytes(*im_segment_));
    // There is no route table here, and looking for one again in each question takes longer than all questions.
    ip_api_dep_modules_init_done = 1;
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
      uint8_t *word = address(im ? *im_segment_ : *ip_segment_) + words[(place >> 2) % words.size()];
      Damaged before{word, 0};
      memcpy(&before.value, word, 4);
      damaged_.push_back(before);
      memcpy(word, &value, 4);
    }
  }

  // Backwards: a word may have been overwritten twice.
  void mend() {
    for (; !damaged_.empty(); damaged_.pop_back()) memcpy(damaged_.back().word, &damaged_.back().value, 4);
  }

 private:
  struct Damaged {
    uint8_t *word;
    uint32_t value;
  };

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

  // Where it hurts: most of a segment is empty, and overwriting what nobody reads finds nothing. A line with anything
  // in it counts whole: the null words of a record are read, too.
  static std::vector<uint32_t> words_in_use(const std::vector<uint8_t> &original) {
    constexpr uint32_t line = 64;
    std::vector<uint32_t> offsets;
    for (uint32_t start = 0; start + line <= original.size(); start += line) {
      const uint8_t *bytes = original.data() + start;
      if (std::all_of(bytes, bytes + line, [](uint8_t byte) { return byte == 0; })) continue;
      for (uint32_t word = 0; word < line; word += 4) offsets.push_back(start + word);
    }
    return offsets;
  }

  test_support::RunDirectory directory_;
  std::unique_ptr<ipd::Publisher> publisher_;
  std::shared_ptr<rsw::SegmentMap> ip_segment_, im_segment_;
  std::vector<Damaged> damaged_;
  std::vector<uint32_t> ip_words_, im_words_;
};

// What the interface table itself answers.
void ask_interface_table(uint32_t iod) {
  const char *name = im_get_if_name(iod);
  if (name != nullptr && strnlen(name, 4096) == 4096) abort();
  im_is_if_up(iod);
  im_is_adminup(iod);
  if (l3vm_if_get_context_id(iod) != 0) ip_get_api_context_name(l3vm_if_get_context_id(iod));
  l3vm_if_get_table_id(iod, 1, "base");
  uint32_t found = 0;
  im_get_iod_frm_ifindex(iod, &found);
}

}  // namespace

// Refused questions are logged, which costs more than the questions. Where to is settled when librsw is loaded.
extern "C" int LLVMFuzzerInitialize(int *, char ***arguments) {
  if (getenv("RSW_LOG") == nullptr) {
    setenv("RSW_LOG", "none", 1);
    execv("/proc/self/exe", *arguments);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static System *const system = new System;
  system->damage(data, size);
  for (uint32_t iod = 0; iod <= interfaces + 2; iod++) {
    ask_interface_table(iod);
    const uint32_t addr = 0x0a000001 + (iod << 8);
    const auto len = static_cast<uint8_t>(8 + iod * 2);
    test_support::ask_every_query({iod % 2 == 0 ? "default" : "blue", 1 + iod % 2, iod, addr, len});
  }
  ip_get_api_context_id("no such context");
  test_support::ask_every_query({"no such context", 77, 3, 0x0a0003fe, 32});
  for (uint32_t steps = 0, next = im_get_next_ext_if(0, 267); next != 0 && steps < 100; steps++) {
    next = im_get_next_ext_if(next, 267);
  }
  system->mend();
  return 0;
}
