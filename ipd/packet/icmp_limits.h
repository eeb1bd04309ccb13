// SPDX-License-Identifier: Apache-2.0
// How many ICMP errors may be sent (RFC 1812, section 4.3.2.8): so many in a second, all together and to each
// destination, and some more at once after a rest.
//
// A bucket is one moment: the one at which it will be full again. Each error moves it on by the time in which one is
// earned, and it may be ahead of now by as much as a full bucket holds. So a bucket whose moment has passed is like one
// that never was, and the table of destinations may forget what was used longest ago: it errs in favour of one
// destination, and what all of them get stays limited.
#ifndef IPD_PACKET_ICMP_LIMITS_H
#define IPD_PACKET_ICMP_LIMITS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <utility>

#include "ipd/config.h"

namespace ipd::packet {

class IcmpLimits {
 public:
  using Moment = std::chrono::steady_clock::time_point;
  static constexpr size_t most_destinations = 8192;

  explicit IcmpLimits(const IcmpErrorRule &rule) : rule_(rule) {}

  // Holds from the next error on; what was earned and spent is forgotten.
  void configure(const IcmpErrorRule &rule);

  // Whether one may be sent to this destination (host order) of the context now; then it counts as sent.
  [[nodiscard]] bool take(Moment now, uint32_t context_id, uint32_t destination);

  [[nodiscard]] size_t destinations() const { return by_destination_.size(); }

 private:
  using Destination = std::pair<uint32_t, uint32_t>;  // context, address
  struct Bucket {
    Destination destination;
    Moment full_at;
  };

  IcmpErrorRule rule_;
  Moment all_full_at_{};
  std::list<Bucket> buckets_;  // the one used last first
  std::map<Destination, std::list<Bucket>::iterator> by_destination_;
};

}  // namespace ipd::packet

#endif
