// SPDX-License-Identifier: Apache-2.0
// Watching is comparing pictures. The writer counts a generation after each batch of changes and wakes who waits for
// it; then the whole picture is read again and compared with the last one. So a watch can miss what came and went
// between two pictures, but what it last said of an object is always what that object was at the time, and it needs
// nothing of the writer: a killed and restarted ipd is just another change.
//
// A picture is taken of a settled database where that is possible: the generation is read before and after, and a
// picture during which it moved is taken again, a few times. Under a storm of changes the last try is good enough: the
// next wait returns at once.
//
// The interface table is a segment of its own with its own generation. One can wait on one word only: the database's is
// waited for, in short slices, and the table's is compared at the end of each.
#include "watch.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <tuple>

#include "im/im_writer.h"

namespace ipsh {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds slice{100};
constexpr int picture_tries = 5;

struct Generations {
  uint32_t database, interfaces;
  bool operator==(const Generations &) const = default;
};

// Acquire: what the writer published before it counted the generation is visible to the picture that follows.
Generations current(const Attachment &attachment) {
  const rsw::SegmentHeader *table = rsw::im_header();
  return {__atomic_load_n(&attachment.database()->generation, __ATOMIC_ACQUIRE),
          table == nullptr ? 0 : __atomic_load_n(&table->generation, __ATOMIC_ACQUIRE)};
}

Picture take_picture(const Attachment &attachment, Generations *of) {
  Picture picture;
  for (int attempt = 0; attempt < picture_tries; ++attempt) {
    *of = current(attachment);
    const rsw::SegmentHeader *header = attachment.database();
    picture.ipd = {__atomic_load_n(&header->writer_pid, __ATOMIC_RELAXED),
                   __atomic_load_n(&header->instance, __ATOMIC_RELAXED)};
    picture.contexts = read_contexts();
    picture.interfaces = read_interfaces({});
    picture.addresses = read_addresses({});
    if (current(attachment) == *of) break;
  }
  return picture;
}

auto key(const ContextRow &row) {
  return row.id;
}
// An iod that was given again to another interface is another object.
auto key(const InterfaceRow &row) {
  return std::tuple(row.iod, row.ifindex);
}
auto key(const AddressRow &row) {
  return std::tuple(row.iod, row.addr, row.mask_len, row.kind == AddressKind::virtual_address);
}

struct Differences {
  std::vector<Event> removed, rest;
};

// Changed ones keep the order of the new picture, removed ones that of the old.
template <class Row>
Differences compare(const std::vector<Row> &before, const std::vector<Row> &after) {
  Differences result;
  std::map<decltype(key(before.front())), const Row *> was, is;
  for (const Row &row : before) was.emplace(key(row), &row);
  for (const Row &row : after) is.emplace(key(row), &row);
  for (const Row &row : before) {
    if (!is.contains(key(row))) result.removed.push_back({Change::removed, row, std::nullopt});
  }
  for (const Row &row : after) {
    const auto old = was.find(key(row));
    if (old == was.end()) {
      result.rest.push_back({Change::added, row, std::nullopt});
    } else if (*old->second != row) {
      result.rest.push_back({Change::changed, row, *old->second});
    }
  }
  return result;
}

void append(std::vector<Event> *events, std::vector<Event> more) {
  std::ranges::move(more, std::back_inserter(*events));
}

}  // namespace

const char *to_text(Change change) {
  switch (change) {
    case Change::added:
      return "added";
    case Change::removed:
      return "removed";
    case Change::changed:
      return "changed";
  }
  return "";
}

std::vector<Event> difference(const Picture &before, const Picture &after) {
  std::vector<Event> events;
  if (before.ipd != after.ipd) events.push_back({Change::changed, after.ipd, before.ipd});
  Differences contexts = compare(before.contexts, after.contexts);
  Differences interfaces = compare(before.interfaces, after.interfaces);
  Differences addresses = compare(before.addresses, after.addresses);
  append(&events, std::move(addresses.removed));
  append(&events, std::move(interfaces.removed));
  append(&events, std::move(contexts.removed));
  append(&events, std::move(contexts.rest));
  append(&events, std::move(interfaces.rest));
  append(&events, std::move(addresses.rest));
  return events;
}

ExitCode watch(const Attachment &attachment, const WatchLimits &limits, const WatchOutput &output, Failure *failure) {
  const Clock::time_point start = Clock::now();
  const auto time_left = [&]() -> std::chrono::milliseconds {
    if (!limits.seconds) return slice;
    const std::chrono::duration<double> left = std::chrono::duration<double>(*limits.seconds) - (Clock::now() - start);
    return std::chrono::ceil<std::chrono::milliseconds>(std::max(left, std::chrono::duration<double>::zero()));
  };

  Generations seen{};
  Picture picture = take_picture(attachment, &seen);
  output.start(picture);
  uint32_t shown = 0;
  for (;;) {
    const std::chrono::milliseconds left = time_left();
    if (left.count() == 0) break;
    rsw::wait_for_generation(attachment.database(), seen.database, static_cast<int>(std::min(left, slice).count()));
    if (current(attachment) == seen) {
      if (!attachment.replaced()) continue;
      *failure = {ExitCode::unavailable, "ipd has made a new database in place of the one that is watched",
                  "start the watch again"};
      return ExitCode::unavailable;
    }
    Picture next = take_picture(attachment, &seen);
    for (const Event &event : difference(picture, next)) {
      output.event(event);
      if (++shown == limits.count) return ExitCode::found;
    }
    picture = std::move(next);
  }
  return shown != 0 && !limits.count ? ExitCode::found : ExitCode::none;
}

}  // namespace ipsh
