// SPDX-License-Identifier: Apache-2.0
// Why the system treats an address as it does: what the address is here, which route it takes step by step, which
// source address a packet to it carries by which rule, and where multicast traffic from it has to come in.
#ifndef IPSH_EXPLAIN_H
#define IPSH_EXPLAIN_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "exit_code.h"
#include "routes.h"
#include "urib.h"

namespace ipsh {

struct NamedInterface {
  uint32_t iod = 0;  // 0: none
  std::string name;
};

// Whose address it is.
struct AddressFacts {
  bool multicast = false;                    // a group
  bool martian = false;                      // no host may have it
  NamedInterface local;                      // the interface that holds it
  bool is_virtual = false, active = false;   // of a local one
  NamedInterface attached;                   // the interface on whose subnet it is
  std::vector<NamedInterface> broadcast_of;  // interfaces with a subnet whose broadcast or network address it is
};

// How ip_get_route comes to its answer.
enum class SourceRule {
  multicast_destination,  // none: groups have no route here
  no_path,                // none
  longest_subnet,         // of the outgoing interface: the subnet that holds the destination, the longest
  primary,                // of the outgoing interface: no subnet holds the destination
  borrowed,               // the outgoing interface is unnumbered: its lender's primary address
  leaked,                 // the path ends in another context's table: the context's lowest active address
  no_interface_address,   // the outgoing interface has none: the context's lowest active address
  changed,                // the system changed while it was asked
};
[[nodiscard]] const char *to_text(SourceRule rule);

struct SourceFacts {
  SourceRule rule = SourceRule::no_path;
  uint32_t addr = 0;      // host order; 0: none
  uint8_t mask_len = 0;   // of longest_subnet and primary
  NamedInterface lender;  // of borrowed
};

enum class ReversePathRule {
  none,
  attached,          // the source's subnet
  multicast_static,  // a multicast static route
};
[[nodiscard]] const char *to_text(ReversePathRule rule);

struct ReversePathFacts {
  ReversePathRule rule = ReversePathRule::none;
  NamedInterface interface;
  uint32_t neighbour = 0;             // host order; 0: none, or the source itself
  std::optional<rsw::Route> mstatic;  // the multicast static route for the address, used or not
};

struct Explanation {
  uint32_t addr;
  uint32_t context_id;
  std::string context;
  uint32_t table;
  AddressFacts facts;
  std::vector<rsw::PathStep> steps;
  bool reachable;
  urib_path path;  // of a reachable one
  SourceFacts source;
  ReversePathFacts reverse;
  RouteNames names;
};

// False, with *failure: no such context, or no route tables.
[[nodiscard]] bool explain(uint32_t addr, uint32_t context_id, Explanation *explanation, Failure *failure);

// The sentences of an explanation, each under its subject.
struct ExplainedLine {
  std::string subject;
  std::string sentence;
};
[[nodiscard]] std::vector<ExplainedLine> sentences_of(const Explanation &explanation);

}  // namespace ipsh

#endif
