// SPDX-License-Identifier: Apache-2.0
// ipd: the IP process of a Linux host.
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <string>

#include "ip_api.h"
#include "ipd/config.h"
#include "ipd/ip_process.h"
#include "ipd/options.h"
#include "ipd/process/log.h"
#include "ipd/process/out_of_memory.h"
#include "ipd/process/remedy.h"
#include "ipd/process/run_lock.h"
#include "ipd/process/service.h"
#include "sm/run_dir.h"

namespace {

using ipd::log_line;

// A missing file is no mistake unless it was asked for.
std::optional<ipd::Configuration> configuration_of(const ipd::Options &options, std::string *reason) {
  if (!options.configuration_given && access(options.configuration.c_str(), F_OK) != 0) return ipd::Configuration{};
  return ipd::load_configuration(options.configuration, reason);
}

int check(const ipd::Options &options, const ipd::Configuration &configuration) {
  std::string reason;
  if (!options.simulation.empty() && !ipd::load_simulation(options.simulation, &reason)) {
    log_line(LOG_ERR, "%s", reason.c_str());
    return ipd::exit_usage;
  }
  const bool there = access(options.configuration.c_str(), F_OK) == 0;
  printf("%s: %s\n%s", options.configuration.c_str(), there ? "good" : "not there, which is good too",
         ipd::describe(configuration).c_str());
  return ipd::exit_clean;
}

// Only when nobody publishes there any more.
int remove_segment() {
  ipd::RunLock::Failure failure = ipd::RunLock::Failure::none;
  std::string reason;
  const auto lock = ipd::RunLock::take(rsw::run_directory(), &failure, &reason);
  if (lock == nullptr) {
    log_line(LOG_ERR, "%s", ipd::with_remedy(reason).c_str());
    return failure == ipd::RunLock::Failure::taken ? ipd::exit_running : ipd::exit_failed;
  }
  ip_remove_shm();
  return ipd::exit_clean;
}

int run_in_foreground(const ipd::Options &options, const ipd::Configuration &configuration) {
  ipd::IpProcess process(options, configuration, [] {});
  return process.run();
}

int run_as_daemon(const ipd::Options &options, const ipd::Configuration &configuration) {
  std::string reason;
  ipd::Daemon daemon = ipd::Daemon::start(ipd::exit_failed, &reason);
  if (!daemon.started()) {
    log_line(LOG_ERR, "%s", reason.c_str());
    return ipd::exit_failed;
  }
  ipd::IpProcess process(options, configuration, [&daemon] {
    ipd::log_to_syslog();
    daemon.live();
  });
  const int status = process.run();
  if (daemon.started()) daemon.failed(status);
  return status;
}

// Before objects that are made before main(), the command line's for instance: they ask for memory, too.
[[gnu::constructor(101)]] void begin() {
  ipd::end_when_out_of_memory(ipd::exit_failed);
}

}  // namespace

int main(int argc, char **argv) {
  int status = ipd::exit_clean;
  const auto options = ipd::read_options(argc, argv, &status);
  if (!options) return status;
  if (options->remove) return remove_segment();
  std::string reason;
  const auto configuration = configuration_of(*options, &reason);
  if (!configuration) {
    log_line(LOG_ERR, "%s", reason.c_str());
    return ipd::exit_usage;
  }
  if (options->check) return check(*options, *configuration);
  return options->foreground || options->once ? run_in_foreground(*options, *configuration)
                                              : run_as_daemon(*options, *configuration);
}
