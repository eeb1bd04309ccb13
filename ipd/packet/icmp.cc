// SPDX-License-Identifier: Apache-2.0
#include "ipd/packet/icmp.h"

#include <algorithm>
#include <array>

namespace ipd::packet::icmp {
namespace {

struct Errors {
  uint32_t type;
  uint32_t codes;  // a bit for each
};

constexpr uint32_t codes_up_to(uint32_t last) {
  return (2u << last) - 1;
}
constexpr uint32_t code(uint32_t number) {
  return 1u << number;
}

// No source quench: nobody sends it any more (RFC 6633, section 3). No redirects for networks: a router must not send
// them (RFC 1812, section 5.2.7.2).
constexpr std::array errors = {
    Errors{unreachable, codes_up_to(15)},   // RFC 792: 0 to 5; RFC 1122, 3.2.2.1: to 12; RFC 1812, 5.2.7.1: to 15
    Errors{redirect, code(1) | code(3)},    // RFC 792, RFC 1812, 5.2.7.2: for a host, for a host and type of service
    Errors{time_exceeded, codes_up_to(1)},  // RFC 792
    Errors{parameter_problem, codes_up_to(1)},  // RFC 792: 0; RFC 1122, 3.2.2.5: 1, a required option is missing
};

}  // namespace

bool is_error_to_send(uint32_t type, uint32_t number) {
  const auto *const found = std::ranges::find(errors, type, &Errors::type);
  return found != errors.end() && number < 32 && (found->codes & code(number)) != 0;
}

// RFC 792, RFC 950, RFC 1256, RFC 8335.
bool is_query(uint8_t type) {
  return type == echo_reply || type == echo_request || type == router_advertisement || type == router_solicitation ||
         (type >= timestamp_request && type <= address_mask_reply) || type == extended_echo_request ||
         type == extended_echo_reply;
}

}  // namespace ipd::packet::icmp
