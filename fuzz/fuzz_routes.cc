// SPDX-License-Identifier: Apache-2.0
// Datagrams of any bytes as the kernel's word about routes: through the parser, the mirror and the picture into the
// tables, with interfaces that come, go and move in between. Afterwards the tables must be those that a fresh start
// writes from the same picture, and no route that a writer would have to refuse may have been written.
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

#include "ipd/kernel/mirror.h"
#include "ipd/kernel/route_picture.h"
#include "ipd/process/log.h"
#include "ipd/state/routes.h"
#include "tests/ipd/recording_writer.h"

namespace {

struct Answered final : ipd::kernel::Requests {
  bool request_dump(ipd::kernel::DumpOf, uint32_t) override { return true; }
  bool request_system_settings(uint32_t) override { return true; }
};

// Which of eight interfaces are there, in which of three contexts.
ipd::RouteSurroundings surroundings(uint8_t there, uint8_t where) {
  ipd::RouteSurroundings out;
  out.context_tables = {{"default", 254}, {"blue", 1001}, {"lab", 1000}};
  out.policy_tables = {1000};
  constexpr uint32_t tables[] = {254, 1001, 1000};
  for (uint32_t i = 0; i < 8; ++i) {
    if ((there >> i & 1) == 0) continue;
    out.interfaces[i + 1] = {.iod = i + 11, .table = tables[(where + i) % 3], .vrf_table = i == 7 ? 1001u : 0u};
  }
  out.vips = {{2, 0x0a000005}};
  return out;
}

void check(const ipd::kernel::RoutePicture &picture) {
  size_t count = 0;
  for (const auto &[id, table] : picture.tables()) {
    if (id == 0 || table.empty()) abort();
    for (const auto &[key, entry] : table) {
      if (key.len > 32) abort();
      ++count;
    }
  }
  if (count != picture.route_count() || picture.info_count() > count) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using Clock = ipd::kernel::Mirror::Clock;
  ipd::set_log_limit(LOG_CRIT);
  ipd::kernel::RoutePicture picture;
  Answered requests;
  ipd::kernel::Mirror mirror(picture, requests);
  test_support::RecordingWriter writer;
  ipd::Routes routes(writer);
  ipd::RouteSurroundings around = surroundings(0x7f, 0);
  routes.surround(around);
  mirror.set_port(1);
  const Clock::time_point now{};
  mirror.start(now);
  // A length byte in units of 4, a byte of what happens next, then the datagram.
  while (size >= 2) {
    const size_t length = std::min<size_t>(size_t{data[0]} * 4, size - 2);
    const uint8_t then = data[1];
    const std::unique_ptr<std::byte[]> datagram(new std::byte[length]);
    if (length > 0) memcpy(datagram.get(), data + 2, length);
    ipd::kernel::parse({datagram.get(), length}, mirror);
    if ((then & 1) != 0) mirror.drained(now);
    if ((then & 6) == 6) mirror.overrun();
    if ((then & 8) != 0) mirror.tick(now + std::chrono::seconds(then));
    if ((then & 16) != 0) {
      around = surroundings(static_cast<uint8_t>(then * 37), then >> 5);
      routes.surround(around);
    }
    if ((then & 32) != 0) routes.update(picture);
    data += 2 + length;
    size -= 2 + length;
  }
  routes.update(picture);
  check(picture);
  ipd::kernel::RoutePicture same = picture;
  test_support::RecordingWriter whole;
  ipd::Routes fresh(whole);
  fresh.surround(around);
  fresh.update(same);
  if (writer.bad || writer.repeated || whole.bad || whole.repeated) abort();
  // Whether a table without routes exists is nobody's business.
  for (auto *each : {&writer, &whole})
    std::erase_if(each->unicast, [](const auto &table) { return table.second.empty(); });
  if (writer.unicast != whole.unicast) abort();
  return 0;
}
