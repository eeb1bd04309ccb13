// SPDX-License-Identifier: Apache-2.0
#include "ipd/route_feed.h"

#include <numeric>
#include <utility>
#include <vector>

#include "ipd/process/log.h"

namespace ipd {
namespace {

constexpr auto retry_period = std::chrono::seconds(30);  // a whole table is written again

}  // namespace

std::unique_ptr<RouteFeed> RouteFeed::open(rsw::Epochs &epochs, std::string *reason) {
  auto writer = rsw::UribWriter::open(epochs, reason);
  if (writer == nullptr) return nullptr;
  return std::unique_ptr<RouteFeed>(new RouteFeed(std::move(writer)));
}

bool RouteFeed::follow_kernel(uint32_t receive_buffer, std::string *reason) {
  kernel_ = kernel::Rtnetlink::open(picture_, receive_buffer, reason);
  return kernel_ != nullptr;
}

bool RouteFeed::read(std::string *reason) {
  return kernel_->read(reason) != kernel::Rtnetlink::Reading::broken;
}

void RouteFeed::configure(const Configuration &configuration) {
  routes_.configure(configuration);
  news_ = true;
}

void RouteFeed::publish(const State &state) {
  if (!complete()) return;
  const bool moved = surroundings_version_ != state.surroundings_version();
  if (published_ && !moved && !news_ && !picture_.changed()) return;
  if (moved) {
    surroundings_version_ = state.surroundings_version();
    routes_.surround(state.surroundings());
  }
  news_ = false;
  published_ = true;
  routes_.update(picture_);
  writer_->tick(std::chrono::steady_clock::now());
}

// Once per tick, not once per event.
void RouteFeed::report_losses() {
  const kernel::MirrorCounts &counts = kernel_->mirror().counts();
  if (counts.overruns > overruns_reported_) {
    log_line(LOG_WARNING, "events of routes were lost (%llu times so far; receive buffer %u bytes): reading them again",
             static_cast<unsigned long long>(counts.overruns), kernel_->receive_buffer());
    overruns_reported_ = counts.overruns;
  }
  const uint64_t refusals = std::accumulate(counts.refused.begin(), counts.refused.end(), uint64_t{0});
  if (refusals <= refusals_reported_) return;
  refusals_reported_ = refusals;
  for (size_t i = 0; i < counts.refused.size(); ++i) {
    if (counts.refused[i] == 0) continue;
    log_line(LOG_WARNING, "messages about routes that were skipped so far: %llu, %s",
             static_cast<unsigned long long>(counts.refused[i]), refusal_text(static_cast<kernel::Refusal>(i)));
  }
}

void RouteFeed::tick(std::chrono::steady_clock::time_point now) {
  if (kernel_ != nullptr) {
    kernel_->tick(now);
    report_losses();
    if (published_ && !routes_.retry_due()) next_retry_ = now + retry_period;
    if (published_ && routes_.retry_due() && now >= next_retry_) {
      next_retry_ = now + retry_period;
      routes_.retry(picture_);
    }
  }
  writer_->tick(now);
}

bool RouteFeed::simulate(uint32_t count, uint32_t iod, std::string *reason) {
  // A /24 each, from 16.0.0.0 upwards.
  std::vector<rsw::Route> simulated(count);
  for (uint32_t i = 0; i < count; ++i) {
    simulated[i].addr = 0x10000000u + (i << 8);
    simulated[i].len = 24;
    simulated[i].next_hops.push_back({.iod = iod, .addr = 0x0a000001u + i % 200});
  }
  if (writer_->load(main_table, simulated) && writer_->commit()) return true;
  *reason = "simulated routes: " + writer_->last_error();
  return false;
}

}  // namespace ipd
