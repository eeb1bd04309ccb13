// SPDX-License-Identifier: Apache-2.0
// What is meant for the process that sent something reaches that process or nobody, whoever has its SAP meanwhile.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>

#include "platform/mts_rig.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace {

using namespace mts_rig;
using test_support::Process;
using test_support::wait_until;

constexpr uint32_t sap = 300;

struct MtsSendBack : testing::Test {
  test_support::RunDirectory directory;
};

// A process that has the SAP. Its exit status: 0 when "end" comes before "secret".
Process owner() {
  Process process([] {
    const Queue queue(sap);
    std::string text;
    while (text != "end" && text != "secret") text = receive(queue, 3600).text;
    return text == "end" ? 0 : 1;
  });
  // Bound is not yet listening.
  const Queue probe;
  if (!wait_until([&] { return send(probe, sap, 0, "probe") == 0; }))
    throw std::runtime_error("the owner does not start");
  return process;
}

// The owner has received the probe and so many more.
bool got(uint32_t messages) {
  return wait_until([&] { return use_of(sap).received == 1 + messages; }, std::chrono::seconds(60));
}

bool ends_without_the_secret(Process &process) {
  const Queue queue;
  return send(queue, sap, 1, "end") == 0 && process.wait(std::chrono::seconds(60)) == 0;
}

int send_back(uint32_t queue, const Process &to, const std::string &text) {
  const rsw::MtsSender sender{.pid = to.pid(), .uid = 0, .gid = 0, .sap = sap};
  return rsw::mts_send_back(queue, sender, 1, text.data(), static_cast<uint32_t>(text.size()), nullptr) == 0 ? 0
                                                                                                             : errno;
}

TEST_F(MtsSendBack, TheProcessThatStillHasItsSapGetsIt) {
  Process process = owner();
  const Queue queue;
  EXPECT_EQ(send_back(queue, process, "secret"), 0);
  EXPECT_EQ(process.wait(std::chrono::seconds(60)), 1) << "it got the secret";
}

TEST_F(MtsSendBack, ItsSapsNextOwnerDoesNotGetIt) {
  Process first = owner();
  first.kill_now();
  Process second = owner();
  const Queue queue;
  EXPECT_EQ(send_back(queue, first, "secret"), ECONNREFUSED);
  EXPECT_TRUE(ends_without_the_secret(second));
}

TEST_F(MtsSendBack, AConnectionThatIsThereIsNoProof) {
  Process first = owner();
  const Queue queue;
  ASSERT_EQ(send_back(queue, first, "one"), 0);
  ASSERT_TRUE(got(1));
  first.kill_now();
  Process second = owner();
  ASSERT_EQ(send(queue, sap, 1, "two"), 0);
  EXPECT_EQ(send_back(queue, first, "secret"), ECONNREFUSED);
  EXPECT_EQ(send_back(queue, second, "three"), 0);
  EXPECT_TRUE(got(2));
  EXPECT_TRUE(ends_without_the_secret(second));
}

TEST_F(MtsSendBack, AConnectionToWhoHadTheSapBeforeIsNoObstacle) {
  Process first = owner();
  const Queue queue;
  ASSERT_EQ(send(queue, sap, 1, "one"), 0);
  ASSERT_TRUE(got(1));
  first.kill_now();
  Process second = owner();
  // Nothing was received on the queue: it does not know yet that the first is gone.
  EXPECT_EQ(send_back(queue, second, "two"), 0);
  EXPECT_TRUE(got(1));
}

TEST_F(MtsSendBack, NobodyHasTheSapOfADeadProcess) {
  Process first = owner();
  const Queue queue;
  first.kill_now();
  EXPECT_EQ(send_back(queue, first, "late"), ECONNREFUSED);
  EXPECT_EQ(use_of(mts_sap_get(queue)).send_failures, 1u);
}

TEST_F(MtsSendBack, ASenderWithoutProcessOrSapIsRefused) {
  const Queue queue;
  EXPECT_EQ(rsw::mts_send_back(queue, {.pid = -1, .uid = 0, .gid = 0, .sap = sap}, 1, "x", 1, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(rsw::mts_send_back(queue, {.pid = getpid(), .uid = 0, .gid = 0, .sap = 0}, 1, "x", 1, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
}

}  // namespace
