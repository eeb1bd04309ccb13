// SPDX-License-Identifier: Apache-2.0
#include "ipd/options.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <filesystem>
#include <iostream>

namespace ipd {
namespace {

// A daemon leaves its directory, and a configuration is read again later.
std::string absolute(const std::string &path) {
  std::error_code error;
  const auto result = std::filesystem::absolute(path, error);
  return error ? path : result.string();
}

}  // namespace

std::optional<Options> read_options(int argc, char **argv, int *status) {
  Options options;
  std::string run_directory;
  CLI::App app("ipd - publishes the IPv4 state of this host to the clients of libip");
  app.set_version_flag("--version,-V", "ipd " IPD_VERSION);
  CLI::Option *configuration = app.add_option("--config,-c", options.configuration, "configuration file")
                                   ->type_name("FILE")
                                   ->capture_default_str();
  app.add_flag("--foreground,-f", options.foreground, "stay in the foreground, log to standard error");
  CLI::Option *check = app.add_flag("--check", options.check, "read the configuration, print it, and end");
  CLI::Option *simulate =
      app.add_option("--simulate", options.simulation, "publish the simulated system of FILE instead of the kernel's")
          ->type_name("FILE");
  app.add_option("--run-dir", run_directory, "where segments and the lock live (default: RSW_RUN_DIR, see ipd(8))")
      ->type_name("DIR");
  app.add_option("--receive-buffer", options.receive_buffer, "of the rtnetlink socket, in bytes")
      ->type_name("BYTES")
      ->check(CLI::Range(1u, 1u << 30));
  CLI::Option *once = app.add_flag("--once", options.once, "publish once and end; the segments stay");
  app.add_flag("--json", options.json, "print the report of --simulate as JSON")->needs(simulate);
  app.add_flag("--remove", options.remove, "take the name of the published segment away, and end")
      ->excludes(check)
      ->excludes(simulate)
      ->excludes(once);
  app.footer(
      "Signals: SIGHUP reads the configuration again; SIGTERM and SIGINT end ipd, and clients keep what it published.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    *status = app.exit(error, std::cout, std::cerr) == 0 ? exit_clean : exit_usage;
    return std::nullopt;
  }
  options.configuration_given = configuration->count() > 0;
  options.configuration = absolute(options.configuration);
  if (!options.simulation.empty()) options.simulation = absolute(options.simulation);
  if (!run_directory.empty()) setenv("RSW_RUN_DIR", absolute(run_directory).c_str(), 1);
  return options;
}

}  // namespace ipd
