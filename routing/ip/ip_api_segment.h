// SPDX-License-Identifier: Apache-2.0
// What the start and stop code needs of the segment beyond the exported functions.
#ifndef IP_API_SEGMENT_H
#define IP_API_SEGMENT_H

#include "segment_descriptor.h"

namespace libip {

// Gives the segment back, if there is one: ip_shseg and ip_api_data are null afterwards, the copies for a core dump
// stay.
void detach_segment();

}  // namespace libip

#endif
