// SPDX-License-Identifier: Apache-2.0
// The checks of `ipsh doctor`. To add one, add its row to the table in doctor.cc; it is made after those above it,
// which have left what they found out in the Examination.
#ifndef IPSH_DOCTOR_CHECKS_H
#define IPSH_DOCTOR_CHECKS_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "attachment.h"
#include "doctor.h"
#include "process_facts.h"

namespace ipsh {

// What the checks found out so far.
struct Examination {
  std::string run_directory;
  bool has_run_directory = false;
  bool has_segments = false;        // those that every client needs
  uint32_t ipd_pid = 0;             // 0: nobody ever wrote one
  std::optional<ProcessFacts> ipd;  // nothing: it does not run, or not where we see it
  bool answers = false;             // ipd, to messages
  bool may_read = false;            // as ipd says
  std::unique_ptr<Attachment> database;
};

// Adds rows of one check.
class Report {
 public:
  Report(std::string_view check, Diagnosis *diagnosis) : check_(check), diagnosis_(diagnosis) {}
  void ok(std::string finding) { add(Health::ok, std::move(finding), ""); }
  void warning(std::string finding, std::string remedy) { add(Health::warning, std::move(finding), std::move(remedy)); }
  void failed(std::string finding, std::string remedy) { add(Health::failed, std::move(finding), std::move(remedy)); }
  // The premise of the check does not hold.
  void not_made() { diagnosis_->not_made.push_back(check_); }
  // Rows of a part of the subject, as "segment ip".
  [[nodiscard]] Report of(std::string_view part) const { return {check_ + " " + std::string(part), diagnosis_}; }

 private:
  void add(Health health, std::string finding, std::string remedy) {
    diagnosis_->findings.push_back({check_, health, std::move(finding), std::move(remedy)});
  }
  std::string check_;
  Diagnosis *diagnosis_;
};

// doctor_files.cc
void check_run_directory(Examination *examination, Report report);
void check_segments(Examination *examination, Report report);
void check_sockets(Examination *examination, Report report);
void check_configuration(Examination *examination, Report report);
// doctor_ipd.cc
void check_ipd(Examination *examination, Report report);
void check_rights(Examination *examination, Report report);
void check_capabilities(Examination *examination, Report report);
void check_libraries(Examination *examination, Report report);
// doctor_state.cc
void check_database(Examination *examination, Report report);
void check_reader_lock(Examination *examination, Report report);
void check_buffers(Examination *examination, Report report);
void check_queues(Examination *examination, Report report);
void check_messages(Examination *examination, Report report);
void check_packets(Examination *examination, Report report);
// doctor_kernel.cc
void check_mirror(Examination *examination, Report report);
void check_features(Examination *examination, Report report);
void check_limits(Examination *examination, Report report);

}  // namespace ipsh

#endif
