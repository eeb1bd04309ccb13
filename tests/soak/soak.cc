// SPDX-License-Identifier: Apache-2.0
// A soak: a real ipd in a network namespace of its own, clients of both widths that do everything that clients do, and
// interfaces, addresses and routes that come and go, while ipd is killed, restarted and stopped and clients are killed
// and stopped, all of it at random.
//
//   round:  load and faults for some seconds (in each third one, ipd lives on)
//           ipd is live, nobody is stopped: every receiver has to receive again
//           clients are told to end, what comes and goes goes: now everything has to be as it was; see soak_quiet.cc
//
// An anomaly is an operation that takes longer than a minute, an end of a process that nobody brought about, an answer
// that cannot be, or something that is left over. Exit codes: 0 none, 1 some, 2 usage, or it could not begin.
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "ip_api.h"
#include "soak_clients.h"
#include "soak_ipd.h"
#include "soak_kernel.h"
#include "soak_quiet.h"
#include "soak_record.h"
#include "support/network_namespace.h"
#include "support/run_directory.h"
#include "urib.h"

namespace soak {
namespace {

using std::chrono::milliseconds;
using test_support::wait_until;

constexpr auto patience = std::chrono::seconds(60);
constexpr size_t most_anomalies = 10;  // it goes no further then

struct Options {
  double seconds = 20;
  double round = 8;
  uint32_t seed = std::random_device{}();
  bool spoil = false;
  std::string json;
};

int usage() {
  fputs(
      "usage: soak [--seconds N] [--round N] [--seed N] [--spoil 1] [--json FILE]\n"
      "  --seconds N  how long (default 20)\n"
      "  --round N    seconds between two looks at everything (default 8)\n"
      "  --seed N     of the random numbers; without it a random one, which is printed\n"
      "  --spoil 1    senders turn a bit of each packet, so that there have to be anomalies\n"
      "  --json FILE  the record also as JSON\n",
      stderr);
  return 2;
}

bool read_options(int argc, char **argv, Options *options) {
  for (int i = 1; i < argc; i += 2) {
    if (i + 1 == argc) return false;
    const std::string name = argv[i];
    if (name == "--seconds") {
      options->seconds = atof(argv[i + 1]);
    } else if (name == "--round") {
      options->round = atof(argv[i + 1]);
    } else if (name == "--seed") {
      options->seed = static_cast<uint32_t>(strtoul(argv[i + 1], nullptr, 10));
    } else if (name == "--spoil") {
      options->spoil = strcmp(argv[i + 1], "1") == 0;
    } else if (name == "--json") {
      options->json = argv[i + 1];
    } else {
      return false;
    }
  }
  return options->seconds > 0 && options->round > 0;
}

// The native program first, and the 32-bit one where preset m32 has built it.
std::vector<std::string> both_widths(const char *native, const char *narrow) {
  std::vector<std::string> programs{native};
  if (narrow[0] != '\0' && access(narrow, X_OK) == 0) programs.emplace_back(narrow);
  return programs;
}

// Something that happens again and again, at random times around a mean.
class Now {
 public:
  explicit Now(double mean_seconds) : mean_(mean_seconds) {}
  bool is_due(std::mt19937 &random) {
    const auto now = Clock::now();
    if (now < next_) return false;
    const bool is_first = next_ == Clock::time_point{};
    std::exponential_distribution<double> pause(1 / mean_);
    next_ = now + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(pause(random)));
    return !is_first;
  }

 private:
  double mean_;
  Clock::time_point next_{};
};

class Soak {
 public:
  Soak(const Options &options, const std::string &directory)
      : options_(options),
        random_(options.seed),
        kernel_(record_),
        clients_(record_, both_widths(SOAK_CLIENT, SOAK_CLIENT_NARROW), directory),
        ipd_(record_, both_widths(IPD, IPD_NARROW), clients_.board().ipd_epoch),
        quiet_(record_, directory, IPSH) {
    record_.seed = options.seed;
    clients_.board().ipd_epoch = 1;
    clients_.board().spoil = options.spoil ? 1 : 0;
    for (size_t i = 0; i < both_widths(SOAK_CLIENT, SOAK_CLIENT_NARROW).size(); ++i) {
      record_.widths.emplace_back(i == 0 ? "native width" : "32 bits");
    }
  }

  Record &record() { return record_; }

  std::string run() {
    if (std::string problem = kernel_.begin(); !problem.empty()) return problem;
    begin_ = Clock::now();
    if (!live_in_time()) return "ipd is not live: " + ipd_.output();
    if (ip_shm_api_init() == nullptr) return "cannot attach to the database of ipd";
    if (urib_api_init() == 0) return "cannot attach to the routes of ipd";
    for (uint32_t round = 0; elapsed() < options_.seconds && record_.anomalies.size() < most_anomalies; ++round) {
      load(round % 3 != 2);
      settle();
      printf("%.0fs: round %u, %zu anomalies\n", elapsed(), round + 1, record_.anomalies.size());
      fflush(stdout);
    }
    ip_api_close();
    record_.seconds = elapsed();
    return "";
  }

 private:
  [[nodiscard]] double elapsed() const { return std::chrono::duration<double>(Clock::now() - begin_).count(); }

  void tend() {
    ipd_.tend(random_);
    clients_.tend(random_);
    const timespec pause{0, 1000000};
    nanosleep(&pause, nullptr);
  }

  bool live_in_time() {
    return wait_until(
               [this] {
                 ipd_.tend(random_);
                 return ipd_.live() || record_.anomalies.size() >= most_anomalies;
               },
               patience) &&
           ipd_.live();
  }

  void load(bool kills_ipd) {
    const double until = elapsed() + options_.round;
    Now ipd_killed(2.5), ipd_stopped(4), client_killed(0.25), client_stopped(0.4), changed(0.006);
    while (elapsed() < until) {
      tend();
      if (changed.is_due(random_)) kernel_.change(random_);
      if (client_killed.is_due(random_)) clients_.kill_one(random_);
      if (client_stopped.is_due(random_)) clients_.stop_one(random_);
      if (ipd_stopped.is_due(random_)) ipd_.stop(random_);
      if (!kills_ipd || !ipd_killed.is_due(random_)) continue;
      ipd_.kill(random_);
      // The next one may not get far.
      while (random_() % 3 == 0) {
        ipd_.tend(random_);
        const timespec moment{0, static_cast<long>(random_() % 60) * 1000000};
        nanosleep(&moment, nullptr);
        ipd_.kill(random_);
      }
    }
  }

  void settle() {
    ipd_.go_on();
    if (!live_in_time()) record_.anomaly("ipd is not live again: " + ipd_.output());
    clients_.resume_all();
    clients_.tend(random_);
    clients_.mark();
    const bool received = wait_until(
        [this] {
          tend();
          return clients_.all_received_since_mark();
        },
        patience);
    if (!received) record_.anomaly("a client that receives does not receive again");
    clients_.end_all();
    if (const std::string problem = kernel_.settle(); !problem.empty()) record_.anomaly(problem);
    quiet_.check(ipd_.pid(), elapsed());
  }

  Options options_;
  Record record_;
  std::mt19937 random_;
  Kernel kernel_;
  Clients clients_;
  Ipd ipd_;
  Quiet quiet_;
  Clock::time_point begin_;
};

int run(const Options &options) {
  std::string reason;
  if (!test_support::enter_network_namespace(&reason)) {
    fprintf(stderr, "soak: %s\n", reason.c_str());
    return 2;
  }
  // Not with huge pages, wherever the system gives them to everybody: what a process has of memory is compared.
  prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);
  printf("soak: seed %u\n", options.seed);
  fflush(stdout);
  const test_support::RunDirectory directory;
  Soak soak(options, directory.path());
  if (const std::string problem = soak.run(); !problem.empty()) {
    fprintf(stderr, "soak: %s\n", problem.c_str());
    return 2;
  }
  const Record &record = soak.record();
  fputs(as_table(record).c_str(), stdout);
  if (!options.json.empty()) std::ofstream(options.json) << as_json(record);
  if (record.anomalies.empty()) return 0;
  printf("\nthe last of ipd's log:\n%s\nsoak: anomalies, seed %u\n", record.log.c_str(), options.seed);
  return 1;
}

}  // namespace
}  // namespace soak

int main(int argc, char **argv) {
  signal(SIGPIPE, SIG_IGN);
  soak::Options options;
  if (!soak::read_options(argc, argv, &options)) return soak::usage();
  return soak::run(options);
}
