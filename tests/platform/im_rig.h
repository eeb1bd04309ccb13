// SPDX-License-Identifier: Apache-2.0
// An interface table of its own, with a writer and an attached reader in this process.
#ifndef TESTS_PLATFORM_IM_RIG_H
#define TESTS_PLATFORM_IM_RIG_H

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "im.h"
#include "im/im_writer.h"
#include "l3vm.h"
#include "support/run_directory.h"

namespace im_rig {

inline constexpr uint32_t component = 267;

inline rsw::ImInterface interface(uint32_t ifindex, bool loopback = false) {
  return {.ifindex = ifindex,
          .name = (loopback ? "lo" : "eth") + std::to_string(ifindex),
          .up = true,
          .admin_up = true,
          .loopback = loopback,
          .mtu = 1500,
          .context_id = 1,
          .table_id = 254};
}

class ImRig {
 public:
  ImRig() {
    std::string reason;
    epochs = rsw::Epochs::open(&reason);
    if (epochs == nullptr) throw std::runtime_error(reason);
    writer = open(*epochs);
    if (!writer->publish_name(&reason)) throw std::runtime_error(reason);
    attach();
  }
  ~ImRig() { im_ext_pub_lib_close(component, 0); }
  ImRig(const ImRig &) = delete;
  ImRig &operator=(const ImRig &) = delete;

  // As a new process would: the writer's mapping goes, and with it the reader's, which is the same one here.
  void replace_writer(rsw::ArenaLimits limits = {}) {
    im_ext_pub_lib_close(component, 0);
    writer.reset();
    writer = open(*epochs, limits);
    attach();
  }
  void let_pass(std::chrono::seconds time) {
    now += time;
    writer->tick(now);
  }
  static std::unique_ptr<rsw::ImWriter> open(rsw::Epochs &epochs, rsw::ArenaLimits limits = {}) {
    std::string reason;
    std::unique_ptr<rsw::ImWriter> opened = rsw::ImWriter::open(epochs, &reason, limits);
    if (opened == nullptr) throw std::runtime_error(reason);
    return opened;
  }
  static void attach() {
    if (im_ext_pub_lib_init(component, 0, 0) != 0) throw std::runtime_error("cannot attach the interface table");
  }
  // An address that may stand in an extension word.
  void *record(uint32_t number) const {
    return reinterpret_cast<void *>(static_cast<uintptr_t>(rsw::segment_ip.base + 64 * number));
  }

  std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now();
  test_support::RunDirectory directory;
  std::unique_ptr<rsw::Epochs> epochs;
  std::unique_ptr<rsw::ImWriter> writer;
};

inline std::vector<uint32_t> all_iods() {
  std::vector<uint32_t> found;
  for (uint32_t iod = rsw::im_next_iod(0); iod != 0; iod = rsw::im_next_iod(iod)) found.push_back(iod);
  return found;
}

inline std::vector<uint32_t> iods_with(uint32_t of_component) {
  std::vector<uint32_t> found;
  for (uint32_t iod = im_get_next_ext_if(0, of_component); iod != 0; iod = im_get_next_ext_if(iod, of_component)) {
    found.push_back(iod);
  }
  return found;
}

}  // namespace im_rig

#endif
