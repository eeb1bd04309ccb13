// SPDX-License-Identifier: Apache-2.0
// The names of SAPs: files in the run directory.
//
//   mts/              0755, the owner's: fixed SAPs, which nobody else can take
//   mts/dynamic/      01777: dynamic SAPs, where each user has its own files
//   .../SAP           the socket that senders connect to
//   .../SAP.queue     locked by the process that has the SAP; what is in it, others may read: see SapRecord
//
// The lock is an open-file-description write lock: the kernel drops it with the process. So whoever gets it has the
// SAP, and a socket that is there is a dead process's. A reader who locks the file for reading, which anybody may, does
// not hold the SAP; its file is put aside.
#ifndef RSW_MTS_SAP_FILES_H
#define RSW_MTS_SAP_FILES_H

#include <cstdint>
#include <string>

#include "mts/connection.h"
#include "mts/sap_record.h"

namespace rsw::mts {

struct BoundSap {
  uint32_t sap = 0;
  Descriptor directory;  // mts/
  Descriptor lock;       // SAP.queue
  Descriptor socket;     // bound, does not listen
};

// Takes a SAP, -1 for a dynamic one. 0, or an errno: EADDRINUSE, EACCES, ...
int bind_sap(int32_t sap, BoundSap *bound);
// Takes its files away.
void release_sap(const BoundSap &bound);
// Connects a socket to who listens on a SAP. 0, or an errno; ECONNREFUSED when nobody does.
int connect_sap(int directory, int socket, uint32_t sap);
// Whether a process with these credentials may say that it sends from a SAP.
bool may_send_from(int directory, uint32_t sap, const ucred &credentials);

// A record that is mapped from the lock's file; null: *error.
SapRecord *map_record(const BoundSap &bound, int *error);
void unmap_record(SapRecord *record);

}  // namespace rsw::mts

#endif
