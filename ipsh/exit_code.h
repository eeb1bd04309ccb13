// SPDX-License-Identifier: Apache-2.0
// How ipsh ends: the exit codes that scripts rely on, and the one form in which every refusal is reported.
#ifndef IPSH_EXIT_CODE_H
#define IPSH_EXIT_CODE_H

#include <string>

namespace ipsh {

// The numbers are documented in ipsh(1) and never change meaning.
enum class ExitCode : int {
  found = 0,        // yes, found, or done
  none = 1,         // the answer is 0, no or none; a watch saw no change
  usage = 2,        // the command line cannot be understood
  unavailable = 3,  // no ipd, or its shared database cannot be attached
  permission = 4,   // the caller may not do that
};

// Why a command did not run. Both texts are one line without a full stop; `advice` says what to do and may be empty.
struct Failure {
  ExitCode code = ExitCode::found;
  std::string message;
  std::string advice;
};

}  // namespace ipsh

#endif
