// SPDX-License-Identifier: Apache-2.0
// What every user may write of the files that processes share: slots of the reader lock, blocks of memory counters,
// records of queues. Whatever stands there in the name of processes that live, looking at it ends, within bounds, with
// texts that end; and only slots that are owned hold an epoch up.
//
// Input: steps of a byte that says which file, a word that says where in it, and the word that is put there.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "input.h"
#include "mtrack/mtrack_records.h"
#include "mtrack/mtrack_writer.h"
#include "mts/mts_server.h"
#include "mts/sap_record.h"
#include "support/run_directory.h"
#include "tsp/epochs.h"
#include "tsp/slots.h"

namespace {

constexpr uint32_t owned_slots = 8;
constexpr uint32_t owned_blocks = 3;
constexpr uint32_t saps = 3;
constexpr uint32_t first_sap = 70000;
constexpr uint32_t far_slot = 3000;  // some are read that never had storage

// A description of its own: its locks are another process's as far as everybody else can tell.
int open_file(const std::string &path, int flags) {
  const int descriptor = open(path.c_str(), flags | O_RDWR | O_CLOEXEC, 0644);
  if (descriptor < 0) abort();
  return descriptor;
}

void own(int descriptor, uint64_t begin, uint64_t length) {
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  range.l_start = static_cast<off_t>(begin);
  range.l_len = static_cast<off_t>(length);
  if (fcntl(descriptor, F_OFD_SETLK, &range) != 0) abort();
}

void put(int descriptor, uint64_t place, const void *bytes, size_t size) {
  if (pwrite(descriptor, bytes, size, static_cast<off_t>(place)) != static_cast<ssize_t>(size)) abort();
}

class Others {
 public:
  Others() {
    std::string reason;
    epochs_ = rsw::Epochs::open(&reason);
    if (epochs_ == nullptr || !rsw::mtrack_open_for_writing(&reason)) abort();
    slots_ = open_file(directory_.path() + "/tsp", 0);
    blocks_ = open_file(directory_.path() + "/mtrack", 0);
    own(slots_, rsw::slots_offset, owned_slots * sizeof(rsw::Slot));
    for (uint32_t i = 0; i < owned_blocks; ++i) own(blocks_, rsw::mtrack::block_offset(1 + i), 1);
    const std::string queues = directory_.path() + "/mts";
    const std::string dynamic = queues + "/dynamic";
    if (mkdir(queues.c_str(), 0755) != 0 || mkdir(dynamic.c_str(), 0755) != 0) abort();
    for (uint32_t i = 0; i < saps; ++i) {
      records_[i] = open_file(dynamic + "/" + std::to_string(first_sap + i) + ".queue", O_CREAT);
      own(records_[i], 0, 0);
    }
  }

  void begin() {
    const std::array<uint8_t, owned_slots * sizeof(rsw::Slot)> no_slots{};
    put(slots_, rsw::slots_offset, no_slots.data(), no_slots.size());
    put(slots_, rsw::slots_offset + far_slot * sizeof(rsw::Slot), no_slots.data(), no_slots.size());
    const uint32_t in_use = owned_slots;
    put(slots_, rsw::slot_control_offset + offsetof(rsw::SlotControl, slots_in_use), &in_use, sizeof in_use);
    static const rsw::mtrack::SharedBlock no_block{};
    for (uint32_t i = 0; i < owned_blocks; ++i)
      put(blocks_, rsw::mtrack::block_offset(1 + i), &no_block, sizeof no_block);
    for (uint32_t i = 0; i < saps; ++i) {
      rsw::mts::SapRecord record{};
      record.magic = rsw::mts::record_magic;
      record.pid = 1;
      record.sap = first_sap + i;
      put(records_[i], 0, &record, sizeof record);
    }
  }

  void write(uint8_t file, uint32_t where, uint32_t word) {
    switch (file % 4) {
      case 0:
        return put(slots_, rsw::slots_offset + where % (owned_slots * sizeof(rsw::Slot) / 4) * 4, &word, sizeof word);
      case 1:
        return write_block(where, word);
      case 2:
        return put(records_[where % saps], where / saps % (sizeof(rsw::mts::SapRecord) / 4) * 4, &word, sizeof word);
      default:
        return write_control(where, word);
    }
  }

  // Everything that reads them.
  void look() {
    const uint32_t epoch = epochs_->advance(rsw::Domain::database);
    const bool has_passed = epochs_->passed(rsw::Domain::database, epoch);
    const auto holders = epochs_->holders(rsw::Domain::database, epoch);
    for (const rsw::EpochHolder &holder : holders) {
      if (holder.slot >= owned_slots) abort();
      epochs_->overrule(holder);
    }
    if (has_passed && !holders.empty()) abort();
    if (!epochs_->passed(rsw::Domain::database, epoch)) abort();
    uint32_t threads = 0;
    for (const rsw::EpochClient &client : rsw::epoch_clients()) threads += client.threads;
    if (threads > owned_slots) abort();
    const auto uses = rsw::mtrack_report();
    if (uses.size() > (owned_blocks + 1) * rsw::mtrack::max_entries) abort();
    for (const rsw::MemoryUse &use : uses) {
      if (memchr(use.command, 0, sizeof use.command) == nullptr) abort();
      if (use.type_name.size() > 40 || use.description.size() > 60) abort();
    }
    const auto queues = rsw::mts_queues();
    if (queues.size() > saps) abort();
    for (const rsw::MtsQueueUse &queue : queues) {
      if (queue.sap < first_sap || queue.sap >= first_sap + saps || queue.name.size() > 32) abort();
    }
  }

 private:
  void write_block(uint32_t where, uint32_t word) const {
    const uint64_t place = where / owned_blocks % (sizeof(rsw::mtrack::SharedBlock) / 4) * 4;
    put(blocks_, rsw::mtrack::block_offset(1 + where % owned_blocks) + place, &word, sizeof word);
  }
  // How many slots there are, or a slot that nobody owns.
  void write_control(uint32_t where, uint32_t word) const {
    if (where % 2 == 0) {
      put(slots_, rsw::slot_control_offset + offsetof(rsw::SlotControl, slots_in_use), &word, sizeof word);
    } else {
      const uint64_t slot = far_slot + where / 2 % owned_slots;
      put(slots_, rsw::slots_offset + slot * sizeof(rsw::Slot) + where / 16 % 8 * 4, &word, sizeof word);
    }
  }

  test_support::RunDirectory directory_;
  std::unique_ptr<rsw::Epochs> epochs_;
  int slots_ = -1;
  int blocks_ = -1;
  std::array<int, saps> records_{};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  constexpr int most_steps = 200;
  static auto *const others = new Others;
  fuzz::Input input(data, size);
  others->begin();
  for (int step = 0; step < most_steps && !input.empty(); ++step) {
    const uint8_t file = input.byte();
    const uint32_t where = input.word();
    others->write(file, where, input.word());
  }
  others->look();
  return 0;
}
