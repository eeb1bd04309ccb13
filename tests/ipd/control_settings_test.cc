// SPDX-License-Identifier: Apache-2.0
// Redirects, the load-share setting, link-local reports.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "ip_msg.h"
#include "ipd/control/link_local.h"
#include "ipd/control/load_share.h"
#include "ipd/control/redirects.h"
#include "ipd/control_fakes.h"
#include "ipd/control_lists.h"
#include "ipd/kernel/redirects.h"

namespace {

using namespace ipd::control;
using test_support::FakeBox;
using test_support::InterfaceList;
using Names = std::vector<std::string>;

class FakeRedirects final : public ipd::kernel::Redirects {
 public:
  int disable(const std::string &interface) override {
    disabled.push_back(interface);
    const auto found = errors.find(interface);
    return found == errors.end() ? 0 : found->second;
  }
  Names disabled;
  std::map<std::string, int> errors;
};

class ControlRedirectsTest : public testing::Test {
 protected:
  ControlRedirectsTest() {
    for (uint32_t i = 0; i < 3; ++i) box.add(10 + i, 2 + i, "eth" + std::to_string(i));
  }
  Refusal disable(const std::vector<uint32_t> &iods) {
    const InterfaceList list(IP_MSG_REDIRECT_DISABLE, iods);
    return redirects.handle(list.request());
  }

  FakeBox box;
  FakeRedirects kernel_redirects;
  Redirects redirects{box, kernel_redirects};
};

TEST_F(ControlRedirectsTest, GoOffOnEachInterfaceOfTheList) {
  EXPECT_EQ(disable({12, 10}), Refusal::none);
  EXPECT_EQ(kernel_redirects.disabled, (Names{"eth0", "eth2"}));
}

TEST_F(ControlRedirectsTest, AnInterfaceThatIsListedTwiceIsSwitchedOnce) {
  EXPECT_EQ(disable({11, 11, 11}), Refusal::none);
  EXPECT_EQ(kernel_redirects.disabled, Names{"eth1"});
}

TEST_F(ControlRedirectsTest, AnEmptyListIsGood) {
  EXPECT_EQ(disable({}), Refusal::none);
  EXPECT_TRUE(kernel_redirects.disabled.empty());
}

TEST_F(ControlRedirectsTest, AnUnknownInterfaceDoesNotKeepTheOthersFromIt) {
  EXPECT_EQ(disable({0, 10, 99, 12}), Refusal::no_interface);
  EXPECT_EQ(kernel_redirects.disabled, (Names{"eth0", "eth2"}));
}

TEST_F(ControlRedirectsTest, ARefusalOfTheKernelDoesNotKeepTheOthersFromIt) {
  kernel_redirects.errors["eth0"] = EACCES;
  EXPECT_EQ(disable({10, 11, 99}), Refusal::kernel);
  EXPECT_EQ(kernel_redirects.disabled, (Names{"eth0", "eth1"}));
}

TEST_F(ControlRedirectsTest, AnInterfaceThatGoesMeanwhileIsUnknown) {
  kernel_redirects.errors["eth0"] = ENOENT;
  EXPECT_EQ(disable({10}), Refusal::no_interface);
}

TEST_F(ControlRedirectsTest, TheLongestListIsTaken) {
  std::vector<uint32_t> iods(30150, 99);
  iods.back() = 12;
  EXPECT_EQ(disable(iods), Refusal::no_interface);
  EXPECT_EQ(kernel_redirects.disabled, Names{"eth2"});
}

TEST_F(ControlRedirectsTest, ACountThatDoesNotFitTheSizeIsRefused) {
  for (const uint32_t count : {0u, 1u, 3u, 51u, 0x40000002u, 0xffffffffu}) {
    InterfaceList list(IP_MSG_REDIRECT_DISABLE, {10, 11});
    list.claim(count);
    EXPECT_EQ(redirects.handle(list.request()), Refusal::bad_field) << count;
  }
  EXPECT_TRUE(kernel_redirects.disabled.empty());
}

TEST_F(ControlRedirectsTest, ATruncatedListIsRefused) {
  for (const size_t size : {size_t{0}, size_t{24}, size_t{231}, size_t{232}, size_t{239}}) {
    InterfaceList list(IP_MSG_REDIRECT_DISABLE, {10, 11});
    list.cut(size);
    EXPECT_EQ(redirects.handle(list.request()), Refusal::bad_field) << size;
  }
}

class RedirectSettingsTest : public testing::Test {
 protected:
  RedirectSettingsTest() {
    directory = testing::TempDir() + "redirects." + std::to_string(getpid());
    for (const char *name : {"all", "eth0", "eth1"}) {
      std::filesystem::create_directories(directory + "/" + name);
      for (const char *setting : {"send_redirects", "accept_redirects"}) write(name, setting, "1\n");
    }
  }
  ~RedirectSettingsTest() override { std::filesystem::remove_all(directory); }

  void write(const std::string &name, const std::string &setting, const std::string &text) {
    std::ofstream(directory + "/" + name + "/" + setting) << text;
  }
  [[nodiscard]] char value(const std::string &name, const std::string &setting) const {
    std::ifstream file(directory + "/" + name + "/" + setting);
    return static_cast<char>(file.get());
  }
  std::string directory;
};

TEST_F(RedirectSettingsTest, TheInterfaceNeitherSendsNorFollowsThemAndTheSwitchOfAllDoesNotOverrideThat) {
  ipd::kernel::RedirectSettings settings(directory);
  EXPECT_EQ(settings.disable("eth0"), 0);
  EXPECT_EQ(value("eth0", "send_redirects"), '0');
  EXPECT_EQ(value("eth0", "accept_redirects"), '0');
  EXPECT_EQ(value("all", "send_redirects"), '0');
  EXPECT_EQ(value("all", "accept_redirects"), '1');
  EXPECT_EQ(value("eth1", "send_redirects"), '1');
  EXPECT_EQ(value("eth1", "accept_redirects"), '1');
}

TEST_F(RedirectSettingsTest, AnInterfaceThatIsNotThereIsNotFound) {
  ipd::kernel::RedirectSettings settings(directory);
  EXPECT_EQ(settings.disable("eth9"), ENOENT);
  EXPECT_EQ(value("all", "send_redirects"), '1');
}

// A directory in the place of the file: reading it fails, and so does writing.
TEST_F(RedirectSettingsTest, WhatCannotBeWrittenIsAnError) {
  std::filesystem::remove(directory + "/eth0/send_redirects");
  std::filesystem::create_directory(directory + "/eth0/send_redirects");
  ipd::kernel::RedirectSettings settings(directory);
  EXPECT_EQ(settings.disable("eth0"), EISDIR);
  EXPECT_EQ(value("eth0", "accept_redirects"), '1');
}

TEST(ControlLoadShare, IsPublishedOnRequest) {
  uint32_t published = 0;
  bool good = true;
  LoadShare handler([&] {
    ++published;
    return good;
  });
  EXPECT_EQ(handler.handle({}), Refusal::none);
  good = false;
  EXPECT_EQ(handler.handle({}), Refusal::no_answer);
  EXPECT_EQ(published, 2u);
}

class ControlLinkLocalTest : public testing::Test {
 protected:
  Refusal report(int32_t pid, uint32_t ref, uint32_t value) {
    ip_msg_link_local message{};
    message.header.minor_type = IP_MSG_REPORT_LINK_LOCAL;
    message.ref = ref;
    message.value = value;
    return handler.handle(test_support::request_of(message, {.pid = pid, .uid = 0, .sap = 2048}, IP_OPCODE_CLIENT));
  }
  LinkLocal handler;
};

TEST_F(ControlLinkLocalTest, ReportsAreKeptByProcessAndReference) {
  EXPECT_EQ(report(100, 1, 5), Refusal::none);
  EXPECT_EQ(report(100, 2, 0), Refusal::none);
  EXPECT_EQ(report(101, 1, 7), Refusal::none);
  EXPECT_EQ(handler.reports().at(100), (LinkLocal::Reports{{1, 5}, {2, 0}}));
  EXPECT_EQ(handler.reports().at(101), (LinkLocal::Reports{{1, 7}}));
}

TEST_F(ControlLinkLocalTest, TheLastValueCounts) {
  report(100, 1, 5);
  report(100, 1, 6);
  EXPECT_EQ(handler.reports().at(100), (LinkLocal::Reports{{1, 6}}));
}

TEST_F(ControlLinkLocalTest, AReportWithoutReferenceIsRefused) {
  EXPECT_EQ(report(100, 0, 5), Refusal::bad_field);
  EXPECT_TRUE(handler.reports().empty());
}

TEST_F(ControlLinkLocalTest, ReportsEndWithTheirProcess) {
  report(100, 1, 5);
  report(101, 1, 7);
  handler.process_gone(100);
  EXPECT_FALSE(handler.reports().contains(100));
  EXPECT_TRUE(handler.reports().contains(101));
}

TEST_F(ControlLinkLocalTest, AProcessMayReportSoManyAndChangeThem) {
  for (uint32_t ref = 1; ref <= LinkLocal::most_of_a_process; ++ref) ASSERT_EQ(report(100, ref, 0), Refusal::none);
  EXPECT_EQ(report(100, LinkLocal::most_of_a_process + 1, 0), Refusal::limit);
  EXPECT_EQ(report(100, 1, 9), Refusal::none);
  EXPECT_EQ(report(101, 1, 0), Refusal::none);
}

}  // namespace
