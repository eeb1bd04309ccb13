// SPDX-License-Identifier: Apache-2.0
// An example that speaks a routing protocol: it and ipd run here, at 10.0.0.1 on ra; a router of FRR's runs in another
// namespace, at 10.0.0.2 on rb.
#ifndef TESTS_SYSTEM_SPEAKER_TEST_H
#define TESTS_SYSTEM_SPEAKER_TEST_H

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "frr_router.h"
#include "ipd_fixture.h"
#include "support/peer_namespace.h"

namespace speaker_test {

using test_support::FrrRouter;
using test_support::PeerNamespace;
using test_support::Process;
using test_support::wait_until;

inline constexpr auto deadline = std::chrono::seconds(60);

inline size_t count_of(const std::string &what, const std::string &text) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

class SpeakerTest : public ipd_test::IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    peer_ = std::make_unique<PeerNamespace>();
    ASSERT_EQ(test_support::connect("ra", "10.0.0.1/24", *peer_, "rb", "10.0.0.2/24"), "");
    start_ipd();
  }

  void start_router(const std::string &protocol, const std::string &configuration) {
    router_.reset();  // its files are the next one's
    router_ = std::make_unique<FrrRouter>(run_directory_.path(), protocol, configuration, *peer_);
  }
  void start_speaker(const std::vector<std::string> &command) { speaker_ = Process(command); }

  // What the speaker says, at least so many times.
  bool says(const std::string &what, size_t times = 1) {
    const bool said = wait_until([&] { return count_of(what, speaker_.output()) >= times; }, deadline);
    if (!said) explain();
    return said;
  }
  // What the router shows about us.
  bool router_shows(const std::string &command, const std::string &what) {
    return router_answers(command, [&](const std::string &text) { return text.find(what) != std::string::npos; });
  }
  bool router_shows_no(const std::string &command, const std::string &what) {
    return router_answers(command, [&](const std::string &text) { return text.find(what) == std::string::npos; });
  }
  int stop_speaker() {
    speaker_.signal(SIGTERM);
    return speaker_.wait(deadline);
  }

  std::unique_ptr<PeerNamespace> peer_;
  std::unique_ptr<FrrRouter> router_;  // gone before its namespace
  Process speaker_;

 private:
  // Only what a daemon answered counts, which is JSON.
  bool router_answers(const std::string &command, const std::function<bool(const std::string &)> &condition) {
    std::string last;
    const auto asked = [&] { return (last = router_->show(command)).starts_with("{") && condition(last); };
    const bool answered = wait_until(asked, deadline);
    if (!answered) {
      printf("the router's last answer: %s\n", last.c_str());
      explain();
    }
    return answered;
  }
  void explain() {
    printf("speaker:\n%s", speaker_.output().c_str());
    if (router_ != nullptr) printf("router:\n%s", router_->log().c_str());
    printf("ipd:\n%s", ipd_.output().c_str());
  }
};

}  // namespace speaker_test

#endif
