// SPDX-License-Identifier: Apache-2.0
// Most requests have no answer: ipd does them or it does not, and says why not in its log. But it takes a process's
// messages in their order, and tells who asks next how many it refused; and what it did shows in the shared database.
// An address configuration is answered.
//
// Each ipsh registers under a name of its own, since ipd lets one process have a name.
#include "requests.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include "arguments.h"
#include "asking.h"
#include "ip_api.h"
#include "ip_show.h"
#include "mts.h"
#include "mts/mts_server.h"
#include "progress.h"
#include "show_commands.h"
#include "sm/segment.h"
#include "snapshot.h"

namespace ipsh {
namespace {

constexpr uint32_t no_queue = ~0u;
constexpr uint8_t no_key = 0;

bool control_is_served() {
  return std::ranges::any_of(rsw::mts_queues(), [](const rsw::MtsQueueUse &use) { return use.sap == IP_SAP_CONTROL; });
}

// Root and ipd's own user may ask for everything. Whether a group may, only ipd knows.
bool may_surely_configure() {
  struct stat what {};
  return geteuid() == 0 || (stat(rsw::run_directory().c_str(), &what) == 0 && what.st_uid == geteuid());
}

constexpr const char *who_may = "root, ipd's own user and the group that its configuration names may do this";

// Asks ipd what it knows of this process as a client.
bool ask_about_this_process(uint32_t queue, uint32_t seconds, std::vector<std::byte> *answer, Failure *failure) {
  const auto pid = static_cast<uint32_t>(getpid());
  ip_msg_show question{};
  question.header.major_type = IP_MAJOR_CLIENT;
  question.header.minor_type = IP_MSG_SHOW_CLIENTS;
  question.header.pid = pid;
  question.after = pid - 1;
  const Failure rejected{ExitCode::permission, "ipd does not take this process as a client", who_may};
  return ask_ipd(queue, std::as_bytes(std::span(&question, 1)), rejected, answer, failure, seconds);
}

Failure not_bound(int error) {
  const bool denied = error == EACCES || error == EPERM;
  return {denied ? ExitCode::permission : ExitCode::unavailable,
          fmt::format("no message queue in {}: {}", rsw::run_directory(), std::strerror(error)),
          denied ? "run ipsh as a user who may use the run directory" : ""};
}

struct StatusText {
  uint32_t status;
  const char *text;
  ExitCode code;
};

constexpr std::array<StatusText, 11> statuses{{
    {IP_CONFIG_STATUS_DONE, "the address is on the interface", ExitCode::found},
    {IP_CONFIG_STATUS_NO_REPLY, "no answer came", ExitCode::unavailable},
    {IP_CONFIG_STATUS_BAD_ARGUMENT, "no interface can have this address and mask length", ExitCode::usage},
    {IP_CONFIG_STATUS_NOT_SENT, "ipd was not reached", ExitCode::unavailable},
    {IP_CONFIG_STATUS_NO_INTERFACE, "there is no such interface", ExitCode::none},
    {IP_CONFIG_STATUS_OVERLAP, "another interface of the context has that prefix", ExitCode::none},
    {IP_CONFIG_STATUS_MARTIAN, "no host may have this address", ExitCode::none},
    {IP_CONFIG_STATUS_BUSY, "ipd cannot take it on now", ExitCode::none},
    {IP_CONFIG_STATUS_NO_PRIVILEGE, "not permitted, to this process or to ipd itself", ExitCode::permission},
    {IP_CONFIG_STATUS_KERNEL, "the kernel refused", ExitCode::none},
    {IP_CONFIG_STATUS_MALFORMED, "ipd could make nothing of the request", ExitCode::none},
}};

const StatusText *find_status(uint32_t status) {
  const auto *const found = std::ranges::find(statuses, status, &StatusText::status);
  return found == statuses.end() ? nullptr : found;
}

}  // namespace

const char *to_text(RequestKind kind) {
  constexpr std::array names{"join",         "leave",        "configure", "unnumbered set", "unnumbered unset",
                             "multicast on", "multicast off"};
  return names.at(static_cast<size_t>(kind));
}

const char *to_text(RequestState state) {
  constexpr std::array names{"done", "held", "ended", "refused", "none"};
  return names.at(static_cast<size_t>(state));
}

std::string subject_text(const RequestRow &row) {
  const std::string where = fmt::format("{} (iod {})", row.interface, row.iod);
  if (row.addr != 0) return fmt::format("{}/{} on {}", address_text(row.addr), row.mask_len, where);
  if (row.source != 0) return fmt::format("{} from {} on {}", address_text(row.group), address_text(row.source), where);
  if (row.group != 0) return fmt::format("{} on {}", address_text(row.group), where);
  if (!row.lender.empty()) return fmt::format("{} with the address of {}", where, row.lender);
  return where;
}

std::string status_text(uint32_t status, uint32_t result) {
  const StatusText *known = find_status(status);
  if (known == nullptr) return fmt::format("status {}, result {}", status, result);
  if (result == 0) return known->text;
  if (status == IP_CONFIG_STATUS_KERNEL) {
    return fmt::format("{}: {}", known->text, std::strerror(static_cast<int>(result)));
  }
  if (status == IP_CONFIG_STATUS_OVERLAP) {
    const std::string name = interface_name(result);
    return fmt::format("{}: {} (iod {})", known->text, name.empty() ? "one that is gone" : name, result);
  }
  return fmt::format("{} (result {})", known->text, result);
}

ExitCode exit_code_of_status(uint32_t status) {
  const StatusText *known = find_status(status);
  return known == nullptr ? ExitCode::none : known->code;
}

std::unique_ptr<Client> Client::open(const char *queue_name, uint32_t seconds, Failure *failure) {
  std::unique_ptr<Client> client(new Client);
  client->attachment_ = Attachment::open(failure);
  if (!client->attachment_) return nullptr;
  if (!client->attachment_->writer_runs() || !control_is_served()) {
    *failure = {ExitCode::unavailable, "ipd is not running: nobody takes requests", "start ipd"};
    return nullptr;
  }
  mts_bind_opts options{1, 0, 1024, IP_COMPONENT, 0, 15};
  client->queue_ = mts_bind(1, -1, &options, queue_name);
  if (client->queue_ == no_queue || mts_recv_q_unblock(client->queue_) != 0) {
    *failure = not_bound(errno);
    return nullptr;
  }
  // A registration is waited for as long as ipd lives, stopped or not: so it is asked for one that answers.
  std::vector<std::byte> unread;
  if (!ask_about_this_process(client->queue_, seconds, &unread, failure)) return nullptr;
  std::string name = fmt::format("ipsh {}", getpid());
  if (ip_register(name.c_str(), no_queue, client->queue_, no_key, 0, &ip_client, 0, 0) == 0) {
    *failure = control_is_served()
                   ? Failure{ExitCode::permission, "ipd does not take this process as a client", who_may}
                   : Failure{ExitCode::unavailable, "ipd has ended meanwhile", "start ipd"};
    return nullptr;
  }
  client->name_ = std::move(name);
  return client;
}

Client::~Client() {
  if (!name_.empty()) ip_deregister(name_.c_str(), no_key, &ip_client);
  if (queue_ != no_queue) mts_unbind(queue_, 0);
}

std::optional<bool> Client::was_refused() const {
  std::vector<std::byte> answer;
  Failure untold;
  ip_show_client entry{};
  if (!ask_about_this_process(queue_, answer_wait_seconds, &answer, &untold) ||
      answer.size() < sizeof(ip_msg_show_reply) + sizeof entry) {
    return std::nullopt;
  }
  std::memcpy(&entry, answer.data() + sizeof(ip_msg_show_reply), sizeof entry);
  if (entry.pid != static_cast<uint32_t>(getpid())) return std::nullopt;
  return entry.refused != 0;
}

bool Client::wait_until(const std::function<bool()> &holds, uint32_t seconds) const {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds slice(200);  // a database that was replaced has no generation to wait for
  constexpr std::chrono::seconds unsaid(1);
  const Clock::time_point begin = Clock::now();
  const Clock::time_point end = begin + std::chrono::seconds(seconds);
  bool said = false;
  for (;;) {
    const uint32_t generation = __atomic_load_n(&attachment_->database()->generation, __ATOMIC_ACQUIRE);
    // Acquire: what this generation published is seen by the question.
    if (holds()) return true;
    const Clock::time_point now = Clock::now();
    if (now >= end) return false;
    if (!said && now - begin >= unsaid) {
      say_what_is_waited_for("ipd to do it");
      said = true;
    }
    rsw::wait_for_generation(attachment_->database(), generation, static_cast<int>(slice.count()));
  }
}

Failure not_done(const RequestRow &row, uint32_t seconds) {
  const std::string message =
      fmt::format("{}: ipd has not done it within {} seconds: {}", to_text(row.kind), seconds, subject_text(row));
  if (!may_surely_configure()) return {ExitCode::permission, message, who_may};
  return {ExitCode::unavailable, message, "its log says why"};
}

Failure refused(const RequestRow &row) {
  const std::string message = fmt::format("{}: ipd refused it: {}", to_text(row.kind), subject_text(row));
  if (!may_surely_configure()) return {ExitCode::permission, message, who_may};
  return {ExitCode::unavailable, message, "its log says why"};
}

Failure not_sent(const RequestRow &row) {
  return {ExitCode::unavailable, fmt::format("{}: not sent: {}", to_text(row.kind), subject_text(row)),
          "ipd is gone, or takes no more messages: ipsh show queues"};
}

}  // namespace ipsh
