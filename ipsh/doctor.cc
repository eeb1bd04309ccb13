// SPDX-License-Identifier: Apache-2.0
// The checks in the order in which they build on each other: first what must be there, then who serves it, then what
// state it is in, then what it stands on. A check whose premise does not hold makes no row: the row of the one that
// failed is where to begin.
#include "doctor.h"

#include <algorithm>
#include <array>

#include "doctor_checks.h"
#include "sm/run_dir.h"

namespace ipsh {
namespace {

struct Check {
  const char *name;
  void (*look)(Examination *examination, Report report);
};

constexpr std::array<Check, 17> checks{{
    {"run directory", check_run_directory},
    {"segment", check_segments},
    {"ipd", check_ipd},
    {"rights", check_rights},
    {"capabilities", check_capabilities},
    {"database", check_database},
    {"kernel", check_mirror},
    {"reader lock", check_reader_lock},
    {"packet buffers", check_buffers},
    {"queues", check_queues},
    {"messages", check_messages},
    {"packets", check_packets},
    {"sockets", check_sockets},
    {"configuration", check_configuration},
    {"libraries", check_libraries},
    {"kernel features", check_features},
    {"limits", check_limits},
}};

}  // namespace

const char *to_text(Health health) {
  constexpr std::array<const char *, 3> texts{"ok", "warning", "failed"};
  return texts.at(static_cast<size_t>(health));
}

Style style_of(Health health) {
  constexpr std::array<Style, 3> styles{Style::good, Style::warning, Style::bad};
  return styles.at(static_cast<size_t>(health));
}

size_t Diagnosis::count(Health health) const {
  return static_cast<size_t>(std::ranges::count(findings, health, &Finding::health));
}

Diagnosis diagnose() {
  Diagnosis diagnosis;
  Examination examination{.run_directory = rsw::run_directory(), .ipd = {}, .database = {}};
  for (const Check &check : checks) check.look(&examination, {check.name, &diagnosis});
  return diagnosis;
}

}  // namespace ipsh
