// SPDX-License-Identifier: Apache-2.0
// What lives until the process is gone: threads, and static destructors of a client, may still use it at the very end.
// It stands in static storage, so that there is no moment at which it cannot be had for want of memory.
#ifndef RSW_NEVER_DESTROYED_H
#define RSW_NEVER_DESTROYED_H

namespace rsw {

template <class Value>
union NeverDestroyed {
  NeverDestroyed() : value() {}
  ~NeverDestroyed() {}  // NOLINT(modernize-use-equals-default): a defaulted one would be deleted
  NeverDestroyed(const NeverDestroyed &) = delete;
  NeverDestroyed &operator=(const NeverDestroyed &) = delete;

  Value value;
};

}  // namespace rsw

#endif
