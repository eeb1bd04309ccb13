// SPDX-License-Identifier: Apache-2.0
// Round trips over D-Bus (libdbus): between two processes on a connection of their own, and over a bus of their own.
#ifndef BENCH_MTS_BENCH_DBUS_H
#define BENCH_MTS_BENCH_DBUS_H

#include <cstdint>
#include <string>

struct DBusConnection;

namespace dbus_peer {

// Answers every method call with the bytes that it carried, until its process ends.
int serve_direct(const std::string &address);
int serve_on_bus(const std::string &address);

// Null: nobody is there yet.
DBusConnection *connect_direct(const std::string &address);
DBusConnection *connect_to_bus(const std::string &address);

// One call and its answer; false: none came, or one of another size.
bool call(DBusConnection *connection, const uint8_t *bytes, uint32_t size);

// What a bus reads that everybody may use.
std::string bus_configuration(const std::string &address);

}  // namespace dbus_peer

#endif
