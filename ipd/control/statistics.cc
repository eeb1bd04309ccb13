// SPDX-License-Identifier: Apache-2.0
#include "ipd/control/statistics.h"

#include <array>
#include <cerrno>

#include "ip_msg.h"
#include "ipd/control/reply.h"

namespace ipd::control {
namespace {

struct Counter {
  uint32_t number;  // IP_IF_STAT_...
  decltype(rtnl_link_stats64::rx_packets) rtnl_link_stats64::*of_kernel;
};

constexpr std::array<Counter, 16> all_counters{{
    {IP_IF_STAT_RX_PACKETS, &rtnl_link_stats64::rx_packets},
    {IP_IF_STAT_TX_PACKETS, &rtnl_link_stats64::tx_packets},
    {IP_IF_STAT_RX_BYTES, &rtnl_link_stats64::rx_bytes},
    {IP_IF_STAT_TX_BYTES, &rtnl_link_stats64::tx_bytes},
    {IP_IF_STAT_RX_ERRORS, &rtnl_link_stats64::rx_errors},
    {IP_IF_STAT_TX_ERRORS, &rtnl_link_stats64::tx_errors},
    {IP_IF_STAT_RX_DROPPED, &rtnl_link_stats64::rx_dropped},
    {IP_IF_STAT_TX_DROPPED, &rtnl_link_stats64::tx_dropped},
    {IP_IF_STAT_MULTICAST, &rtnl_link_stats64::multicast},
    {IP_IF_STAT_COLLISIONS, &rtnl_link_stats64::collisions},
    {IP_IF_STAT_RX_LENGTH_ERRORS, &rtnl_link_stats64::rx_length_errors},
    {IP_IF_STAT_RX_CRC_ERRORS, &rtnl_link_stats64::rx_crc_errors},
    {IP_IF_STAT_RX_FRAME_ERRORS, &rtnl_link_stats64::rx_frame_errors},
    {IP_IF_STAT_RX_MISSED_ERRORS, &rtnl_link_stats64::rx_missed_errors},
    {IP_IF_STAT_TX_CARRIER_ERRORS, &rtnl_link_stats64::tx_carrier_errors},
    {IP_IF_STAT_RX_NOHANDLER, &rtnl_link_stats64::rx_nohandler},
}};
static_assert(all_counters.size() == sizeof(ip_msg_if_stats_reply::counters) / (2 * sizeof(uint32_t)),
              "a counter that is not in the table would be told as 0");

}  // namespace

Refusal Statistics::handle(const Request &request) {
  // Sent without asking for a response, it has nowhere to be answered to.
  if (!request.wants_answer) return Refusal::bad_field;
  const auto asked = request.as<ip_msg_if_stats_request>();
  const auto facts = box_.interface(asked.iod);
  if (!facts) return Refusal::no_interface;

  rtnl_link_stats64 counted{};
  if (const int error = counters_.read(facts->state.ifindex, &counted); error != 0) {
    // The kernel may have removed it a moment ago.
    return error == ENODEV ? Refusal::no_interface : Refusal::kernel;
  }
  ip_msg_if_stats_reply reply{};
  reply.header = reply_header(IP_MSG_GET_IF_STATS);
  reply.iod = asked.iod;
  reply.count = static_cast<uint32_t>(all_counters.size());
  for (const Counter &counter : all_counters) {
    const uint64_t value = counted.*counter.of_kernel;
    reply.counters[counter.number][0] = static_cast<uint32_t>(value);
    reply.counters[counter.number][1] = static_cast<uint32_t>(value >> 32);
  }
  return transport_.answer(request, std::as_bytes(std::span(&reply, 1))) == 0 ? Refusal::none : Refusal::no_answer;
}

}  // namespace ipd::control
