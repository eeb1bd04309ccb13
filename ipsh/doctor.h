// SPDX-License-Identifier: Apache-2.0
// `ipsh doctor`: what is wrong with an installation, and how to mend it.
#ifndef IPSH_DOCTOR_H
#define IPSH_DOCTOR_H

#include <cstddef>
#include <string>
#include <vector>

#include "style.h"

namespace ipsh {

enum class Health { ok, warning, failed };
[[nodiscard]] const char *to_text(Health health);
[[nodiscard]] Style style_of(Health health);

// One row. `remedy` says what to do; empty where there is nothing to do.
struct Finding {
  std::string check;
  Health health = Health::ok;
  std::string finding;
  std::string remedy;
};

struct Diagnosis {
  std::vector<Finding> findings;
  std::vector<std::string> not_made;  // checks that make no sense after another one failed
  [[nodiscard]] size_t count(Health health) const;
};

// Looks at everything, and changes nothing. Takes some seconds when ipd does not answer, and never waits longer.
[[nodiscard]] Diagnosis diagnose();

}  // namespace ipsh

#endif
