// SPDX-License-Identifier: Apache-2.0
// Segments that clients write are files that clients may also cut short. ipd puts them right and goes on.
#ifndef IPD_PROCESS_SEGMENT_LENGTHS_H
#define IPD_PROCESS_SEGMENT_LENGTHS_H

#include <map>
#include <string>

#include "ipd/event_loop.h"
#include "tsp/epochs.h"

namespace ipd {

class SegmentLengths {
 public:
  // All segments are made. Both outlive this object.
  SegmentLengths(EventLoop &loop, rsw::Epochs &epochs);
  SegmentLengths(const SegmentLengths &) = delete;
  SegmentLengths &operator=(const SegmentLengths &) = delete;
  ~SegmentLengths();

  // Four times a second: puts right what no event told of, and says what happened since the last time. One line for
  // each segment, however often it was cut.
  void tick();

 private:
  void mend();

  EventLoop &loop_;
  rsw::Epochs &epochs_;
  bool is_watched_ = false;
  std::map<std::string, unsigned> untold_;  // how often, by segment
};

}  // namespace ipd

#endif
