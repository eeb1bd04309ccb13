// SPDX-License-Identifier: Apache-2.0
// What a queue tells other processes of itself: one page of a file, written by the queue's process alone.
#ifndef RSW_MTS_SAP_RECORD_H
#define RSW_MTS_SAP_RECORD_H

#include <cstdint>

#include "contract.h"

namespace rsw::mts {

inline constexpr uint32_t record_magic = 0x3151534d;  // "MSQ1"

// Counts are words that wrap; each is stored by one thread at a time, and read without any order: they are figures to
// look at.
struct SapRecord {
  uint32_t magic;  // last to be written
  uint32_t pid;
  uint32_t sap;
  uint32_t module;
  char name[32];  // NUL-terminated
  uint32_t waiting;
  uint32_t waiting_bytes;
  uint32_t high_water;
  uint32_t received;
  uint32_t sent;
  uint32_t refused;
  uint32_t send_failures;
  uint32_t connections;
};
RSW_SIZE(SapRecord, 80);
RSW_OFFSET(SapRecord, magic, 0);
RSW_OFFSET(SapRecord, pid, 4);
RSW_OFFSET(SapRecord, sap, 8);
RSW_OFFSET(SapRecord, module, 12);
RSW_OFFSET(SapRecord, name, 16);
RSW_OFFSET(SapRecord, waiting, 48);
RSW_OFFSET(SapRecord, waiting_bytes, 52);
RSW_OFFSET(SapRecord, high_water, 56);
RSW_OFFSET(SapRecord, received, 60);
RSW_OFFSET(SapRecord, sent, 64);
RSW_OFFSET(SapRecord, refused, 68);
RSW_OFFSET(SapRecord, send_failures, 72);
RSW_OFFSET(SapRecord, connections, 76);

inline constexpr uint32_t record_file_bytes = 4096;

}  // namespace rsw::mts

#endif
