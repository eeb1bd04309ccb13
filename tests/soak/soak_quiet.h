// SPDX-License-Identifier: Apache-2.0
// What has to hold when nobody does anything any more: the database is the kernel's state, and nothing is left of
// clients that are gone.
#ifndef TESTS_SOAK_SOAK_QUIET_H
#define TESTS_SOAK_SOAK_QUIET_H

#include <string>

#include "soak_record.h"

namespace soak {

class Quiet {
 public:
  Quiet(Record &record, std::string run_directory, std::string ipsh)
      : record_(record), run_directory_(std::move(run_directory)), ipsh_(std::move(ipsh)) {}

  // No client runs, ipd does, and this process is attached.
  void check(pid_t ipd, double at);

 private:
  void check_database();
  void check_clients(pid_t ipd);
  void check_buffers(Steady *steady);
  void check_steady(Steady *steady);

  Record &record_;
  std::string run_directory_, ipsh_;
};

}  // namespace soak

#endif
