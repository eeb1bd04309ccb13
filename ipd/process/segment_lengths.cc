// SPDX-License-Identifier: Apache-2.0
#include "ipd/process/segment_lengths.h"

#include "ipd/process/log.h"
#include "mbuf/pool.h"
#include "sm/length_keeper.h"

namespace ipd {

// Without events the ticks do it all, only later.
SegmentLengths::SegmentLengths(EventLoop &loop, rsw::Epochs &epochs) : loop_(loop), epochs_(epochs) {
  std::string reason;
  is_watched_ = rsw::length_events() >= 0 && loop_.watch(
                                                 rsw::length_events(), [this] { mend(); }, &reason);
}

SegmentLengths::~SegmentLengths() {
  if (is_watched_) loop_.forget(rsw::length_events());
}

void SegmentLengths::mend() {
  for (const std::string &segment : rsw::mend_lengths()) {
    ++untold_[segment];
    epochs_.put_back();
    rsw::mbuf_put_back();
  }
}

void SegmentLengths::tick() {
  mend();
  for (const auto &[segment, times] : untold_) {
    log_line(LOG_ERR, "%s was cut short %u times by somebody who may write it; it is whole again", segment.c_str(),
             times);
  }
  untold_.clear();
}

}  // namespace ipd
