// SPDX-License-Identifier: Apache-2.0
// The life of the IP process.
//
//   lock the run directory -> take over or make the segments -> first dump (or the simulated load) -> first commit,
//   which gives new segments their names -> attach to our own library with the server flag -> say that we are live ->
//   loop
//
// Nobody sees anything before the first commit, and after a restart clients keep seeing what the previous ipd left
// until then: so the first commit waits until the picture is whole. From then on each batch of events is committed at
// once.
//
// Requests of clients are taken from the moment that we are live: who is served then finds what he asks about.
//
// Routes have a segment of their own and come from a socket of their own. We are live when they are whole too, but not
// later than a while after everything else; and when their segment or their socket cannot be had, everything else is
// served without them.
//
// Stopping lets go of the lock and of our mappings and removes nothing: clients that are attached go on with the last
// state, and the next ipd takes the segments over. `ipd --remove` takes the segment's name away when that is wanted.
//
// A reload reads the whole file first; a bad one changes nothing.
#include "ipd/ip_process.h"

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <numeric>

#include "ip_api.h"
#include "ipd/kernel/load_share.h"
#include "ipd/process/descriptors.h"
#include "ipd/process/log.h"
#include "ipd/process/remedy.h"
#include "ipd/process/service.h"
#include "mbuf/pool.h"
#include "mtrack/mtrack_writer.h"
#include "sm/run_dir.h"
#include "sysmgr/sysmgr_writer.h"

namespace ipd {
namespace {

constexpr auto tick_period = std::chrono::milliseconds(250);
constexpr auto simulation_period = std::chrono::milliseconds(1);
constexpr auto retry_period = std::chrono::seconds(5);
constexpr auto serving_retry_period = std::chrono::seconds(1);
constexpr auto patience_for_routes = std::chrono::seconds(20);
constexpr uint64_t commit_each_below = 16;  // simulated changes in one round

uint64_t monotonic_microseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

uint64_t sum(const std::array<uint64_t, kernel::refusal_count> &counts) {
  return std::accumulate(counts.begin(), counts.end(), uint64_t{0});
}

}  // namespace

IpProcess::IpProcess(const Options &options, Configuration configuration, std::function<void()> live)
    : options_(options), configuration_(std::move(configuration)), live_(std::move(live)) {}

IpProcess::~IpProcess() {
  if (attached_) ip_api_close();
}

int IpProcess::fail(const std::string &reason) {
  log_line(LOG_ERR, "%s", with_remedy(reason).c_str());
  return exit_failed;
}

int IpProcess::prepare() {
  std::string reason;
  loop_ = EventLoop::open(&reason);
  if (loop_ == nullptr || !rsw::make_run_directory(&reason)) return fail(reason);
  RunLock::Failure failure = RunLock::Failure::none;
  lock_ = RunLock::take(rsw::run_directory(), &failure, &reason);
  if (lock_ == nullptr) {
    if (failure != RunLock::Failure::taken) return fail(reason);
    fail(reason + "; stop that one, or give this one a run directory of its own (--run-dir)");
    return exit_running;
  }
  const std::string risk = run_directory_risk(rsw::run_directory());
  if (!risk.empty()) log_line(LOG_WARNING, "%s", risk.c_str());
  if (!rsw::sysmgr_open_for_writing(&reason)) return fail(reason);
  // Counters are for people to look at: without their segment everything else works.
  if (!rsw::mtrack_open_for_writing(&reason))
    log_line(LOG_WARNING, "memory is not counted: %s", with_remedy(reason).c_str());
  // Likewise packets that travel by reference: without the pool they travel as bytes.
  has_pool_ = rsw::mbuf_open_for_writing(&reason);
  if (!has_pool_) log_line(LOG_WARNING, "packets travel as bytes: %s", with_remedy(reason).c_str());
  ids_.emplace(rsw::run_directory() + "/ipd.contexts");
  ids_->load();
  epochs_ = rsw::Epochs::open(&reason);
  if (epochs_ == nullptr) return fail(reason);
  lengths_.emplace(*loop_, *epochs_);
  publisher_ = Publisher::open(*epochs_, &reason);
  if (publisher_ == nullptr) return fail(reason);
  routes_ = RouteFeed::open(*epochs_, &reason);
  if (routes_ == nullptr) log_line(LOG_ERR, "no routes are served: %s", with_remedy(reason).c_str());
  loop_->on_signal([this](int number) {
    if (number == SIGHUP) return reload();
    log_line(LOG_NOTICE, "stopping");
    notify_service_manager("STOPPING=1");
    loop_->stop();
  });
  loop_->every(tick_period, [this] { tick(); });
  return exit_clean;
}

int IpProcess::open_kernel() {
  std::string reason;
  state_.emplace(*publisher_, *ids_);
  state_->configure(configuration_);
  state_->after_commit([this](const std::set<uint32_t> &ifindexes) {
    if (control_ != nullptr) control_->interfaces_changed(ifindexes);
    if (packet_handlers_ != nullptr) packet_handlers_->interfaces_changed(ifindexes);
  });
  kernel_ = kernel::Rtnetlink::open(picture_, options_.receive_buffer, &reason);
  if (kernel_ == nullptr || !loop_->watch(
                                kernel_->descriptor(), [this] { read_kernel(); }, &reason)) {
    return fail(reason);
  }
  follow_routes();
  return open_multicast();
}

int IpProcess::open_multicast() {
  std::string reason;
  multicast_ = kernel::Multicast::open(&reason);
  if (multicast_ == nullptr || !loop_->watch(
                                   multicast_->descriptor(), [this] { read_multicast(); }, &reason)) {
    return fail(reason);
  }
  multicast_state_.emplace(*publisher_, multicast_->groups());
  state_->before_commit([this](const std::set<uint32_t> &ifindexes) {
    if (multicast_state_->interfaces_changed(ifindexes)) multicast_->refresh();
  });
  return exit_clean;
}

void IpProcess::follow_routes() {
  if (routes_ == nullptr) return;
  std::string reason;
  routes_->configure(configuration_);
  if (!routes_->follow_kernel(options_.receive_buffer, &reason) ||
      !loop_->watch(
          routes_->descriptor(), [this] { read_routes(); }, &reason)) {
    drop_routes(reason);
  }
}

// What is published of them stays as it is.
void IpProcess::drop_routes(const std::string &reason) {
  log_line(LOG_ERR, "routes are not followed: %s", reason.c_str());
  routes_.reset();
}

int IpProcess::open_simulation() {
  std::string reason;
  plan_ = load_simulation(options_.simulation, &reason);
  if (!plan_) {
    fail(reason);
    return exit_usage;
  }
  simulation_ = std::make_unique<Simulation>(*publisher_, *plan_);
  SimulationReport report;
  const auto begin = Clock::now();
  const auto progress = [this](uint32_t done) {
    log_line(LOG_NOTICE, "%u of %u interfaces published", done, plan_->interfaces);
  };
  if (!simulation_->load(progress, &reason)) return fail(reason);
  report.load = Clock::now() - begin;
  if (!simulation_->measure(&report, &reason)) return fail(reason);
  fputs(print_report(report, options_.json).c_str(), stdout);
  fflush(stdout);
  load_began_ = Clock::now();
  if (routes_ != nullptr && !routes_->simulate(plan_->routes, publisher_->iod(1), &reason)) return fail(reason);
  if (plan_->changes_per_second > 0) loop_->every(simulation_period, [this] { simulate_changes(); });
  go_live();
  return status_;
}

void IpProcess::go_live() {
  is_live_ = true;
  ip_is_server_flag = 1;
  errno = 0;
  if (ip_shm_api_init() == nullptr) {
    const std::string error = errno != 0 ? std::string(": ") + strerror(errno) : "";
    status_ = fail("the published segment cannot be attached" + error);
    return loop_->stop();
  }
  attached_ = true;
  if (!options_.once) serve_clients();
  const PublisherUse use = publisher_->use();
  const uint64_t routes = routes_ == nullptr ? 0 : routes_->routes();
  log_line(LOG_NOTICE, "live: %u contexts, %u interfaces, %u addresses, %llu routes in %s after %.3f s", use.contexts,
           use.interfaces, use.addresses, static_cast<unsigned long long>(routes), rsw::run_directory().c_str(),
           std::chrono::duration<double>(Clock::now() - started_).count());
  notify_service_manager("READY=1");
  live_();
  if (options_.once) loop_->stop();
}

// Without it, the database is served all the same. What a queue lacked, as a descriptor, may be there later: so it is
// tried again, and each new reason is said.
void IpProcess::serve_clients() {
  next_serving_ = Clock::now() + serving_retry_period;
  std::string reason;
  if (control_ == nullptr) {
    control_ = ControlSap::open(*loop_, configuration_, &reason);
    if (control_ == nullptr) return say_unserved("no requests are served: " + reason);
    if (!unserved_.empty()) log_line(LOG_NOTICE, "requests are served now");
    if (!state_) return;  // simulated interfaces take no requests
    handlers_ = std::make_unique<ControlHandlers>(*state_, *publisher_, picture_, control_->transport(), [this] {
      share_load();
      return publisher_->commit();
    });
    handlers_->add_to(control_->service());
  }
  if (state_ && packets_ == nullptr) serve_packets();
}

// Nor do requests need it.
void IpProcess::serve_packets() {
  std::string reason;
  packets_ = PacketSap::open(*loop_, configuration_, has_pool_, &reason);
  if (packets_ == nullptr) return say_unserved("no packets are taken: " + reason);
  packet_handlers_ =
      std::make_unique<PacketHandlers>(*state_, *publisher_, picture_, *loop_, *control_, *handlers_, *packets_);
  packet_handlers_->configure(configuration_);
  if (!unserved_.empty()) log_line(LOG_NOTICE, "packets are taken now");
  unserved_.clear();
}

void IpProcess::say_unserved(const std::string &what) {
  if (what != unserved_) log_line(LOG_ERR, "%s", what.c_str());
  unserved_ = what;
}

void IpProcess::publish_changes() {
  const bool whole = kernel_->mirror().complete() && multicast_->complete();
  if (!whole || (is_published_ && picture_.changes().empty())) return;
  if (!is_published_) share_load();
  if (!state_->update(picture_, picture_.take_changes())) next_retry_ = Clock::now() + retry_period;
  publisher_->tick(Clock::now());
  // Without its segments' names nobody can attach: it is tried again with the next tick, and we are not live before.
  if (!is_published_ && !publisher_->commit()) return say_unpublished();
  if (!is_published_) published_at_ = Clock::now();
  is_published_ = true;
  publish_routes();
}

// Once for each reason.
void IpProcess::say_unpublished() {
  if (unpublished_ == publisher_->last_error()) return;
  unpublished_ = publisher_->last_error();
  log_line(LOG_ERR, "nothing is published yet: %s", with_remedy(unpublished_).c_str());
}

void IpProcess::publish_routes() {
  if (!is_published_) return;
  if (routes_ != nullptr) routes_->publish(*state_);
  go_live_when_whole();
}

void IpProcess::go_live_when_whole() {
  if (is_live_ || !is_published_) return;
  const bool whole = routes_ == nullptr || routes_->complete();
  if (whole || Clock::now() - published_at_ > patience_for_routes) go_live();
}

void IpProcess::read_routes() {
  if (routes_ == nullptr) return;
  std::string reason;
  if (!routes_->read(&reason)) drop_routes(reason);
  publish_routes();
}

void IpProcess::read_kernel() {
  std::string reason;
  const auto reading = kernel_->read(&reason);
  if (reading == kernel::Rtnetlink::Reading::broken) {
    status_ = fail(reason);
    return loop_->stop();
  }
  publish_changes();
}

void IpProcess::read_multicast() {
  std::string reason;
  if (!multicast_->read(&reason)) {
    status_ = fail(reason);
    return loop_->stop();
  }
  if (!is_published_) return publish_changes();
  if (multicast_state_->tell_groups() && !publisher_->commit()) {
    log_line(LOG_ERR, "cannot commit groups: %s", publisher_->last_error().c_str());
  }
  if (multicast_->counts_read() == counts_told_) return;
  counts_told_ = multicast_->counts_read();
  multicast_state_->tell_counters(multicast_->counts());
  publisher_->commit();
}

// The configuration's word, else the kernel's, which makes no event of it.
void IpProcess::share_load() {
  const kernel::LoadShare kernels = kernel::read_load_share();
  const LoadShareRule rule =
      configuration_.load_share.value_or(LoadShareRule{.mode = kernels.mode, .value = kernels.value});
  publisher_->set_load_share(rule.mode, rule.value);
}

void IpProcess::simulate_changes() {
  std::string reason;
  const double elapsed = std::chrono::duration<double>(Clock::now() - load_began_).count();
  const auto due = static_cast<uint64_t>(elapsed * plan_->changes_per_second) - changes_made_;
  const bool each = due < commit_each_below;
  bool good = true;
  for (uint64_t i = 0; i < due && good; ++i) {
    good = simulation_->change(&reason);
    if (good && each && !publisher_->commit()) good = false;
  }
  if (good && due > 0 && !each) good = publisher_->commit();
  changes_made_ += due;
  if (!good) log_line(LOG_ERR, "simulated change: %s", publisher_->last_error().c_str());
}

void IpProcess::reload() {
  notify_service_manager("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(monotonic_microseconds()));
  std::string reason;
  std::optional<Configuration> fresh;
  if (!options_.configuration_given && access(options_.configuration.c_str(), F_OK) != 0) {
    fresh = Configuration{};
  } else {
    fresh = load_configuration(options_.configuration, &reason);
  }
  if (!fresh) {
    log_line(LOG_ERR, "%s; the configuration stays as it was", reason.c_str());
  } else {
    configuration_ = std::move(*fresh);
    set_log_limit(configuration_.log_level.value_or(LOG_NOTICE));
    if (state_ && kernel_->mirror().complete()) {
      state_->configure(configuration_);
      state_->update(picture_, picture_.take_changes());
    }
    if (routes_ != nullptr) routes_->configure(configuration_);
    if (kernel_ != nullptr) publish_routes();
    if (control_ != nullptr) control_->configure(configuration_);
    if (packets_ != nullptr) packets_->configure(configuration_);
    if (packet_handlers_ != nullptr) packet_handlers_->configure(configuration_);
    log_line(LOG_NOTICE, "configuration read again");
  }
  notify_service_manager("READY=1");
}

// Events that were lost and messages that were refused: once per tick, not once per event.
void IpProcess::report_losses() {
  const kernel::MirrorCounts &counts = kernel_->mirror().counts();
  if (counts.overruns > overruns_reported_) {
    log_line(LOG_WARNING, "events were lost (%llu times so far; receive buffer %u bytes): reading everything again",
             static_cast<unsigned long long>(counts.overruns), kernel_->receive_buffer());
    overruns_reported_ = counts.overruns;
  }
  if (const uint64_t refusals = sum(counts.refused); refusals > refusals_reported_) {
    for (size_t i = 0; i < counts.refused.size(); ++i) {
      if (counts.refused[i] == 0) continue;
      log_line(LOG_WARNING, "messages of the kernel that were skipped so far: %llu, %s",
               static_cast<unsigned long long>(counts.refused[i]), refusal_text(static_cast<kernel::Refusal>(i)));
    }
    refusals_reported_ = refusals;
  }
}

void IpProcess::tick() {
  const auto now = Clock::now();
  lengths_->tick();
  if (kernel_ != nullptr) {
    kernel_->tick(now);
    multicast_->tick(now);
    report_losses();
    if (is_published_) {
      share_load();
      publisher_->commit();
    } else {
      publish_changes();  // groups that were read without an event
    }
    if (is_live_ && state_->retry_due() && now >= next_retry_) {
      next_retry_ = now + retry_period;
      kernel::Changes all = picture_.take_changes();
      all.everything = true;
      state_->update(picture_, std::move(all));
    }
  }
  if (routes_ != nullptr) routes_->tick(now);
  if (kernel_ != nullptr) publish_routes();
  publisher_->tick(now);
  if (is_live_ && !options_.once && now >= next_serving_) serve_clients();
  if (control_ != nullptr) control_->tick();
  if (packets_ != nullptr) packets_->tick();
  if (packet_handlers_ != nullptr) packet_handlers_->tick();
}

int IpProcess::run() {
  started_ = Clock::now();
  set_log_limit(configuration_.log_level.value_or(LOG_NOTICE));
  if (std::string reason; !raise_descriptor_limit(&reason)) log_line(LOG_WARNING, "%s", reason.c_str());
  if (const int status = prepare(); status != exit_clean) return status;
  if (const int status = options_.simulation.empty() ? open_kernel() : open_simulation(); status != exit_clean) {
    return status;
  }
  std::string reason;
  if (!loop_->run(&reason)) return fail(reason);
  return status_;
}

}  // namespace ipd
