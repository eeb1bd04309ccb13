// SPDX-License-Identifier: Apache-2.0
#include "interface_information.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#define LIBIP_NO_INET_NTOA
#include "ip_api.h"
#include "mts.h"
#include "support/kernel_routes.h"

namespace test_support {
namespace {

InterfaceInformation *reading = nullptr;  // whose message is being parsed: the library's callback has no argument

std::string name_of(const ip_if_info_msg_entry &entry) {
  return {entry.f1, strnlen(entry.f1, sizeof entry.f1)};
}

}  // namespace

InterfaceInformation::InterfaceInformation() {
  EXPECT_EQ(ip_init_mts(&queue_, -1), 1u);
  sap_ = mts_sap_get(queue_);
}

InterfaceInformation::~InterfaceInformation() {
  close_queue();
}

void InterfaceInformation::close_queue() {
  if (queue_ != ~uint32_t{0}) mts_unbind(queue_, 0);
  queue_ = ~uint32_t{0};
}

bool InterfaceInformation::ask(uint32_t mode, uint32_t cookie) {
  return ip_download_if_info(queue_, cookie, mode) == 1;
}

void InterfaceInformation::take(ip_if_info_msg *record) {
  const auto *entries = reinterpret_cast<const ip_if_info_msg_entry *>(record + 1);
  for (uint32_t i = 0; i < record->count; ++i) {
    ip_if_info_msg_entry entry = entries[i];
    if ((entry.f2 & IP_IF_INFO_LAST) != 0) ++reading->full_sets_;
    entry.f2 &= ~IP_IF_INFO_LAST;
    if ((entry.f2 & IP_IF_INFO_REMOVED) != 0) {
      ++reading->removals_;
      if (reading->interfaces_.erase(entry.f0) == 0) ++reading->removals_of_unknown_;
    } else {
      reading->interfaces_[entry.f0] = entry;
    }
  }
}

void InterfaceInformation::read() {
  mts_msg_ref_t message = nullptr;
  while (mts_recv_now(queue_, &message) == 0) {
    ++messages_;
    EXPECT_EQ(mts_opc_get(message), IP_OPCODE_IF_INFO);
    EXPECT_LE(mts_payload_size(message), IP_MAX_IPC_PAYLOAD);
    reading = this;
    EXPECT_EQ(ip_parse_if_info_notification(message, take), 1u);
    mts_drop(queue_, message);
  }
}

const ip_if_info_msg_entry *InterfaceInformation::find(const std::string &name) const {
  for (const auto &[iod, entry] : interfaces_) {
    if (name_of(entry) == name) return &entry;
  }
  return nullptr;
}

std::string InterfaceInformation::picture() const {
  std::map<uint32_t, std::string> by_ifindex;
  for (const auto &[iod, entry] : interfaces_) {
    std::string text = std::to_string(entry.f3) + " " + name_of(entry) + " mtu " + std::to_string(entry.f9);
    if ((entry.f2 & IP_IF_INFO_UP) != 0) text += " up";
    if ((entry.f2 & IP_IF_INFO_ADMIN_UP) != 0) text += " admin-up";
    if ((entry.f2 & IP_IF_INFO_LOOPBACK) != 0) text += " loopback";
    if ((entry.f2 & IP_IF_INFO_MULTICAST) != 0) text += " multicast";
    text += "\n";
    if (entry.f4 != 0) text += "    " + dotted(entry.f4) + "/" + std::to_string(entry.f8) + "\n";
    by_ifindex[entry.f3] += text;
  }
  std::string all;
  for (const auto &[ifindex, text] : by_ifindex) all += text;
  return all;
}

std::string first_addresses_of(const std::string &picture) {
  std::istringstream lines(picture);
  std::string kept;
  bool had_address = false;
  for (std::string line; std::getline(lines, line);) {
    const bool is_address = line.starts_with(" ");
    if (!is_address || !had_address) kept += line + "\n";
    had_address = is_address;
  }
  return kept;
}

}  // namespace test_support
