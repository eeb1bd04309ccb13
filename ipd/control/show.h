// SPDX-License-Identifier: Apache-2.0
// Shows the control service to people: clients, registrations, messages.
#ifndef IPD_CONTROL_SHOW_H
#define IPD_CONTROL_SHOW_H

#include <cstdint>

#include "ipd/control/clients.h"
#include "ipd/control/handler.h"
#include "ipd/control/service.h"
#include "ipd/control/transport.h"

namespace ipd::control {

class Show final : public Handler {
 public:
  Show(Transport &transport, const Service &service, const Clients &clients)
      : transport_(transport), service_(service), clients_(clients) {}

  Refusal handle(const Request &request) override;

 private:
  Transport &transport_;
  const Service &service_;
  const Clients &clients_;
};

}  // namespace ipd::control

#endif
