// SPDX-License-Identifier: Apache-2.0
// IP_MSG_LOAD_SHARE_CFG: whoever asks for the load-share setting finds it in the shared database, which is brought up
// to date at once; no message answers.
#ifndef IPD_CONTROL_LOAD_SHARE_H
#define IPD_CONTROL_LOAD_SHARE_H

#include <functional>
#include <utility>

#include "ipd/control/handler.h"

namespace ipd::control {

class LoadShare final : public Handler {
 public:
  // `publish`: reads the setting and publishes it. False: it could not be published.
  explicit LoadShare(std::function<bool()> publish) : publish_(std::move(publish)) {}
  Refusal handle(const Request &) override { return publish_() ? Refusal::none : Refusal::no_answer; }

 private:
  std::function<bool()> publish_;
};

}  // namespace ipd::control

#endif
