// SPDX-License-Identifier: Apache-2.0
// Messages are taken some at a time, so that whoever sends many does not keep us from the kernel's events.
#include "ipd/control_sap.h"

#include <unistd.h>

#include "ip_api.h"
#include "ip_show.h"
#include "ipd/process/log.h"

namespace ipd {
namespace {

constexpr size_t messages_in_a_row = 64;
constexpr auto longest_flood = std::chrono::seconds(2);

}  // namespace

ControlSap::ControlSap(std::unique_ptr<control::MtsTransport> transport, std::unique_ptr<control::PidfdWatch> watch)
    : transport_(std::move(transport)),
      watch_(std::move(watch)),
      processes_(*watch_),
      rights_(geteuid(), control::MtsTransport::sender_in_group),
      service_(*transport_, processes_, rights_),
      clients_(*transport_, processes_),
      show_(*transport_, service_, clients_) {
  add_handlers();
}

void ControlSap::add_handlers() {
  service_.add(clients_, {IP_MSG_REGISTER, IP_MSG_DEREGISTER});
  service_.add(link_local_, {IP_MSG_REPORT_LINK_LOCAL});
  service_.add(pool_keeper_, {});
  service_.add(show_, {IP_MSG_SHOW_CLIENTS, IP_MSG_SHOW_REGISTRATIONS, IP_MSG_SHOW_MESSAGES});
}

std::unique_ptr<ControlSap> ControlSap::open(EventLoop &loop, const Configuration &configuration, std::string *reason) {
  auto watch = control::PidfdWatch::open(reason);
  if (watch == nullptr) return nullptr;
  auto transport = control::MtsTransport::open(&ip_server_ctrl_mts_q, IP_SAP_CONTROL, reason);
  if (transport == nullptr) return nullptr;
  std::unique_ptr<ControlSap> made(new ControlSap(std::move(transport), std::move(watch)));
  made->configure(configuration);
  ControlSap *self = made.get();
  for (const int descriptor : {self->transport_->descriptor(), self->watch_->descriptor()}) {
    if (!loop.watch(
            descriptor, [self] { self->read(); }, reason))
      return nullptr;
  }
  return made;
}

void ControlSap::configure(const Configuration &configuration) {
  rights_.configure(configuration.read_group, configuration.configure_group);
  pool_keeper_.open_to_group(rights_.configure_gid());
}

// False: something may be left.
bool ControlSap::take_messages() {
  if (broken_) return true;
  std::string reason;
  const auto reading = transport_->read(
      messages_in_a_row, [this](const control::Request &request) { service_.receive(request); },
      [this](const control::Sender &sender) { service_.queue_gone(sender); }, &reason);
  broken_ = reading == control::MtsTransport::Reading::broken;
  if (broken_) log_line(LOG_ERR, "clients are served no more: %s", reason.c_str());
  return reading != control::MtsTransport::Reading::more;
}

void ControlSap::read() {
  processes_.look();
  if (take_messages()) settle();
}

void ControlSap::settle() {
  processes_.settle();
  settled_ = control::Handler::Clock::now();
}

// Here too, what an ended process sent comes before its end; but who sends without end does not put that off for ever.
void ControlSap::tick() {
  processes_.look_at_all();
  const auto now = control::Handler::Clock::now();
  if (take_messages() || now - settled_ > longest_flood) settle();
  service_.tick(now);
}

}  // namespace ipd
