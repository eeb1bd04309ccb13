// SPDX-License-Identifier: Apache-2.0
#include "soak_kernel.h"

#include <errno.h>
#include <net/if.h>

#include <cstring>

#include "support/peer_namespace.h"

namespace soak {
namespace {

using test_support::run_ip;

std::string link_name(uint32_t number) {
  return "soak" + std::to_string(number);
}

}  // namespace

Kernel::~Kernel() {
  if (ip_ != nullptr) pclose(ip_);
}

std::string Kernel::begin() {
  std::string problem = run_ip("link set lo up");
  problem += run_ip("link add left type veth peer name right");
  problem += run_ip("link set left up");
  problem += run_ip("link set right up");
  if (!problem.empty()) return problem;
  right_ = static_cast<int>(if_nametoindex("right"));
  changer_.emplace();
  const auto left = static_cast<int>(if_nametoindex("left"));
  for (uint32_t i = 1; i <= SOAK_FIXED_COUNT; ++i) {
    if (const int error = changer_->add(left, SOAK_FIXED + i, 24); error != 0) return strerror(error);
  }
  return run_ip("route add 198.51.100.0/24 dev left");
}

// ip(8) ends itself after some mistakes: then another one goes on.
void Kernel::tell_ip(const std::string &words) {
  for (int tries = 0; tries < 2; ++tries) {
    if (ip_ == nullptr) ip_ = popen("PATH=$PATH:/usr/sbin:/sbin exec ip -force -batch - >/dev/null 2>&1", "we");
    if (ip_ != nullptr && fprintf(ip_, "%s\n", words.c_str()) > 0 && fflush(ip_) == 0) return;
    if (ip_ != nullptr) pclose(ip_);
    ip_ = nullptr;
  }
  record_.anomaly("ip(8) does not take: " + words);
}

// Some commands may fail, as a route over a link that is gone; so nothing is made of its status.
std::string Kernel::wait_for_ip() {
  if (ip_ != nullptr && pclose(ip_) < 0) return "ip(8) cannot be waited for";
  ip_ = nullptr;
  return "";
}

void Kernel::flip_address(uint32_t index) {
  const uint32_t addr = SOAK_FLIPPING + 1 + index;
  const int error = address_[index] ? changer_->remove(right_, addr, 32) : changer_->add(right_, addr, 32);
  if (error != 0) return record_.anomaly(std::string("the kernel does not change an address: ") + strerror(error));
  address_[index] = !address_[index];
  ++record_.addresses_changed;
}

void Kernel::flip_link(uint32_t number, std::mt19937 &random) {
  const std::string name = link_name(number);
  ++record_.links_changed;
  if (link_[number]) {
    tell_ip("link del " + name);
  } else {
    tell_ip("link add " + name + " mtu " + std::to_string(SOAK_MTU + number) + " type bridge");
    const auto addresses = static_cast<uint32_t>(random() % 5);
    for (uint32_t i = 1; i <= addresses; ++i) {
      tell_ip("addr add 10.4." + std::to_string(number) + "." + std::to_string(i) + "/24 dev " + name);
    }
    if (random() % 4 != 0) tell_ip("link set " + name + " up");
  }
  link_[number] = !link_[number];
}

void Kernel::change_route(std::mt19937 &random) {
  const std::string prefix = "100.64." + std::to_string(random() % SOAK_ROUTE_COUNT) + ".0/24";
  ++record_.routes_changed;
  if (random() % 3 == 0) return tell_ip("route del " + prefix);
  tell_ip("route replace " + prefix + (random() % 2 == 0 ? " via 10.1.0.201 dev left" : " dev right"));
}

void Kernel::change(std::mt19937 &random) {
  for (int i = 0; i < 4; ++i) flip_address(static_cast<uint32_t>(random() % SOAK_FLIPPING_COUNT));
  if (random() % 4 == 0) change_route(random);
  if (random() % 16 == 0) flip_link(static_cast<uint32_t>(random() % SOAK_TRANSIENT_COUNT), random);
}

std::string Kernel::settle() {
  for (uint32_t i = 0; i < SOAK_FLIPPING_COUNT; ++i) {
    if (address_[i]) flip_address(i);
  }
  for (uint32_t i = 0; i < SOAK_TRANSIENT_COUNT; ++i) {
    if (link_[i]) tell_ip("link del " + link_name(i));
    link_[i] = false;
  }
  tell_ip("route flush root 100.64.0.0/10");
  tell_ip("addr flush dev right to 10.5.0.0/16");
  return wait_for_ip();
}

}  // namespace soak
