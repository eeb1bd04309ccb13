// SPDX-License-Identifier: Apache-2.0
// What a client asks of ipd through the library's own calls, and what the kernel and other clients then see: addresses,
// unnumbered interfaces, redirects.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>

#include "im.h"
#include "ip_api.h"
#include "ip_show.h"
#include "ipd_fixture.h"
#include "mts.h"

namespace {

using ipd_test::IpdTest;
using test_support::Process;
using test_support::wait_until;

constexpr uint32_t a1 = 0x0a000001;   // 10.0.0.1
constexpr uint32_t b1 = 0x0a000101;   // 10.0.1.1
constexpr uint32_t patience = 60;     // seconds
constexpr uint32_t no_result = 4711;  // what a call leaves alone
constexpr auto long_enough = std::chrono::seconds(30);

uint32_t bind_control_queue() {
  uint32_t queue = ~0u;
  EXPECT_EQ(ip_init_mts(&queue, -1), 1u);
  ip_client.ctrl_q = queue;
  return queue;
}

ip_msg_config_address config_message(uint32_t iod, uint32_t address, uint8_t mask_len) {
  ip_msg_config_address message{};
  message.header.major_type = IP_MAJOR_CLIENT;
  message.header.minor_type = IP_MSG_CONFIG_ADDRESS;
  message.iod = iod;
  message.address = address;
  message.mask_len = mask_len;
  return message;
}

bool is_asleep(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(file, text);
  return text.find(") S ") != std::string::npos;
}

// va - vb and vc - vd: two links.
class IpdRequestsTest : public IpdTest {
 protected:
  void SetUp() override {
    IpdTest::SetUp();
    ip("link add name va type veth peer name vb");
    ip("link add name vc type veth peer name vd");
    for (const char *name : {"va", "vb", "vc", "vd"}) ip(std::string("link set ") + name + " up");
    chmod(run_directory_.path().c_str(), 0755);
  }
  void TearDown() override {
    if (queue_ != ~0u) mts_unbind(queue_, 0);
    IpdTest::TearDown();
  }

  void begin(const std::vector<std::string> &arguments = {}) {
    start_ipd(arguments);
    become_client();
  }
  // An ipd of the same user that may change nothing in the kernel.
  void begin_without_privilege() {
    std::vector<std::string> command{"/usr/bin/setpriv", "--bounding-set=-net_admin"};
    for (const std::string &word : ipd_test::ipd_command({"--foreground"})) command.push_back(word);
    ipd_ = Process(command);
    ASSERT_TRUE(wait_until([this] { return ipd_said("live:") || !ipd_.running(); }, long_enough));
    become_client();
  }
  void become_client() {
    attach();
    queue_ = bind_control_queue();
    va_ = iod("va");
    vc_ = iod("vc");
    ASSERT_NE(va_, 0u);
    ASSERT_NE(vc_, 0u);
  }

  uint32_t configure(uint32_t iod, uint32_t address, uint8_t mask_len, uint32_t flags = 0) {
    result_ = no_result;
    return ip_configure_address(iod, address, mask_len, &result_, flags, patience);
  }
  // The next reply of an address configuration.
  uint32_t collect() {
    mts_msg_ref_t message = nullptr;
    if (!wait_until([&] { return mts_recv_now(queue_, &message) == 0; }, long_enough)) return ~0u;
    EXPECT_EQ(mts_opc_get(message), IP_OPCODE_CONFIGURE);
    return ip_parse_config_response(message, 0, 0, 0, &result_);
  }
  uint32_t send_by_hand(const void *message, uint32_t size, uint32_t opcode) {
    std::vector<std::byte> bytes(size);
    std::memcpy(bytes.data(), message, size);
    struct mts_send_opts options {};
    return ip_cl_mts_send_with_sz(queue_, IP_SAP_CONTROL, bytes.data(), size, 0, &options, opcode);
  }
  // As `ip -j addr show` has it.
  bool kernel_has(const std::string &device, const std::string &address, int mask_len) {
    std::string output;
    test_support::run({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip -j addr show dev " + device}, &output);
    const size_t local = output.find("\"local\":\"" + address + "\"");
    return local != std::string::npos &&
           output.find("\"prefixlen\":" + std::to_string(mask_len) + ",", local) != std::string::npos;
  }
  static std::string setting(const std::string &name) {
    std::ifstream file("/proc/sys/net/ipv4/conf/" + name);
    std::string text;
    file >> text;
    return text;
  }
  // The entry of an answer of ipd to the question what it has of that kind, whose word at `offset` is `value`.
  template <class Entry>
  std::optional<Entry> shown(uint16_t minor, size_t offset, uint32_t value) {
    ip_msg_show question{};
    question.header.major_type = IP_MAJOR_CLIENT;
    question.header.minor_type = minor;
    mts_msg_ref_t sent = nullptr;
    if (mts_send(queue_, IP_NODE_LOCAL, IP_SAP_CONTROL, IP_OPCODE_CLIENT, &question, sizeof question, &sent, 0,
                 nullptr) != 0) {
      return std::nullopt;
    }
    struct mts_recv_opts options {};
    options.w[0] = 1;
    options.w[2] = patience;
    options.w[3] = mts_rr_token_get(sent);
    mts_msg_ref_t answer = nullptr;
    const bool answered = mts_recv(queue_, &answer, &options) == 0;
    mts_drop(queue_, sent);
    if (!answered) return std::nullopt;
    std::optional<Entry> found;
    const uint32_t size = mts_payload_size(answer);
    for (size_t at = sizeof(ip_msg_show_reply); !found && at + sizeof(Entry) <= size; at += sizeof(Entry)) {
      const auto *bytes = static_cast<const std::byte *>(mts_payload_get(answer)) + at;
      uint32_t word = 0;
      std::memcpy(&word, bytes + offset, sizeof word);
      if (word == value) std::memcpy(&found.emplace(), bytes, sizeof(Entry));
    }
    mts_drop(queue_, answer);
    return found;
  }
  // Messages of a kind with that outcome.
  uint32_t outcomes(uint16_t minor, uint32_t outcome) {
    const auto kind = shown<ip_show_message>(IP_MSG_SHOW_MESSAGES, offsetof(ip_show_message, minor), minor);
    return kind ? kind->counts[outcome][0] : ~0u;
  }
  // A process that borrows va's address from vc and waits for its end.
  Process borrower() {
    return Process([this] {
      uint32_t queue = ~0u;
      if (ip_init_mts(&queue, -1) == 0) return 1;
      ip_client.ctrl_q = queue;
      if (ip_set_unnumbered(va_, "vc") != 1) return 2;
      while (true) pause();
    });
  }
  [[nodiscard]] bool borrows() const { return ip_is_iod_unnumbered(va_) != 0; }

  uint32_t queue_ = ~0u;
  uint32_t va_ = 0, vc_ = 0;
  uint32_t result_ = no_result;
};

// Without a look again: what is done is published.
TEST_F(IpdRequestsTest, AnAddressIsTheKernelsAndPublishedWhenItIsDone) {
  begin();
  for (uint32_t i = 0; i < 50; ++i) {
    const uint32_t address = a1 + (i << 8);
    ASSERT_EQ(configure(va_, address, 24), IP_CONFIG_STATUS_DONE) << i;
    ASSERT_EQ(ip_get_iod_for_local_address("default", address), va_) << i;
    ASSERT_EQ(ip_get_iod_for_local_subnet("default", address & 0xffffff00u, 24), va_) << i;
  }
  EXPECT_EQ(result_, no_result);
  EXPECT_TRUE(kernel_has("va", "10.0.0.1", 24));
  EXPECT_TRUE(kernel_has("va", "10.0.49.1", 24));
  expect_same_as_kernel();
}

TEST_F(IpdRequestsTest, AnAddressThatIsThereIsDone) {
  begin();
  ip("addr add 10.0.0.1/24 dev va");
  EXPECT_EQ(configure(va_, a1, 24), IP_CONFIG_STATUS_DONE);
  EXPECT_EQ(ip_get_iod_for_local_address("default", a1), va_);
  EXPECT_EQ(configure(va_, a1, 24), IP_CONFIG_STATUS_DONE);
}

TEST_F(IpdRequestsTest, AnInterfaceThatIsDownTakesAnAddress) {
  ip("link set va down");
  begin();
  EXPECT_EQ(configure(va_, a1, 32), IP_CONFIG_STATUS_DONE);
  EXPECT_TRUE(kernel_has("va", "10.0.0.1", 32));
}

TEST_F(IpdRequestsTest, ASecondAddressOfASubnetIsASecondaryOne) {
  begin();
  EXPECT_EQ(configure(va_, a1, 24), IP_CONFIG_STATUS_DONE);
  EXPECT_EQ(configure(va_, a1 + 1, 24), IP_CONFIG_STATUS_DONE);
  EXPECT_EQ(ip_get_local_addr(va_), a1);
  expect_same_as_kernel();
}

TEST_F(IpdRequestsTest, AnAddressOutlivesItsClientAndIpd) {
  begin();
  Process client([this] {
    uint32_t queue = ~0u;
    if (ip_init_mts(&queue, -1) == 0) return 1;
    ip_client.ctrl_q = queue;
    return static_cast<int>(ip_configure_address(va_, a1, 24, nullptr, 0, patience));
  });
  EXPECT_EQ(client.wait(long_enough), 0);
  EXPECT_EQ(ip_get_iod_for_local_address("default", a1), va_);
  ipd_.kill_now();
  start_ipd();
  EXPECT_EQ(ip_get_iod_for_local_address("default", a1), va_);
}

// Without a look again: what is done is published.
TEST_F(IpdRequestsTest, AnAddressThatIsRemovedIsNeitherTheKernelsNorPublishedWhenThatIsDone) {
  begin();
  ASSERT_EQ(configure(va_, a1, 24), IP_CONFIG_STATUS_DONE);
  for (uint32_t i = 1; i <= 50; ++i) {
    ASSERT_EQ(configure(va_, a1 + i, 32), IP_CONFIG_STATUS_DONE) << i;
    ASSERT_EQ(ip_get_iod_for_local_address("default", a1 + i), va_) << i;
    ASSERT_EQ(configure(va_, a1 + i, 32, IP_CONFIG_REMOVE), IP_CONFIG_STATUS_DONE) << i;
    ASSERT_EQ(ip_get_iod_for_local_address("default", a1 + i), 0u) << i;
  }
  EXPECT_FALSE(kernel_has("va", "10.0.0.2", 32));
  EXPECT_EQ(configure(va_, a1, 25, IP_CONFIG_REMOVE), IP_CONFIG_STATUS_DONE) << "it has no such address";
  EXPECT_TRUE(kernel_has("va", "10.0.0.1", 24));
  EXPECT_EQ(result_, no_result);
  expect_same_as_kernel();
}

TEST_F(IpdRequestsTest, APrefixOfAnotherInterfaceIsRefusedWithThatInterface) {
  begin();
  ASSERT_EQ(configure(vc_, b1, 24), IP_CONFIG_STATUS_DONE);
  for (const uint8_t mask_len : {uint8_t{24}, uint8_t{16}, uint8_t{32}}) {
    EXPECT_EQ(configure(va_, b1 + 1, mask_len), IP_CONFIG_STATUS_OVERLAP);
    EXPECT_EQ(result_, vc_);
  }
  EXPECT_FALSE(kernel_has("va", "10.0.1.2", 24));
}

TEST_F(IpdRequestsTest, AnotherContextMayHaveThePrefix) {
  write_configuration(R"({"contexts": [{"name": "red", "table": 100, "interfaces": ["vc"]}]})");
  begin({"--config", configuration_file()});
  EXPECT_EQ(configure(vc_, a1, 24), IP_CONFIG_STATUS_DONE);
  EXPECT_EQ(configure(va_, a1, 24), IP_CONFIG_STATUS_DONE);
  EXPECT_EQ(ip_get_iod_for_local_address("red", a1), vc_);
  EXPECT_EQ(ip_get_iod_for_local_address("default", a1), va_);
}

// What the library does not let pass needs a message made by hand.
TEST_F(IpdRequestsTest, AMartianAddressIsRefusedWhoeverMadeTheMessage) {
  begin();
  EXPECT_EQ(configure(va_, 0x7f000002, 8), IP_CONFIG_STATUS_BAD_ARGUMENT);
  const auto message = config_message(va_, 0x7f000002, 8);
  ASSERT_EQ(send_by_hand(&message, sizeof message, IP_OPCODE_CONFIGURE), 1u);
  EXPECT_EQ(collect(), IP_CONFIG_STATUS_MARTIAN);
  EXPECT_EQ(configure(va_, 0xe0000005, 32), IP_CONFIG_STATUS_MARTIAN) << "a group";
  EXPECT_EQ(configure(va_, 0x0a0000ff, 24), IP_CONFIG_STATUS_MARTIAN) << "the broadcast address";
}

TEST_F(IpdRequestsTest, AMalformedRequestIsRefusedWhoeverMadeTheMessage) {
  begin();
  auto message = config_message(va_, a1, 33);
  ASSERT_EQ(send_by_hand(&message, sizeof message, IP_OPCODE_CONFIGURE), 1u);
  EXPECT_EQ(collect(), IP_CONFIG_STATUS_MALFORMED);
  message.mask_len = 24;
  ASSERT_EQ(send_by_hand(&message, sizeof message - 1, IP_OPCODE_CONFIGURE), 1u);
  EXPECT_EQ(collect(), IP_CONFIG_STATUS_MALFORMED) << "too short";
  EXPECT_EQ(configure(va_, a1, 24), IP_CONFIG_STATUS_DONE) << "the client goes on";
}

TEST_F(IpdRequestsTest, AnUnknownInterfaceIsRefused) {
  begin();
  EXPECT_EQ(configure(va_ + 1000, a1, 24), IP_CONFIG_STATUS_NO_INTERFACE);
  ip("link del vc");
  EXPECT_TRUE(wait_until([this] { return im_get_if_name(vc_) == nullptr; }, long_enough));
  EXPECT_EQ(configure(vc_, a1, 24), IP_CONFIG_STATUS_NO_INTERFACE);
}

TEST_F(IpdRequestsTest, AProcessThatMayNotIsRefused) {
  begin();
  Process nobody([this] {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 250;
    uint32_t queue = ~0u;
    if (ip_init_mts(&queue, -1) == 0) return 251;
    ip_client.ctrl_q = queue;
    return static_cast<int>(ip_configure_address(va_, a1, 24, nullptr, 0, patience));
  });
  EXPECT_EQ(nobody.wait(long_enough), static_cast<int>(IP_CONFIG_STATUS_NO_PRIVILEGE));
  EXPECT_FALSE(kernel_has("va", "10.0.0.1", 24));
}

TEST_F(IpdRequestsTest, AnIpdThatMayNotSaysSo) {
  begin_without_privilege();
  EXPECT_EQ(configure(va_, a1, 24), IP_CONFIG_STATUS_NO_PRIVILEGE);
  EXPECT_EQ(result_, static_cast<uint32_t>(EPERM));
}

// The kernel has no IPv4 on a device with so small an MTU.
TEST_F(IpdRequestsTest, ARefusalOfTheKernelIsQuoted) {
  ip("link set lo mtu 60");
  begin();
  EXPECT_EQ(configure(iod("lo"), a1, 32), IP_CONFIG_STATUS_KERNEL);
  EXPECT_EQ(result_, static_cast<uint32_t>(ENOBUFS));
}

TEST_F(IpdRequestsTest, WhoDoesNotWaitIsNotAnswered) {
  begin();
  EXPECT_EQ(configure(va_, a1, 24, IP_CONFIG_NO_WAIT), 1u);
  EXPECT_TRUE(wait_until([this] { return ip_get_iod_for_local_address("default", a1) == va_; }, long_enough));
  EXPECT_EQ(configure(va_ + 1000, a1, 24), IP_CONFIG_STATUS_NO_INTERFACE) << "the first reply is the second request's";
}

TEST_F(IpdRequestsTest, WhoCollectsTheReplyFindsItInTheQueue) {
  begin();
  errno = 0;
  EXPECT_EQ(configure(va_, a1, 24, IP_CONFIG_COLLECT), 0u);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(collect(), IP_CONFIG_STATUS_DONE);
  EXPECT_EQ(ip_get_iod_for_local_address("default", a1), va_);
}

// All of them are there before ipd hears of the first one's publication.
TEST_F(IpdRequestsTest, MoreRequestsThanMayWaitAreToldThatItIsBusy) {
  begin();
  EXPECT_EQ(configure(va_, a1, 24), IP_CONFIG_STATUS_DONE) << "connected";
  ipd_.signal(SIGSTOP);
  constexpr uint32_t asked = 48;
  for (uint32_t i = 1; i <= asked; ++i) ASSERT_EQ(configure(va_, a1 + i, 24, IP_CONFIG_COLLECT), 0u);
  ipd_.signal(SIGCONT);
  std::map<uint32_t, uint32_t> replies;
  for (uint32_t i = 0; i < asked; ++i) ++replies[collect()];
  EXPECT_GE(replies[IP_CONFIG_STATUS_DONE], 32u);
  EXPECT_GE(replies[IP_CONFIG_STATUS_BUSY], 1u);
  EXPECT_EQ(replies[IP_CONFIG_STATUS_DONE] + replies[IP_CONFIG_STATUS_BUSY], asked);
  EXPECT_EQ(configure(va_, a1 + asked, 24), IP_CONFIG_STATUS_DONE) << "later it is not";
}

TEST_F(IpdRequestsTest, ACallerThatIsKilledWhileItWaitsLeavesTheAddress) {
  begin();
  int sent[2] = {-1, -1};
  ASSERT_EQ(pipe2(sent, O_CLOEXEC), 0);
  ipd_.signal(SIGSTOP);
  Process client([this, &sent] {
    uint32_t queue = ~0u;
    if (ip_init_mts(&queue, -1) == 0) return 1;
    ip_client.ctrl_q = queue;
    if (ip_configure_address(va_, a1, 24, nullptr, IP_CONFIG_COLLECT, patience) != 0) return 2;
    const ssize_t written = write(sent[1], "!", 1);
    while (written == 1) pause();
    return 3;
  });
  close(sent[1]);
  char mark = 0;
  EXPECT_EQ(read(sent[0], &mark, 1), 1) << "nothing, when the client ended without having asked";
  close(sent[0]);
  client.kill_now();
  ipd_.signal(SIGCONT);
  EXPECT_TRUE(wait_until([this] { return ip_get_iod_for_local_address("default", a1) == va_; }, long_enough));
  EXPECT_EQ(configure(va_, a1 + 1, 24), IP_CONFIG_STATUS_DONE) << "others are served";
}

TEST_F(IpdRequestsTest, ACallReturnsWhenIpdIsKilledUnderIt) {
  begin();
  EXPECT_EQ(configure(va_, a1, 24), IP_CONFIG_STATUS_DONE);
  ipd_.signal(SIGSTOP);
  Process killer([this] {
    if (!wait_until([] { return is_asleep(getppid()); }, long_enough)) return 1;
    return kill(ipd_.pid(), SIGKILL) == 0 ? 0 : 2;
  });
  const uint32_t status = configure(va_, a1 + 1, 24);
  EXPECT_TRUE(status == IP_CONFIG_STATUS_NO_REPLY || status == IP_CONFIG_STATUS_NOT_SENT) << status;
  EXPECT_EQ(killer.wait(long_enough), 0);
}

TEST_F(IpdRequestsTest, AnInterfaceBorrowsAnAddressAndGivesItBack) {
  begin();
  ASSERT_EQ(configure(vc_, a1, 24), IP_CONFIG_STATUS_DONE);
  EXPECT_EQ(ip_set_unnumbered(va_, "vc"), 1u);
  EXPECT_TRUE(wait_until([this] { return borrows(); }, long_enough));
  EXPECT_EQ(ip_get_local_addr(va_), a1);
  uint32_t address = 0;
  uint32_t flag = 0;
  char lender[256] = "";
  EXPECT_EQ(ip_get_unnumbered_info(va_, &address, lender, &flag), 1u);
  EXPECT_STREQ(lender, "vc");
  EXPECT_EQ(flag, 1u);
  EXPECT_EQ(ip_unset_unnumbered(va_), 1u);
  EXPECT_TRUE(wait_until([this] { return !borrows(); }, long_enough));
  EXPECT_EQ(ip_get_local_addr(va_), 0u);
}

TEST_F(IpdRequestsTest, ALoanEndsWithTheProcessThatAskedForIt) {
  begin();
  Process client = borrower();
  EXPECT_TRUE(wait_until([this] { return borrows(); }, long_enough));
  client.kill_now();
  EXPECT_TRUE(wait_until([this] { return !borrows(); }, long_enough));
}

TEST_F(IpdRequestsTest, ACleanUpEndsTheLoansOfOthers) {
  begin();
  Process client = borrower();
  EXPECT_TRUE(wait_until([this] { return borrows(); }, long_enough));
  const std::vector<uint32_t> iods{va_, vc_};
  EXPECT_EQ(ip_unnumbered_pss_cleanup(queue_, 2, iods.data()), 1u);
  EXPECT_TRUE(wait_until([this] { return !borrows(); }, long_enough));
  EXPECT_TRUE(client.running());
}

TEST_F(IpdRequestsTest, ABorrowerThatIsRenamedGoesOnBorrowing) {
  begin();
  EXPECT_EQ(ip_set_unnumbered(va_, "vc"), 1u);
  EXPECT_TRUE(wait_until([this] { return borrows(); }, long_enough));
  ip("link set va name uplink");
  EXPECT_TRUE(wait_until([this] { return iod("uplink") == va_ && strcmp(im_get_if_name(va_), "uplink") == 0; }));
  EXPECT_TRUE(wait_until([this] { return borrows(); }, long_enough));
}

TEST_F(IpdRequestsTest, TheConfigurationsLoanHolds) {
  write_configuration(R"({"unnumbered": [{"interface": "va", "source": "vb"}]})");
  begin({"--config", configuration_file()});
  const auto lender = [this] {
    uint32_t address = 0;
    uint32_t flag = 0;
    char name[256] = "";
    ip_get_unnumbered_info(va_, &address, name, &flag);
    return std::string(name);
  };
  EXPECT_TRUE(wait_until([&] { return lender() == "vb"; }, long_enough));
  EXPECT_EQ(ip_set_unnumbered(va_, "vc"), 1u);
  EXPECT_EQ(configure(vc_, a1, 24), IP_CONFIG_STATUS_DONE) << "the loan was taken by then";
  EXPECT_EQ(lender(), "vb");
  write_configuration("{}");
  ipd_.signal(SIGHUP);
  EXPECT_TRUE(wait_until([&] { return lender() == "vc"; }, long_enough));
}

TEST_F(IpdRequestsTest, RedirectsGoOffOnTheInterfacesOfTheList) {
  begin();
  const std::vector<uint32_t> iods{va_, vc_};
  for (const char *name : {"va", "vc"}) ASSERT_EQ(setting(std::string(name) + "/send_redirects"), "1");
  EXPECT_EQ(ip_req_redirect_disable(queue_, 2, iods.data()), 1u);
  EXPECT_TRUE(wait_until([] { return setting("all/send_redirects") == "0" && setting("vc/send_redirects") == "0"; },
                         long_enough));
  for (const char *name : {"va", "vc"}) {
    EXPECT_EQ(setting(std::string(name) + "/send_redirects"), "0");
    EXPECT_EQ(setting(std::string(name) + "/accept_redirects"), "0");
  }
  EXPECT_EQ(setting("vb/send_redirects"), "1");
  EXPECT_EQ(outcomes(IP_MSG_REDIRECT_DISABLE, IP_SHOW_DONE), 1u);
}

TEST_F(IpdRequestsTest, ARequestOfAnUnknownInterfaceIsCounted) {
  begin();
  const uint32_t unknown = va_ + 1000;
  EXPECT_EQ(ip_req_redirect_disable(queue_, 1, &unknown), 1u);
  EXPECT_EQ(ip_set_unnumbered(unknown, "vc"), 1u);
  EXPECT_EQ(outcomes(IP_MSG_REDIRECT_DISABLE, IP_SHOW_NO_INTERFACE), 1u);
  EXPECT_EQ(outcomes(IP_MSG_SET_UNNUMBERED, IP_SHOW_NO_INTERFACE), 1u);
}

TEST_F(IpdRequestsTest, WhatAProcessHoldsIsShown) {
  begin();
  EXPECT_EQ(ip_report_link_local(5, 77), 1u);
  EXPECT_EQ(ip_report_link_local(3, 78), 1u);
  EXPECT_EQ(ip_set_unnumbered(va_, "vc"), 1u);
  const auto client =
      shown<ip_show_client>(IP_MSG_SHOW_CLIENTS, offsetof(ip_show_client, pid), static_cast<uint32_t>(getpid()));
  ASSERT_TRUE(client);
  EXPECT_EQ(client->loans, 1u);
  EXPECT_EQ(client->link_local_reports, 2u);
  EXPECT_EQ(client->link_local_ref, 5u);
  EXPECT_EQ(client->link_local_value, 77u);
}

TEST_F(IpdRequestsTest, TheLoadShareSettingIsPublishedForWhoAsks) {
  begin();
  set_sysctl("fib_multipath_hash_policy", "1");
  EXPECT_EQ(ip_request_load_share_cfg(queue_), 1u);
  EXPECT_EQ(outcomes(IP_MSG_LOAD_SHARE_CFG, IP_SHOW_DONE), 1u);
  ip_ecmp_loadshare_status status{};
  EXPECT_EQ(ip_get_ecmp_loadshare_status(&status), 1u);
  EXPECT_EQ(status.mode, 1u) << "once the count shows that the request was done";
}

TEST_F(IpdRequestsTest, AListWithACountThatDoesNotFitItsSizeIsRefusedAndLogged) {
  begin();
  ip_msg_interface_list message{};
  message.header.major_type = IP_MAJOR_CLIENT;
  message.header.minor_type = IP_MSG_REDIRECT_DISABLE;
  message.count = 1;
  message.iods[0] = va_;
  ASSERT_EQ(send_by_hand(&message, sizeof message, IP_OPCODE_CLIENT), 1u);
  EXPECT_TRUE(wait_until([this] { return ipd_said("disable redirects, 232 bytes: too short"); }, long_enough));
  EXPECT_EQ(setting("va/send_redirects"), "1");
}

}  // namespace
