// SPDX-License-Identifier: Apache-2.0
// Every question about routes over damaged route tables: a few tables are published once, each input overwrites words
// of the segment and then asks everything. Any answer will do; a fault, a sanitizer report or a long walk will not.
#include <stdlib.h>
#include <string.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "sm/segment_map.h"
#include "support/run_directory.h"
#include "tsp/epochs.h"
#include "urib.h"
#include "urib/urib_view.h"
#include "urib/urib_writer.h"

namespace {

constexpr uint32_t tables[] = {254, 100, 100000};

[[noreturn]] void stop(const std::string &reason) {
  fprintf(stderr, "fuzz_urib: %s\n", reason.c_str());
  abort();
}

class System {
 public:
  System() {
    setenv("RSW_LOG", "none", 1);
    std::string reason;
    epochs_ = rsw::Epochs::open(&reason);
    if (epochs_ != nullptr) writer_ = rsw::UribWriter::open(*epochs_, &reason);
    if (writer_ == nullptr) stop(reason);
    for (const uint32_t table : tables) fill(table);
    if (!writer_->commit()) stop(writer_->last_error());
    if (urib_api_init() == 0) stop("URIB does not open");
    segment_ = rsw::SegmentMap::attach(rsw::segment_urib, &reason);
    if (segment_ == nullptr) stop(reason);
    bytes_ = reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(segment_->layout().base));
    original_.assign(bytes_, bytes_ + (segment_->header()->used_end - segment_->layout().base));
    // Where it hurts: most of a segment is empty, and overwriting what nobody reads finds nothing. The header's other
    // words than the root are checked at attach.
    words_.push_back(offsetof(rsw::SegmentHeader, root));
    for (uint32_t offset = rsw::segment_page; offset + 4 <= original_.size(); offset += 4) {
      uint32_t word;
      memcpy(&word, bytes_ + offset, 4);
      if (word != 0) words_.push_back(offset);
    }
  }

  // The input is a list of (place, value) writes.
  void damage(const uint8_t *data, size_t size) {
    for (; size >= 8; data += 8, size -= 8) {
      uint32_t place;
      uint32_t value;
      memcpy(&place, data, 4);
      memcpy(&value, data + 4, 4);
      // Some values become plausible words: addresses inside the segment, aligned or not.
      if ((place & 1) != 0) value = rsw::segment_urib.base + value % rsw::segment_urib.size;
      if ((place & 2) != 0) value &= ~uint32_t{63};
      const uint32_t offset = words_[(place >> 2) % words_.size()];
      touched_.push_back(offset);
      memcpy(bytes_ + offset, &value, 4);
    }
  }

  void mend() {
    for (const uint32_t offset : touched_) memcpy(bytes_ + offset, original_.data() + offset, 4);
    touched_.clear();
  }

 private:
  void fill(uint32_t table) {
    const auto set = [&](uint32_t addr, uint8_t len, rsw::RouteKind kind, uint32_t iod, uint32_t gateway) {
      rsw::Route route;
      route.addr = addr;
      route.len = len;
      route.kind = kind;
      for (uint32_t i = 0; i <= addr % 3; ++i) {
        rsw::RouteNextHop hop;
        hop.iod = iod;
        hop.addr = gateway + i;
        hop.table = iod == 0 ? tables[1] : 0;
        route.next_hops.push_back(hop);
      }
      if (!writer_->set(table, route)) stop(writer_->last_error());
    };
    set(0, 0, rsw::RouteKind::static_, 0, 0x0a000001);
    // One table stays without the shortcut.
    for (uint32_t i = 0; i < (table == 100 ? 20u : 120u); ++i) {
      const auto len = static_cast<uint8_t>(8 + i % 25);
      const uint32_t addr = (0x0a000000 + i * 0x00061003) & ~0u << (32 - len);
      set(addr, len, static_cast<rsw::RouteKind>(1 + i % 6), i % 4, 0x0a000001 + i);
    }
  }

  test_support::RunDirectory directory_;
  std::unique_ptr<rsw::Epochs> epochs_;
  std::unique_ptr<rsw::UribWriter> writer_;
  std::shared_ptr<rsw::SegmentMap> segment_;
  uint8_t *bytes_ = nullptr;
  std::vector<uint8_t> original_;
  std::vector<uint32_t> words_, touched_;
};

void look_at(void *route) {
  urib_is_route_attached(route);
  urib_is_route_local(route);
  urib_is_route_mstatic(route);
  urib_route_first_bnh_iod_get(route);
  urib_route_first_bnh_nib_data_get(route);
  urib_route_mbnh_iod_get(route, 0x12345678);
  urib_route_mbnh_addr_get(route, 5);
}

void ask(uint32_t table, uint32_t addr) {
  urib_acquire_rdlock();
  look_at(urib_get_best_route(table, addr, 0, 0));
  look_at(urib_get_best_direct_route(table, addr));
  for (uint32_t len = 0; len <= 32; len += 4) {
    const uint32_t prefix = len == 0 ? 0 : addr & ~0u << (32 - len);
    look_at(urib_get_route(table, prefix, len));
    look_at(urib_get_mbest_route_for_prefix(table, addr, len, 0, 0));
  }
  urib_release_rdlock();
  urib_path path{};
  uint32_t words[2] = {};
  urib_get_path_v2(table, addr, 0, 0, 0, &path, &words[0], &words[1], 1);
  rsw::urib_best(table, rsw::RouteView::unicast, addr);
  rsw::urib_exact(table, rsw::RouteView::multicast, addr, 32);
  rsw::urib_path(table, addr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static System *const system = new System;
  system->damage(data, size);
  for (const uint32_t table : tables) {
    for (uint32_t i = 0; i < 120; i += 7) ask(table, 0x0a000000 + i * 0x00061003);
    ask(table, 0xffffffff);
  }
  rsw::urib_tables();
  if (size % 4 == 0) {
    rsw::urib_routes(tables[size % 3], rsw::RouteView::unicast);
    rsw::urib_routes(tables[size % 3], rsw::RouteView::multicast);
  }
  system->mend();
  return 0;
}
