// SPDX-License-Identifier: Apache-2.0
// How many descriptors ipd may have open: three for each client, and clients are not ours to choose.
#ifndef IPD_PROCESS_DESCRIPTORS_H
#define IPD_PROCESS_DESCRIPTORS_H

#include <string>

namespace ipd {

// As many as whoever started us allows. False: *reason.
bool raise_descriptor_limit(std::string *reason);

}  // namespace ipd

#endif
