// SPDX-License-Identifier: Apache-2.0
// What to do about a run directory that is not as ipd needs it.
#ifndef IPD_PROCESS_REMEDY_H
#define IPD_PROCESS_REMEDY_H

#include <string>

namespace ipd {

// A reason as the platform gives it, "PATH: what failed: the system's text of the error", and after it what to do, if
// that is known.
std::string with_remedy(const std::string &reason);

// Who else may change what is in the run directory; empty: nobody.
std::string run_directory_risk(const std::string &path);

}  // namespace ipd

#endif
