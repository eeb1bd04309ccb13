// SPDX-License-Identifier: Apache-2.0
// The queues of all processes, from the files that their SAPs have. The files are other processes': nothing in them is
// trusted to be terminated or to belong to the name it stands under.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

#include "mts/mts_server.h"
#include "mts/sap_files.h"

namespace rsw {
namespace {

using mts::Descriptor;
using mts::SapRecord;

bool is_held(int file) {
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  return fcntl(file, F_OFD_GETLK, &range) == 0 && range.l_type == F_WRLCK;
}

bool read_record(int directory, const char *name, uint32_t sap, SapRecord *record) {
  const Descriptor file(openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (file.get() < 0 || !is_held(file.get())) return false;
  if (pread(file.get(), record, sizeof *record, 0) != static_cast<ssize_t>(sizeof *record)) return false;
  return record->magic == mts::record_magic && record->sap == sap;
}

MtsQueueUse use_of(const SapRecord &record) {
  return {.sap = record.sap,
          .pid = static_cast<int32_t>(record.pid),
          .module = record.module,
          .name = std::string(record.name, strnlen(record.name, sizeof record.name)),
          .waiting = record.waiting,
          .waiting_bytes = record.waiting_bytes,
          .high_water = record.high_water,
          .received = record.received,
          .sent = record.sent,
          .refused = record.refused,
          .send_failures = record.send_failures,
          .connections = record.connections};
}

void add_queues(const std::string &path, std::vector<MtsQueueUse> *queues) {
  const std::unique_ptr<DIR, int (*)(DIR *)> directory(opendir(path.c_str()), closedir);
  if (directory == nullptr) return;
  while (const dirent *entry = readdir(directory.get())) {
    const std::string_view name = entry->d_name;
    uint32_t sap = 0;
    const auto [rest, error] = std::from_chars(name.data(), name.data() + name.size(), sap);
    if (error != std::errc() || std::string_view(rest) != ".queue") continue;
    SapRecord record{};
    if (read_record(dirfd(directory.get()), entry->d_name, sap, &record)) queues->push_back(use_of(record));
  }
}

}  // namespace

std::vector<MtsQueueUse> mts_queues() {
  std::vector<MtsQueueUse> queues;
  add_queues(run_directory() + "/mts", &queues);
  add_queues(run_directory() + "/mts/dynamic", &queues);
  std::ranges::sort(queues, {}, &MtsQueueUse::sap);
  return queues;
}

}  // namespace rsw
