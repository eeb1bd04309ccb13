// SPDX-License-Identifier: Apache-2.0
// Requests and their responses.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "platform/mts_rig.h"
#include "support/run_directory.h"

namespace {

using namespace mts_rig;

struct MtsRequest : testing::Test {
  test_support::RunDirectory directory;
  Queue server{263};
  Queue client;

  mts_msg_ref_t next_request() {
    mts_msg_ref_t msg = nullptr;
    if (receive_reference(server, &msg) != 0 || !rsw::mts_is_request(msg)) throw std::runtime_error("no request");
    return msg;
  }
  int32_t reply_and_drop(mts_msg_ref_t asked, uint32_t opcode, const std::string &text) {
    const int32_t status = rsw::mts_reply(server, asked, opcode, text.data(), static_cast<uint32_t>(text.size()));
    mts_drop(server, asked);
    return status;
  }
};

TEST_F(MtsRequest, TheResponseComesToItsToken) {
  const uint32_t token = request(client, 263, 3, "how many?");
  ASSERT_NE(token, 0u);
  const mts_msg_ref_t asked = next_request();
  EXPECT_EQ(text_of(asked), "how many?");
  ASSERT_EQ(reply_and_drop(asked, 4, "seven"), 0);
  const Received response = receive(client, long_wait_seconds, token);
  EXPECT_EQ(response.error, 0);
  EXPECT_EQ(response.opcode, 4u);
  EXPECT_EQ(response.text, "seven");
  EXPECT_FALSE(response.reject);
}

TEST_F(MtsRequest, ARejectSaysSo) {
  const uint32_t token = request(client, 263, 3, "?");
  const mts_msg_ref_t asked = next_request();
  ASSERT_EQ(rsw::mts_reject(server, asked), 0);
  mts_drop(server, asked);
  const Received response = receive(client, long_wait_seconds, token);
  EXPECT_TRUE(response.reject);
  EXPECT_EQ(response.opcode, 3u);
  EXPECT_EQ(response.text, "");
}

TEST_F(MtsRequest, AnswersMayComeInAnyOrder) {
  const uint32_t first = request(client, 263, 3, "first");
  const uint32_t second = request(client, 263, 3, "second");
  ASSERT_NE(first, second);
  const mts_msg_ref_t asked_first = next_request();
  const mts_msg_ref_t asked_second = next_request();
  ASSERT_EQ(reply_and_drop(asked_second, 4, "to second"), 0);
  ASSERT_EQ(reply_and_drop(asked_first, 4, "to first"), 0);
  EXPECT_EQ(receive(client, long_wait_seconds, first).text, "to first");
  EXPECT_EQ(receive(client, long_wait_seconds, second).text, "to second");
}

TEST_F(MtsRequest, OtherMessagesWaitBehindAWantedResponse) {
  const uint32_t token = request(client, 263, 3, "?");
  ASSERT_EQ(send(server, client.sap(), 9, "one"), 0);
  ASSERT_EQ(send(server, client.sap(), 9, "two"), 0);
  ASSERT_EQ(reply_and_drop(next_request(), 4, "answer"), 0);
  EXPECT_EQ(receive(client, long_wait_seconds, token).text, "answer");
  EXPECT_EQ(receive(client).text, "one");
  EXPECT_EQ(receive(client).text, "two");
}

TEST_F(MtsRequest, AResponseIsAMessageToWhoWantsAny) {
  ASSERT_NE(request(client, 263, 3, "?"), 0u);
  ASSERT_EQ(reply_and_drop(next_request(), 4, "answer"), 0);
  EXPECT_EQ(receive(client).text, "answer");
}

TEST_F(MtsRequest, ATokenIsGoodForOneWait) {
  const uint32_t token = request(client, 263, 3, "?");
  ASSERT_EQ(reply_and_drop(next_request(), 4, "answer"), 0);
  ASSERT_EQ(receive(client, long_wait_seconds, token).error, 0);
  EXPECT_EQ(receive(client, long_wait_seconds, token).error, EINVAL);
  EXPECT_EQ(receive(client, long_wait_seconds, token + 17).error, EINVAL);
}

TEST_F(MtsRequest, AResponseThatComesTooLateIsLost) {
  const uint32_t token = request(client, 263, 3, "?");
  EXPECT_EQ(receive(client, 1, token).error, ETIMEDOUT);
  ASSERT_EQ(reply_and_drop(next_request(), 4, "late"), 0);
  ASSERT_EQ(send(server, client.sap(), 9, "next"), 0);
  EXPECT_EQ(receive(client).text, "next");
}

TEST_F(MtsRequest, ARequestIsAnsweredOnce) {
  ASSERT_NE(request(client, 263, 3, "?"), 0u);
  const mts_msg_ref_t asked = next_request();
  EXPECT_EQ(rsw::mts_reply(server, asked, 4, "a", 1), 0);
  EXPECT_EQ(rsw::mts_reply(server, asked, 4, "b", 1), -1);
  EXPECT_EQ(errno, EALREADY);
  EXPECT_EQ(rsw::mts_reject(server, asked), -1);
  EXPECT_EQ(errno, EALREADY);
  mts_drop(server, asked);
  EXPECT_EQ(rsw::mts_reply(server, asked, 4, "c", 1), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(MtsRequest, AnAnswerThatIsTooLargeMayBeGivenAgain) {
  const uint32_t token = request(client, 263, 3, "?");
  const mts_msg_ref_t asked = next_request();
  const std::string large(120833, 'x');
  EXPECT_EQ(rsw::mts_reply(server, asked, 4, large.data(), 120833), -1);
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_EQ(rsw::mts_reply(server, asked, 4, large.data(), 120832), 0);
  mts_drop(server, asked);
  EXPECT_EQ(receive(client, long_wait_seconds, token).text.size(), 120832u);
}

TEST_F(MtsRequest, APlainMessageCannotBeAnswered) {
  ASSERT_EQ(send(client, 263, 1, "x"), 0);
  mts_msg_ref_t msg = nullptr;
  ASSERT_EQ(receive_reference(server, &msg), 0);
  EXPECT_EQ(rsw::mts_reply(server, msg, 4, "a", 1), -1);
  EXPECT_EQ(errno, EINVAL);
  mts_drop(server, msg);
}

TEST_F(MtsRequest, AnAnswerToWhoIsGoneFails) {
  auto asker = std::make_unique<Queue>();
  ASSERT_NE(request(*asker, 263, 3, "?"), 0u);
  const mts_msg_ref_t asked = next_request();
  asker.reset();
  EXPECT_EQ(rsw::mts_reply(server, asked, 4, "a", 1), -1);
  EXPECT_EQ(errno, ECONNRESET);
  mts_drop(server, asked);
}

TEST_F(MtsRequest, TheSentReferenceNamesTheTokenUntilItIsDropped) {
  std::string text = "?";
  mts_msg_ref_t sent = nullptr;
  ASSERT_EQ(mts_send(client, local_node, 263, 3, text.data(), 1, &sent, 0, nullptr), 0);
  EXPECT_NE(mts_rr_token_get(sent), 0u);
  EXPECT_EQ(mts_payload_get(sent), nullptr);
  EXPECT_EQ(mts_drop(client, sent), 0);
  EXPECT_EQ(mts_rr_token_get(sent), 0u);
}

TEST_F(MtsRequest, ARequestThatNobodyServesGivesNoReference) {
  std::string text = "?";
  mts_msg_ref_t sent = nullptr;
  EXPECT_EQ(mts_send(client, local_node, 264, 3, text.data(), 1, &sent, 0, nullptr), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(sent, nullptr);
}

TEST_F(MtsRequest, OpenRequestsAreBounded) {
  for (int i = 0; i < 1024; ++i) {
    ASSERT_NE(request(client, 263, 3, "?"), 0u) << i;
    mts_drop(server, next_request());
  }
  EXPECT_EQ(request(client, 263, 3, "?"), 0u);
  EXPECT_EQ(errno, ENOBUFS);
}

}  // namespace
