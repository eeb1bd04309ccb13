// SPDX-License-Identifier: Apache-2.0
#include "packet_commands.h"

#include <fmt/format.h>

#include <charconv>

#include "arguments.h"
#include "capture.h"
#include "ip_api.h"
#include "limit_option.h"
#include "ping.h"
#include "show_commands.h"

namespace ipsh {
namespace {

bool refuse(std::string_view option, const std::string &given, const char *accepts, Failure *failure) {
  *failure = {ExitCode::usage, fmt::format("{}: '{}' is not accepted here", option, given), accepts};
  return false;
}

// A number, or a keyword as in "ospf".
bool decode_protocol(const std::string &given, uint32_t *protocol, Failure *failure) {
  if (given.empty()) return true;
  const auto [end, error] = std::from_chars(given.data(), given.data() + given.size(), *protocol);
  if (error == std::errc() && end == given.data() + given.size() && *protocol <= 255) return true;
  constexpr uint32_t no_such_keyword = 255;
  *protocol = ip_get_proto_num(given.c_str());
  return *protocol != no_such_keyword ||
         refuse("--protocol", given, "give a number from 0 to 255, or a keyword such as ospf", failure);
}

bool decode_direction(const std::string &given, uint32_t *directions, Failure *failure) {
  if (given.empty()) return true;
  *directions = given == "in" ? IP_SHOW_TO_CLIENT : IP_SHOW_FROM_CLIENT;
  return given == "in" || given == "out" ||
         refuse("--direction", given, "give in (to clients) or out (from clients)", failure);
}

bool decode_capture(const Options &options, CaptureOrder *order, Failure *failure) {
  std::optional<uint32_t> snap_len;
  if (!decode_limit("--count", options.count, "give a number of packets, 1 or more", &order->count, failure) ||
      !decode_limit("--snap-length", options.snap_length, "give a number of bytes, 1 or more", &snap_len, failure) ||
      !decode_protocol(options.protocol, &order->filter.protocol, failure) ||
      !decode_direction(options.direction, &order->filter.directions, failure)) {
    return false;
  }
  order->filter.snap_len = snap_len.value_or(0);
  order->file = options.file;
  return true;
}

ExitCode capture_packets(const Options &options, const Printers &printers, Failure *failure) {
  CaptureOrder order;
  if (!decode_capture(options, &order, failure)) return failure->code;
  const std::unique_ptr<Attachment> attachment = attach(failure);
  if (!attachment) return failure->code;
  Selection selection;
  if (!select(options, &selection, failure)) return failure->code;
  order.filter.iod = selection.iod.value_or(0);
  return capture(order, printers.captured, failure);
}

void add_capture(CommandTree *tree) {
  CLI::App *command = tree->app.add_subcommand("capture", "packets as they pass between ipd and its clients");
  Options &options = tree->options;
  command->add_option("-w,--write", options.file, "write them to this file as pcapng (-: to standard output)")
      ->type_name("<file>");
  command->add_option("-c,--count", options.count, "end after so many packets")->type_name("<number>");
  command->add_option("--interface", options.interface, "only of messages that name this interface: its iod or name")
      ->type_name("<interface>");
  command->add_option("--protocol", options.protocol, "only of this IP protocol: a number or a keyword")
      ->type_name("<protocol>");
  command->add_option("--direction", options.direction, "in: to clients; out: from clients (else both)")
      ->type_name("<direction>");
  command->add_option("-s,--snap-length", options.snap_length, "so many bytes of each packet at most")
      ->type_name("<number>");
  command->footer("Packets are shown as clients hand them over and as they get them, with what became of them.\n\n" +
                  examples("ipsh capture --protocol ospf\n  ipsh capture -c 100 -w packets.pcapng\n"
                           "  ipsh capture -w - | tshark -r -"));
  tree->add_leaf(command, capture_packets, {"captured"});
}

bool decode_ping(const Options &options, PingOrder *order, Failure *failure) {
  ArgumentValue value;
  if (options.address.empty()) {
    *failure = {ExitCode::usage, "ping: the address is missing", "give an IPv4 address: 10.1.2.3 or 0x0a010203"};
    return false;
  }
  if (!decode_argument(ArgumentType::address, "address", options.address, false, &value, failure)) return false;
  order->destination = value.number;
  std::optional<double> wait, interval;
  if (!decode_limit("--count", options.count, "give a number of requests, 1 or more", &order->count, failure) ||
      !decode_limit("--wait", options.wait, "give seconds, above 0, such as 5 or 0.5", &wait, failure) ||
      !decode_limit("--interval", options.interval, "give seconds, above 0, such as 1 or 0.1", &interval, failure)) {
    return false;
  }
  order->wait = wait.value_or(order->wait);
  order->interval = interval.value_or(order->interval);
  if (options.data_size.empty()) return true;
  return (decode_argument(ArgumentType::number, "--size", options.data_size, false, &value, failure) &&
          (order->data = value.number) <= most_echo_data) ||
         refuse("--size", options.data_size, "give a number of bytes from 0 to 65507", failure);
}

ExitCode ping_address(const Options &options, const Printers &printers, Failure *failure) {
  PingOrder order;
  if (!decode_ping(options, &order, failure)) return failure->code;
  const std::unique_ptr<Attachment> attachment = attach(failure);
  if (!attachment) return failure->code;
  Selection selection;
  if (!select(options, &selection, failure)) return failure->code;
  order.iod = selection.iod.value_or(0);
  return ping(order, printers.ping, failure);
}

void add_ping(CommandTree *tree) {
  CLI::App *command = tree->app.add_subcommand("ping", "ICMP echo requests, sent and received through ipd");
  Options &options = tree->options;
  command->add_option("address", options.address, "the address, such as 10.1.2.3")->type_name("<address>");
  command->add_option("-c,--count", options.count, "so many requests (else until interrupted)")->type_name("<number>");
  command->add_option("-s,--size", options.data_size, "bytes of data in each (else 56)")->type_name("<number>");
  command->add_option("-W,--wait", options.wait, "wait so long for the last reply (else 2)")->type_name("<seconds>");
  command->add_option("-I,--interface", options.interface, "by this interface: its iod or name (else the route says)")
      ->type_name("<interface>");
  command->add_option("-i,--interval", options.interval, "between two requests (else 1)")->type_name("<seconds>");
  command->footer(examples("ipsh ping 10.0.0.2 -c 3\n  ipsh ping 10.0.0.2 --interface eth0 --size 1400"));
  tree->add_leaf(command, ping_address, {"ping-event", "ping"});
}

}  // namespace

void add_packets(CommandTree *tree) {
  add_capture(tree);
  add_ping(tree);
}

}  // namespace ipsh
