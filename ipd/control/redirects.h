// SPDX-License-Identifier: Apache-2.0
// IP_MSG_REDIRECT_DISABLE. It is a setting of the kernel's interface: it stays when whoever asked for it is gone, and
// ends with the interface.
#ifndef IPD_CONTROL_REDIRECTS_H
#define IPD_CONTROL_REDIRECTS_H

#include "ipd/control/box.h"
#include "ipd/control/handler.h"
#include "ipd/kernel/redirects.h"

namespace ipd::control {

class Redirects final : public Handler {
 public:
  Redirects(const Box &box, kernel::Redirects &kernel) : box_(box), kernel_(kernel) {}
  // What can be done is done, also when one of the interfaces cannot.
  Refusal handle(const Request &request) override;

 private:
  const Box &box_;
  kernel::Redirects &kernel_;
};

}  // namespace ipd::control

#endif
