// SPDX-License-Identifier: Apache-2.0
// The shared list of the multicast groups that are joined on an interface.
#ifndef IPD_PUBLISH_GROUP_LIST_H
#define IPD_PUBLISH_GROUP_LIST_H

#include <vector>

#include "ipd/publish/picture.h"

namespace ipd {

// One store, whatever the difference. False: no storage, nothing changed.
[[nodiscard]] bool replace_groups(rsw::Arena &arena, Interface &interface, const std::vector<GroupState> &groups);

}  // namespace ipd

#endif
