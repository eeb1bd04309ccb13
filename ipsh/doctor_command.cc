// SPDX-License-Identifier: Apache-2.0
#include "doctor_command.h"

#include "doctor.h"
#include "show_commands.h"

namespace ipsh {
namespace {

ExitCode run_doctor(const Options &, const Printers &printers, Failure *) {
  const Diagnosis diagnosis = diagnose();
  printers.diagnosis(diagnosis);
  return diagnosis.count(Health::failed) == 0 ? ExitCode::found : ExitCode::none;
}

}  // namespace

void add_doctor(CommandTree *tree) {
  CLI::App *command = tree->app.add_subcommand("doctor", "what is wrong with an installation, and how to mend it");
  command->footer(
      "Exit code 0: all well, or warnings only; 1: something failed.\n\n" +
      examples("ipsh doctor\n  ipsh doctor --json | jq -r '.checks[] | select(.state != \"ok\") | .remedy'"));
  tree->add_leaf(command, run_doctor, {"diagnosis"});
}

}  // namespace ipsh
