// SPDX-License-Identifier: Apache-2.0
// The configuration's routes: multicast static routes and leaks between tables. config.cc calls these.
#ifndef IPD_CONFIG_ROUTES_H
#define IPD_CONFIG_ROUTES_H

#include <string>

#include "ipd/config.h"
#include "ipd/json_reader.h"

namespace ipd {

// One entry of "multicast_routes" or "leaks". Throw JsonRefusal.
void read_multicast_route(const JsonObject &object, Configuration &configuration);
void read_leak(const JsonObject &object, Configuration &configuration);

[[nodiscard]] std::string describe_routes(const Configuration &configuration);

}  // namespace ipd

#endif
