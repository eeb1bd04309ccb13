// SPDX-License-Identifier: Apache-2.0
// Counters never run backwards for a reader. The kernel's may: those of forwarding begin at zero each time that a
// multicast routing daemon takes the interface, and some drivers clear theirs. A reading below the last one is such a
// beginning. What was counted while no ipd ran is not known when the kernel's counter began anew meanwhile; then the
// published value stands still until the kernel's has caught up, and otherwise it is the kernel's.
#include "ipd/state/counters.h"

#include <type_traits>

namespace ipd {

template <class Word>
void GrowingCounter<Word>::begin(uint64_t kernel, Word published) {
  // Modulo the width: a published counter may have wrapped around since the kernel's began.
  const auto ahead = static_cast<Word>(published - static_cast<Word>(kernel));
  before_ = static_cast<std::make_signed_t<Word>>(ahead) > 0 ? ahead : 0;
  kernel_ = kernel;
}

template <class Word>
void GrowingCounter<Word>::read(uint64_t kernel) {
  if (kernel < kernel_) before_ += kernel_;
  kernel_ = kernel;
}

template class GrowingCounter<uint32_t>;
template class GrowingCounter<uint64_t>;

const MulticastCounters &InterfaceCounters::read(const kernel::KernelCounts &counts) {
  if (begun_) {
    received_.read(counts.received);
  } else {
    received_.begin(counts.received, published_.packets[0]);
    begun_ = true;
  }
  published_.packets[0] = received_.value();

  const kernel::ForwardingCounts &forwarding = counts.forwarding;
  if (!counts.forwards) return published_;  // what was forwarded before stays counted
  if (forwarding_begun_) {
    packets_in_.read(forwarding.packets_in);
    packets_out_.read(forwarding.packets_out);
    bytes_in_.read(forwarding.bytes_in);
    bytes_out_.read(forwarding.bytes_out);
  } else {
    packets_in_.begin(forwarding.packets_in, published_.packets[1]);
    packets_out_.begin(forwarding.packets_out, published_.packets[2]);
    bytes_in_.begin(forwarding.bytes_in, published_.bytes[0]);
    bytes_out_.begin(forwarding.bytes_out, published_.bytes[1]);
    forwarding_begun_ = true;
  }
  published_.packets[1] = packets_in_.value();
  published_.packets[2] = packets_out_.value();
  published_.bytes[0] = bytes_in_.value();
  published_.bytes[1] = bytes_out_.value();
  return published_;
}

}  // namespace ipd
