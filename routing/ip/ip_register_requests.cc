// SPDX-License-Identifier: Apache-2.0
// Requests to the IP process that nobody waits for: groups and channels, multicast on and off, unnumbered interfaces,
// the link-local report.
//
// All of them look alike: refuse what cannot be meant, build a message of zeros, write what is asked, send it on the
// client's control queue. Eight of them differ only in their minor type and in which of group, source and interface
// they name, so those are one function. None asks whether the process is attached: without a control queue the
// transport refuses the message.
#include "im.h"
#include "ip_api.h"
#include "message.h"
#include "report.h"

namespace libip {
namespace {

bool is_group(uint32_t addr) {
  return addr >> 28 == 0xe;
}

// Group 0 is the interface as a whole; source 0 is any source.
uint32_t send_membership(uint16_t minor_type, uint32_t group, uint32_t source, uint32_t iod) {
  auto message = begin_message<ip_msg_group>(minor_type);
  message.group = group;
  message.source = source;
  message.iod = iod;
  return ip_mts_send(as_message(message));
}

uint32_t send_interface(uint16_t minor_type, uint32_t iod) {
  return iod == 0 ? 0 : send_membership(minor_type, 0, 0, iod);
}

uint32_t send_group(uint16_t minor_type, uint32_t group, uint32_t iod) {
  return !is_group(group) || iod == 0 ? 0 : send_membership(minor_type, group, 0, iod);
}

uint32_t send_channel(uint16_t minor_type, uint32_t group, uint32_t source, uint32_t iod) {
  return !is_group(group) || is_group(source) || iod == 0 ? 0 : send_membership(minor_type, group, source, iod);
}

// The same with an interface index, for `name`, whose arguments were checked.
uint32_t send_group_by_index(const char *name, uint16_t minor_type, uint32_t group, uint32_t ifindex) {
  auto message = begin_message<ip_msg_group>(minor_type);
  message.group = group;
  if (im_get_iod_frm_ifindex(ifindex, &message.iod) != 0) {
    if (dbg_ip_api_misc != 0) debug_line("%s: bad if_index 0x%x\n", name, ifindex);
    return 0;
  }
  return ip_mts_send(as_message(message));
}

// A registration without a name and without queues. It takes the control queue away from the process, if it had one.
bool register_if_needed() {
  if (ip_register_done != 0) return true;
  struct ip_client *client = ip_api_init();
  constexpr uint32_t mode = 1;
  return client != nullptr && ip_register(nullptr, no_queue, no_queue, 0, mode, client, 0, 0) != 0;
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_enable_multicast(uint32_t iod) {
  return libip::send_interface(IP_MSG_JOIN_GROUP, iod);
}

uint32_t ip_disable_multicast(uint32_t iod) {
  return libip::send_interface(IP_MSG_LEAVE_GROUP, iod);
}

uint32_t ip_join_group(uint32_t group, uint32_t iod) {
  return libip::send_group(IP_MSG_JOIN_GROUP, group, iod);
}

uint32_t ip_leave_group(uint32_t group, uint32_t iod) {
  return libip::send_group(IP_MSG_LEAVE_GROUP, group, iod);
}

uint32_t ip_join_channel(uint32_t group, uint32_t source, uint32_t iod) {
  return libip::send_channel(IP_MSG_JOIN_GROUP, group, source, iod);
}

uint32_t ip_leave_channel(uint32_t group, uint32_t source, uint32_t iod) {
  return libip::send_channel(IP_MSG_LEAVE_GROUP, group, source, iod);
}

// Only the join registers: who leaves a group without having registered is in none.
uint32_t ip_join_group_if(uint32_t group, uint32_t ifindex) {
  if (!libip::is_group(group) || ifindex == 0) return 0;
  if (!libip::register_if_needed()) return 0;
  return libip::send_group_by_index("ip_join_group_if", IP_MSG_JOIN_GROUP, group, ifindex);
}

uint32_t ip_leave_group_if(uint32_t group, uint32_t ifindex) {
  if (!libip::is_group(group) || ifindex == 0) return 0;
  return libip::send_group_by_index("ip_leave_group_if", IP_MSG_LEAVE_GROUP, group, ifindex);
}

uint32_t ip_report_link_local(uint32_t ref, uint32_t value) {
  if (ref == 0) return 0;
  auto message = libip::begin_message<ip_msg_link_local>(IP_MSG_REPORT_LINK_LOCAL);
  message.value = value;
  message.ref = ref;
  return ip_mts_send(libip::as_message(message));
}

uint32_t ip_set_unnumbered(uint32_t iod, const char *name) {
  if (iod == 0 || name == nullptr || *name == '\0') return 0;
  auto message = libip::begin_message<ip_msg_unnumbered>(IP_MSG_SET_UNNUMBERED);
  message.iod = iod;
  libip::copy_text(message.lender, name);
  return ip_mts_send(libip::as_message(message));
}

uint32_t ip_unset_unnumbered(uint32_t iod) {
  if (iod == 0) return 0;
  auto message = libip::begin_message<ip_msg_unnumbered>(IP_MSG_UNSET_UNNUMBERED);
  message.iod = iod;
  return ip_mts_send(libip::as_message(message));
}

}  // extern "C"
