// SPDX-License-Identifier: Apache-2.0
#include "mts_bench_dbus.h"

#include <dbus/dbus.h>
#include <poll.h>

namespace dbus_peer {
namespace {

constexpr char name[] = "bench.Echo";
constexpr char path[] = "/bench";

DBusHandlerResult echo(DBusConnection *connection, DBusMessage *message, void *) {
  if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  const uint8_t *bytes = nullptr;
  int count = 0;
  if (dbus_message_get_args(message, nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, &count, DBUS_TYPE_INVALID) ==
      FALSE) {
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  DBusMessage *reply = dbus_message_new_method_return(message);
  dbus_message_append_args(reply, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, count, DBUS_TYPE_INVALID);
  dbus_connection_send(connection, reply, nullptr);
  dbus_message_unref(reply);
  return DBUS_HANDLER_RESULT_HANDLED;
}

int answer_on(DBusConnection *connection) {
  if (dbus_connection_add_filter(connection, echo, nullptr, nullptr) == FALSE) return 1;
  while (dbus_connection_read_write_dispatch(connection, -1) == TRUE) {
  }
  return 0;
}

DBusConnection *accepted = nullptr;
DBusWatch *listening = nullptr;

void keep_connection(DBusServer *, DBusConnection *fresh, void *) {
  accepted = dbus_connection_ref(fresh);
}

dbus_bool_t keep_watch(DBusWatch *watch, void *) {
  listening = watch;
  return TRUE;
}

DBusConnection *opened(const std::string &address) {
  DBusConnection *connection = dbus_connection_open_private(address.c_str(), nullptr);
  if (connection != nullptr) dbus_connection_set_exit_on_disconnect(connection, FALSE);
  return connection;
}

}  // namespace

int serve_direct(const std::string &address) {
  DBusServer *server = dbus_server_listen(address.c_str(), nullptr);
  if (server == nullptr) return 1;
  dbus_server_set_new_connection_function(server, keep_connection, nullptr, nullptr);
  if (dbus_server_set_watch_functions(server, keep_watch, nullptr, nullptr, nullptr, nullptr) == FALSE) return 1;
  while (accepted == nullptr) {
    pollfd incoming{dbus_watch_get_unix_fd(listening), POLLIN, 0};
    if (poll(&incoming, 1, -1) == 1) dbus_watch_handle(listening, DBUS_WATCH_READABLE);
  }
  return answer_on(accepted);
}

int serve_on_bus(const std::string &address) {
  DBusConnection *connection = connect_to_bus(address);
  while (connection == nullptr) {
    poll(nullptr, 0, 10);  // the bus starts
    connection = connect_to_bus(address);
  }
  if (dbus_bus_request_name(connection, name, 0, nullptr) != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) return 1;
  return answer_on(connection);
}

DBusConnection *connect_direct(const std::string &address) {
  return opened(address);
}

DBusConnection *connect_to_bus(const std::string &address) {
  DBusConnection *connection = opened(address);
  if (connection != nullptr && dbus_bus_register(connection, nullptr) == FALSE) return nullptr;
  return connection;
}

bool call(DBusConnection *connection, const uint8_t *bytes, uint32_t size) {
  DBusMessage *request = dbus_message_new_method_call(name, path, name, "Echo");
  dbus_message_append_args(request, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, static_cast<int>(size), DBUS_TYPE_INVALID);
  DBusMessage *reply = dbus_connection_send_with_reply_and_block(connection, request, 10000, nullptr);
  dbus_message_unref(request);
  if (reply == nullptr) return false;
  const uint8_t *answer = nullptr;
  int count = 0;
  const bool whole = dbus_message_get_args(reply, nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &answer, &count,
                                           DBUS_TYPE_INVALID) == TRUE &&
                     count == static_cast<int>(size);
  dbus_message_unref(reply);
  return whole;
}

std::string bus_configuration(const std::string &address) {
  return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
         " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
         "<busconfig><type>session</type><listen>" +
         address +
         "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
         "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
}

}  // namespace dbus_peer
