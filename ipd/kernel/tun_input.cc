// SPDX-License-Identifier: Apache-2.0
// The kernel checks the source of what comes in by an interface against its routes, and no route leads to this device.
// So its own rp_filter is off. Where the setting for all interfaces is on, the greater one of the two counts, and of a
// device without an address even the loose check lets nothing pass: then there is no device, rather than one that loses
// everything.
//
// What the kernel would send out by the device is never read: no route leads there, and IPv6 is off on it.
#include "ipd/kernel/tun_input.h"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace ipd::kernel {
namespace {

constexpr const char *device = "/dev/net/tun";
constexpr const char *name_pattern = "rswin%d";
constexpr int mtu = 65535;

class Tun final : public TunInput {
 public:
  Tun() = default;
  ~Tun() override { close(); }
  Tun(const Tun &) = delete;
  Tun &operator=(const Tun &) = delete;

  int open() override;
  void close() override;
  [[nodiscard]] uint32_t ifindex() const override { return ifindex_; }
  int input(std::span<const std::byte> packet) override;

 private:
  int make_device();

  int descriptor_ = -1;
  uint32_t ifindex_ = 0;
  int error_ = EBADF;  // of input(), while it is not open
};

std::string read_setting(const std::string &file) {
  char text[16] = "";
  FILE *stream = std::fopen(file.c_str(), "re");
  if (stream == nullptr) return "";
  if (std::fgets(text, sizeof text, stream) == nullptr) text[0] = '\0';
  std::fclose(stream);
  return text;
}

int write_setting(const std::string &file, const char *text) {
  const int descriptor = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);
  if (descriptor < 0) return errno;
  const int error = write(descriptor, text, std::strlen(text)) < 0 ? errno : 0;
  ::close(descriptor);
  return error;
}

int let_every_source_pass(const std::string &name) {
  const std::string settings = "/proc/sys/net/ipv4/conf/";
  const std::string for_all = read_setting(settings + "all/rp_filter");
  if (!for_all.empty() && for_all[0] != '0') return ENOTSUP;
  return write_setting(settings + name + "/rp_filter", "0");
}

// A packet of any length goes in; and up, without multicast, which nobody could have joined there.
int prepare(ifreq request) {
  const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (control < 0) return errno;
  int error = 0;
  request.ifr_mtu = mtu;
  if (ioctl(control, SIOCSIFMTU, &request) != 0) error = errno;
  if (error == 0 && ioctl(control, SIOCGIFFLAGS, &request) != 0) error = errno;
  request.ifr_flags = static_cast<short>((request.ifr_flags & ~IFF_MULTICAST) | IFF_UP);
  if (error == 0 && ioctl(control, SIOCSIFFLAGS, &request) != 0) error = errno;
  ::close(control);
  return error;
}

int Tun::open() {
  if (descriptor_ >= 0) return 0;
  const int error = make_device();
  if (error != 0) close();
  error_ = error == 0 ? EBADF : error;
  return error;
}

int Tun::make_device() {
  descriptor_ = ::open(device, O_RDWR | O_CLOEXEC | O_NONBLOCK);
  if (descriptor_ < 0) return errno;
  ifreq request{};
  std::memcpy(request.ifr_name, name_pattern, std::strlen(name_pattern));
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  int error = ioctl(descriptor_, TUNSETIFF, &request) == 0 ? 0 : errno;
  const std::string name(request.ifr_name, strnlen(request.ifr_name, sizeof request.ifr_name));
  if (error == 0) error = let_every_source_pass(name);
  // A kernel without IPv6 has no such setting.
  if (error == 0) (void)write_setting("/proc/sys/net/ipv6/conf/" + name + "/disable_ipv6", "1");
  if (error == 0) error = prepare(request);
  if (error == 0) ifindex_ = if_nametoindex(name.c_str());
  if (error == 0 && ifindex_ == 0) error = errno;
  return error;
}

void Tun::close() {
  if (descriptor_ >= 0) ::close(descriptor_);
  descriptor_ = -1;
  ifindex_ = 0;
  error_ = EBADF;
}

int Tun::input(std::span<const std::byte> packet) {
  if (descriptor_ < 0) return error_;
  return write(descriptor_, packet.data(), packet.size()) < 0 ? errno : 0;
}

}  // namespace

std::unique_ptr<TunInput> TunInput::make() {
  return std::make_unique<Tun>();
}

}  // namespace ipd::kernel
