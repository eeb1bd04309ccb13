// SPDX-License-Identifier: Apache-2.0
// Any sequence of changes that touches routes, of which the kernel announces some and keeps others to itself: a client
// ends up with the kernel's ways.
#include <fstream>
#include <random>

#include "ip_api.h"
#include "ipd_fixture.h"
#include "route_agreement.h"

namespace {

using ipd_test::IpdTest;
using test_support::dotted;
using test_support::RouteAgreement;

constexpr int rounds = 40;
constexpr int changes_of_a_round = 40;
constexpr int questions_of_a_round = 500;
constexpr uint32_t seed = 77002;

// Three interfaces v0, v1, v2, the peers of p0, p1, p2.
class IpdRandomRoutesTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    for (uint32_t i = 0; i < 3; ++i) {
      batch({make_device(i), "link set v" + std::to_string(i) + " up", "link set p" + std::to_string(i) + " up",
             "addr add " + address(i, 0) + " dev v" + std::to_string(i)});
    }
  }

  // Some of the changes do not fit what is there: the kernel refuses them, and nothing changes.
  void batch(const std::vector<std::string> &commands) {
    const std::string file = run_directory_.path() + "/batch";
    std::ofstream stream(file);
    for (const std::string &command : commands) stream << command << "\n";
    stream.close();
    std::string output;
    test_support::run({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip -force -batch " + file}, &output);
  }

  uint32_t draw(uint32_t below) { return static_cast<uint32_t>(random_() % below); }

  static std::string make_device(uint32_t i) {
    return "link add name v" + std::to_string(i) + " type veth peer name p" + std::to_string(i);
  }
  static std::string address(uint32_t device, uint32_t which) {
    const std::string net = "10." + std::to_string(device) + ".";
    const std::string all[] = {
        net + "0.1/24", net + "0.2/24", net + "1.1/28", net + "2.0/31", net + "3.1 peer " + net + "3.2/32",
        net + "0.3/32"};
    return all[which % 6];
  }
  std::string device() { return "v" + std::to_string(draw(3)); }
  std::string gateway() { return "via 10." + std::to_string(draw(3)) + ".0." + std::to_string(9 + draw(3)); }
  std::string prefix() {
    const uint32_t len = 9 + draw(24);
    return dotted((0x14000000u + (draw(64) << 15) + draw(4)) & (~0u << (32 - len))) + "/" + std::to_string(len);
  }

  std::string route_change() {
    static const char *const verbs[] = {"add ", "replace ", "append ", "del "};
    static const char *const types[] = {"unreachable ", "blackhole ", "prohibit "};
    const std::string verb = std::string("route ") + verbs[draw(4)];
    const std::string metric = draw(3) == 0 ? " metric 7" : "";
    switch (draw(8)) {
      case 0:
        return verb + types[draw(3)] + prefix() + metric;
      case 1:
        return verb + prefix() + metric + " nexthop " + gateway() + " nexthop " + gateway() + " weight 3";
      case 2:
        return verb + prefix() + metric + " nhid " + std::to_string(1 + draw(6));
      case 3:
        return verb + prefix() + metric + " dev " + device();
      case 4:
        return verb + prefix() + metric + " " + gateway() + " src 10." + std::to_string(draw(3)) + ".0.2";
      default:
        return verb + prefix() + metric + " " + gateway();
    }
  }

  std::string nexthop_change() {
    const std::string id = std::to_string(1 + draw(4));
    switch (draw(6)) {
      case 0:
        return "nexthop del id " + id;
      case 1:
        return "nexthop replace id 5 group 1/2,3";
      case 2:
        return "nexthop replace id 6 blackhole";
      default: {
        const std::string number = std::to_string(draw(3));
        return "nexthop replace id " + id + " via 10." + number + ".0.20 dev v" + number;
      }
    }
  }

  std::string change() {
    const uint32_t number = draw(3);
    const std::string here = "v" + std::to_string(number);
    const uint32_t kind = draw(40);
    if (kind < 26) return route_change();
    if (kind < 30) return nexthop_change();
    if (kind < 36)
      return std::string("addr ") + (draw(3) == 0 ? "del " : "add ") + address(number, draw(6)) + " dev " + here;
    if (kind == 36) return "link set " + here + " down";
    if (kind == 37) return "link set " + here + " up";
    if (kind == 38) return "link set p" + std::to_string(number) + (draw(2) == 0 ? " down" : " up");
    return draw(2) == 0 ? "link del " + here : make_device(number);
  }

  std::vector<uint32_t> questions() {
    std::vector<uint32_t> out;
    for (int i = 0; i < questions_of_a_round; ++i) {
      out.push_back(draw(3) == 0 ? 0x0a000000u + (draw(3) << 16) + (draw(4) << 8) + draw(24)
                                 : 0x14000000u + draw(0x200000));
    }
    return out;
  }

  std::mt19937 random_{seed};
};

TEST_F(IpdRandomRoutesTest, AnySequenceOfChangesLeadsToTheKernelsWays) {
  start_ipd();
  attach();
  test_support::DestinationsSeen all;
  for (int round = 0; round < rounds; ++round) {
    std::vector<std::string> changes;
    for (int i = 0; i < changes_of_a_round; ++i) changes.push_back(change());
    batch(changes);
    RouteAgreement agreement;
    agreement.leave_sources_out();
    const auto result = agreement.wait_for(questions());
    std::string words;
    for (const std::string &each : changes) words += each + "\n";
    ASSERT_EQ(result.differences, 0) << "seed " << seed << ", round " << round << ", the first: " << result.first
                                     << ", after\n"
                                     << words;
    all.unicast += result.seen.unicast;
    all.multipath += result.seen.multipath;
    all.local += result.seen.local;
    all.none += result.seen.none;
    // What went away would stay away: every other round, each device is there again, and up.
    if (round % 2 == 1) {
      batch({make_device(0), make_device(1), make_device(2), "link set v0 up", "link set v1 up", "link set v2 up",
             "link set p0 up", "link set p1 up", "link set p2 up", "addr add 10.0.0.1/24 dev v0",
             "addr add 10.1.0.1/24 dev v1", "addr add 10.2.0.1/24 dev v2"});
    }
  }
  RecordProperty("unicast", all.unicast);
  EXPECT_GT(all.unicast, rounds * questions_of_a_round / 10);
  EXPECT_GT(all.multipath, rounds);
  EXPECT_GT(all.local, rounds);
  EXPECT_GT(all.none, rounds * questions_of_a_round / 50);
}

}  // namespace
