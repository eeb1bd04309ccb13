// SPDX-License-Identifier: Apache-2.0
// Notifications of any bytes: each either ends in a record whose every entry can be read, or in a refusal without one.
// A record has no more entries than the bytes account for.
#include <stdlib.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "ip_api.h"
#include "log.h"
#include "mts.h"

namespace {

struct Payload {
  uint8_t *bytes;
  uint32_t size;
};

uint32_t calls;
uint32_t sum;  // keeps the reads
uint32_t most_entries;

void read_all(ip_if_info_msg *record) {
  calls++;
  if (record->count > most_entries) abort();
  const auto *entries = reinterpret_cast<const uint8_t *>(record) + sizeof *record;
  for (size_t i = 0; i < size_t{record->count} * sizeof(ip_if_info_msg_entry); i++) sum += entries[i];
}

}  // namespace

// In front of librsw's: a message is its payload.
extern "C" void *mts_payload_get(mts_msg_ref_t msg) {
  return static_cast<const Payload *>(msg)->bytes;
}
extern "C" uint32_t mts_payload_size(mts_msg_ref_t msg) {
  return static_cast<const Payload *>(msg)->size;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  sdwrap_sys_facility = nullptr;  // a refusal is not worth a line
  // Exactly its size, so that one byte read too much is seen.
  const std::unique_ptr<uint8_t[]> bytes(new uint8_t[size]);
  if (size > 0) memcpy(bytes.get(), data, size);
  Payload payload = {bytes.get(), static_cast<uint32_t>(size)};
  calls = 0;
  most_entries = payload.size / 4;
  if (ip_parse_if_info_notification(&payload, read_all) != calls) abort();
  return 0;
}
