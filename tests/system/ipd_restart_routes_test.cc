// SPDX-License-Identifier: Apache-2.0
// Clients ask for the way to destinations while ipd is killed and started again, with 10,000 routes in the kernel: no
// answer that was never true, and none that is kept waiting.
//
// Most routes stay from beginning to end, so their answers are known. Some change their interface all the time, also
// while there is no ipd: for them either interface will do, with the source address that goes with it.
#include <arpa/inet.h>

#include <array>
#include <atomic>
#include <chrono>
#include <fstream>
#include <random>
#include <thread>

#define LIBIP_NO_INET_NTOA
#include "ip_api.h"
#include "ipd_fixture.h"
#include "support/kernel_routes.h"

namespace {

using ipd_test::IpdTest;
using test_support::dotted;
using test_support::host_order;
using test_support::wait_until;

constexpr uint32_t default_context = 1;
constexpr uint32_t lasting = 10000;
constexpr uint32_t changing = 200;
constexpr uint32_t lasting_base = 0x14000000;   // 20.0.0.0, a /24 each
constexpr uint32_t changing_base = 0x1e000000;  // 30.0.0.0
constexpr int clients = 2;
constexpr int restarts = 5;

class IpdRestartRoutesTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    add_pair("va", "vb");
    ip("addr add 10.1.0.1/24 dev va");
    ip("addr add 10.2.0.1/24 dev vb");
    std::string batch;
    for (uint32_t i = 0; i < lasting; ++i) batch += route("add", lasting_base, i, i % 2 == 0);
    run_batch(batch);
    change_routes(true);
    start_ipd();
    attach();
    ways_ = {Way{iod("va"), host_order("10.1.0.1")}, Way{iod("vb"), host_order("10.2.0.1")}};
    ASSERT_TRUE(wait_until([this] { return right(lasting_base, lasting - 1, ways_[1]); }, std::chrono::seconds(60)))
        << ipd_.output();
  }

  struct Way {
    uint32_t iod = 0, source = 0;
    bool operator==(const Way &) const = default;
  };

  static std::string route(const char *verb, uint32_t base, uint32_t index, bool by_va) {
    return std::string("route ") + verb + " " + dotted(base + (index << 8)) + "/24 via " +
           (by_va ? "10.1.0.2 dev va" : "10.2.0.2 dev vb") + "\n";
  }

  void run_batch(const std::string &lines) {
    const std::string file = run_directory_.path() + "/batch";
    std::ofstream(file) << lines;
    ip("-batch " + file);
  }

  void change_routes(bool by_va) {
    std::string batch;
    for (uint32_t i = 0; i < changing; ++i) batch += route("replace", changing_base, i, by_va);
    run_batch(batch);
    changed_to_va_ = by_va;
  }

  static Way ask(uint32_t base, uint32_t index, uint32_t host) {
    Way way;
    way.source = ip_get_route(default_context, htonl(base + (index << 8) + host), &way.iod);
    return way;
  }
  static bool right(uint32_t base, uint32_t index, const Way &expected) { return ask(base, index, 1) == expected; }

  // One round of questions of a client; what is wrong, or nothing.
  [[nodiscard]] std::string questions(std::mt19937 &random) const {
    const auto index = static_cast<uint32_t>(random() % lasting);
    const auto host = static_cast<uint32_t>(random() % 256);
    if (ask(lasting_base, index, host) != ways_[index % 2]) return "a lasting route has another way";
    const Way way = ask(changing_base, static_cast<uint32_t>(random() % changing), host);
    if (way != ways_[0] && way != ways_[1]) return "a changing route has a way that it never had";
    if (ask(0x28000000, index, host) != Way{}) return "a route that there is not";
    const uint32_t neighbour = host_order("10.1.0.2");
    if (ip_is_addr_attached("default", neighbour) != ways_[0].iod) return "the neighbour is not attached";
    if (ip_is_addr_local_in_urib("default", ways_[1].source) != ways_[1].iod) return "an own address is not local";
    if (ip_get_iod_for_subnet("default", host_order("10.2.0.0"), 24) != ways_[1].iod) return "a subnet is gone";
    return "";
  }

  // Clients that ask all the time, until they are to stop or an answer is wrong.
  class AskingClients {
   public:
    explicit AskingClients(const IpdRestartRoutesTest &test) {
      for (size_t i = 0; i < clients_.size(); ++i) {
        clients_[i].thread = std::thread([this, &test, i] { ask_on(test, clients_[i], static_cast<unsigned>(i) + 1); });
      }
    }
    ~AskingClients() { (void)finish(); }
    AskingClients(const AskingClients &) = delete;
    AskingClients &operator=(const AskingClients &) = delete;

    // True when each asks that many more rounds; false: one is stuck, or has ended at a wrong answer.
    [[nodiscard]] bool go_on(uint64_t rounds) {
      for (Client &client : clients_) {
        const uint64_t before = client.asked.load(std::memory_order_relaxed);
        if (!wait_until([&] { return client.asked.load(std::memory_order_relaxed) > before + rounds; })) return false;
      }
      return true;
    }
    // Some time passes: that many rounds of the first one, but not more than a few seconds, because a start on a busy
    // machine may take the processor from those who ask.
    void pass(uint64_t rounds) {
      const uint64_t before = asked();
      (void)wait_until([&] { return asked() > before + rounds; }, std::chrono::seconds(5));
    }
    // Rounds of the first one so far.
    [[nodiscard]] uint64_t asked() const { return clients_[0].asked.load(std::memory_order_relaxed); }
    // What was wrong, or nothing.
    std::string finish() {
      stop_.store(true, std::memory_order_relaxed);
      std::string wrong;
      for (Client &client : clients_) {
        if (client.thread.joinable()) client.thread.join();
        wrong += client.wrong;
      }
      return wrong;
    }

   private:
    struct Client {
      std::thread thread;
      std::atomic<uint64_t> asked{0};
      std::string wrong;  // read after the thread has ended
    };
    void ask_on(const IpdRestartRoutesTest &test, Client &client, unsigned seed) {
      std::mt19937 random(seed);
      // Relaxed: a flag and a counter, nothing else is handed over through them.
      while (client.wrong.empty() && !stop_.load(std::memory_order_relaxed)) {
        client.wrong = test.questions(random);
        client.asked.fetch_add(1, std::memory_order_relaxed);
      }
    }
    std::atomic<bool> stop_{false};
    std::array<Client, clients> clients_;
  };

  // The routes that changed last are where they are now.
  void expect_the_last_change() {
    const Way last = ways_[changed_to_va_ ? 0 : 1];
    const auto there = [&] {
      for (uint32_t i = 0; i < changing; ++i) {
        if (!right(changing_base, i, last)) return false;
      }
      return true;
    };
    EXPECT_TRUE(wait_until(there, std::chrono::seconds(30))) << ipd_.output();
  }

  std::array<Way, 2> ways_;
  bool changed_to_va_ = true;
};

TEST_F(IpdRestartRoutesTest, NoAnswerIsWrongAndNoneWaits) {
  AskingClients asking(*this);
  for (int round = 0; round < restarts; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    change_routes(round % 2 == 1);
    ipd_.kill_now();
    EXPECT_TRUE(asking.go_on(100)) << "without an ipd";
    change_routes(round % 2 == 0);
    start_ipd();
    EXPECT_TRUE(asking.go_on(100)) << "with a new ipd";
    expect_the_last_change();
  }
  EXPECT_EQ(asking.finish(), "");
}

// Each new one takes over from one that was killed on its way to being live.
TEST_F(IpdRestartRoutesTest, AnIpdThatIsKilledWhileItStartsLeavesTheAnswersAsTheyWere) {
  constexpr unsigned seed = 404;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  AskingClients asking(*this);
  // How far one comes is measured in questions that are asked meanwhile: so many until it is live.
  ipd_.kill_now();
  const uint64_t before = asking.asked();
  start_ipd();
  const uint64_t whole_start = asking.asked() - before;
  for (int round = 0; round < 8; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    ipd_.kill_now();
    ipd_ = test_support::Process(ipd_test::ipd_command({"--foreground"}));
    asking.pass(random() % (whole_start * 3 / 2 + 1));
    ipd_.kill_now();
    EXPECT_TRUE(asking.go_on(10));
  }
  change_routes(false);
  start_ipd();
  expect_the_last_change();
  EXPECT_EQ(asking.finish(), "");
}

// While an ipd that was killed is away, a client that comes finds what it left.
TEST_F(IpdRestartRoutesTest, AClientThatAttachesBetweenTwoIpdsFindsTheRoutes) {
  detach();
  ipd_.kill_now();
  attach();
  for (uint32_t i = 0; i < lasting; ++i) ASSERT_EQ(ask(lasting_base, i, 7), ways_[i % 2]) << i;
}

}  // namespace
