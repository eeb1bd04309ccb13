// SPDX-License-Identifier: Apache-2.0
#include "control_peer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ip_msg.h"
#include "ip_show.h"
#include "mts/mts_server.h"

namespace test_support {
namespace {

std::string dotted_text(uint32_t addr) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    text += std::to_string(addr >> shift & 0xff);
    if (shift > 0) text += '.';
  }
  return text;
}

template <class Record>
Record as(mts_msg_ref_t message) {
  Record record{};
  const void *payload = mts_payload_get(message);
  if (payload != nullptr) std::memcpy(&record, payload, std::min<size_t>(sizeof record, mts_payload_size(message)));
  return record;
}

template <class Record>
void send(uint32_t queue, mts_msg_ref_t request, uint32_t opcode, Record record) {
  rsw::MtsSender sender{};
  EXPECT_TRUE(rsw::mts_sender(request, &sender));
  mts_send_opts options{{1}};
  EXPECT_EQ(mts_send(queue, IP_NODE_LOCAL, sender.sap, opcode, &record, sizeof record, nullptr, 0, &options), 0)
      << std::strerror(errno);
}

}  // namespace

ControlPeer::ControlPeer(ipd::Publisher &publisher, ControlBehaviour behaviour)
    : publisher_(publisher), behaviour_(behaviour) {
  mts_bind_opts options{1, 1, 1024, 267, 0, 15};
  queue_ = mts_bind(1, IP_SAP_CONTROL, &options, "control peer");
  EXPECT_NE(queue_, ~0u) << std::strerror(errno);
  EXPECT_EQ(mts_recv_q_unblock(queue_), 0);
  thread_ = std::thread([this] { serve(); });
}

ControlPeer::~ControlPeer() {
  mts_unbind(queue_, 0);
  thread_.join();
}

std::vector<std::string> ControlPeer::requests() {
  const std::lock_guard guard(mutex_);
  return requests_;
}

bool ControlPeer::saw(const std::string &request) {
  const std::vector<std::string> all = requests();
  return std::ranges::find(all, request) != all.end();
}

void ControlPeer::serve() {
  mts_recv_opts options{{1}};
  for (;;) {
    mts_msg_ref_t message = nullptr;
    if (mts_recv(queue_, &message, &options) != 0) {
      if (errno == EBADF) return;
      continue;  // a client that was answered has gone
    }
    std::string request = take(message);
    mts_drop(queue_, message);
    const std::lock_guard guard(mutex_);
    if (!request.empty()) requests_.push_back(std::move(request));
  }
}

std::string ControlPeer::take(mts_msg_ref_t message) {
  const auto minor = as<ip_msg_header>(message).minor_type;
  const auto group = as<ip_msg_group>(message);
  const auto loan = as<ip_msg_unnumbered>(message);
  const std::string lender(loan.lender, strnlen(loan.lender, sizeof loan.lender));
  const auto address = as<ip_msg_config_address>(message);
  const std::string membership =
      dotted_text(group.group) + " " + dotted_text(group.source) + " " + std::to_string(group.iod);
  switch (minor) {
    case IP_MSG_REGISTER:
      take_registration(message);
      return "register";
    case IP_MSG_DEREGISTER:
      return "deregister";
    case IP_MSG_JOIN_GROUP:
      if (behaviour_.does) show_group(group.group, group.iod);
      return "join " + membership;
    case IP_MSG_LEAVE_GROUP:
      return "leave " + membership;
    case IP_MSG_SET_UNNUMBERED:
      if (behaviour_.does) {
        EXPECT_TRUE(publisher_.set_unnumbered(loan.iod, 1, lender) && publisher_.commit()) << publisher_.last_error();
      }
      return "set " + std::to_string(loan.iod) + " " + lender;
    case IP_MSG_UNSET_UNNUMBERED:
      if (behaviour_.does) {
        EXPECT_TRUE(publisher_.set_unnumbered(loan.iod, 0, "") && publisher_.commit()) << publisher_.last_error();
      }
      return "unset " + std::to_string(loan.iod);
    case IP_MSG_CONFIG_ADDRESS:
      if (behaviour_.answers) answer_configuration(message);
      return "configure " + dotted_text(address.address) + "/" + std::to_string(address.mask_len) + " " +
             std::to_string(address.iod);
    case IP_MSG_SHOW_CLIENTS:
      show_sender(message);
      return "";
    default:
      return "minor type " + std::to_string(minor);
  }
}

void ControlPeer::take_registration(mts_msg_ref_t message) {
  ip_msg_register_reply reply{};
  reply.major_type = IP_MAJOR_CLIENT;
  reply.minor_type = IP_MSG_REGISTER_REPLY;
  reply.result = behaviour_.accepts ? 1 : 0;
  send(queue_, message, IP_OPCODE_CLIENT, reply);
}

// Of the published system, iods are ifindexes, and tun0 is the one without multicast.
void ControlPeer::show_group(uint32_t group, uint32_t iod) {
  if (group != 0) {
    EXPECT_TRUE(publisher_.set_groups(iod, {{.group = group, .data = 0}})) << publisher_.last_error();
  } else {
    EXPECT_TRUE(publisher_.set_interface({.ifindex = iod,
                                          .name = "tun0",
                                          .up = true,
                                          .admin_up = true,
                                          .loopback = false,
                                          .multicast = true,
                                          .forwarding = false,
                                          .directed_broadcast = false,
                                          .mtu = 1476,
                                          .context_id = 1}))
        << publisher_.last_error();
  }
  EXPECT_TRUE(publisher_.commit()) << publisher_.last_error();
}

void ControlPeer::answer_configuration(mts_msg_ref_t message) {
  ip_msg_config_reply reply{};
  reply.header.major_type = IP_MAJOR_CLIENT;
  reply.header.minor_type = IP_MSG_CONFIG_ADDRESS;
  reply.status = behaviour_.status;
  reply.cfg_result = behaviour_.result;
  send(queue_, message, IP_OPCODE_CONFIGURE, reply);
}

// What ipd knows of who asks.
void ControlPeer::show_sender(mts_msg_ref_t message) {
  struct {
    ip_msg_show_reply head;
    ip_show_client entry;
  } reply{};
  rsw::MtsSender sender{};
  EXPECT_TRUE(rsw::mts_sender(message, &sender));
  reply.head.count = 1;
  reply.head.entry_size = sizeof reply.entry;
  reply.entry.pid = static_cast<uint32_t>(sender.pid);
  reply.entry.refused = behaviour_.refuses ? 1 : 0;
  EXPECT_EQ(rsw::mts_reply(queue_, message, IP_OPCODE_CLIENT, &reply, sizeof reply), 0) << std::strerror(errno);
}

}  // namespace test_support
