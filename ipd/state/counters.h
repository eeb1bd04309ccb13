// SPDX-License-Identifier: Apache-2.0
// From what the kernel counts to counters that only grow.
#ifndef IPD_STATE_COUNTERS_H
#define IPD_STATE_COUNTERS_H

#include <array>
#include <cstdint>
#include <optional>

#include "ipd/kernel/multicast.h"
#include "ipd/publish/publisher.h"

namespace ipd {

// One counter of Word's width over one of the kernel's, which begins anew when what it counts for is set up again: the
// sum goes on.
template <class Word>
class GrowingCounter {
 public:
  // The first reading, where an earlier ipd may have published a value already: not below that one.
  void begin(uint64_t kernel, Word published);
  void read(uint64_t kernel);
  [[nodiscard]] Word value() const { return static_cast<Word>(before_ + kernel_); }

 private:
  uint64_t before_ = 0;  // counted before the kernel's counter began
  uint64_t kernel_ = 0;  // the last reading
};

extern template class GrowingCounter<uint32_t>;
extern template class GrowingCounter<uint64_t>;

// The multicast counters of one interface. Which traffic each of them counts: ip_db.h.
class InterfaceCounters {
 public:
  explicit InterfaceCounters(const std::optional<MulticastCounters> &published)
      : published_(published.value_or(MulticastCounters{})) {}
  const MulticastCounters &read(const kernel::KernelCounts &counts);

 private:
  MulticastCounters published_;
  GrowingCounter<uint32_t> received_, packets_in_, packets_out_;
  GrowingCounter<uint64_t> bytes_in_, bytes_out_;
  bool begun_ = false;
  bool forwarding_begun_ = false;
};

}  // namespace ipd

#endif
