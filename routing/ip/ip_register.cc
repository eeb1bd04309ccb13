// SPDX-License-Identifier: Apache-2.0
// Registration: a client makes itself known to the IP process, and takes leave.
//
//   not registered   ip_register_done 0
//   registered       ip_register_done 1: the IP process accepted, or the client does not want to know
//
// A registration goes out on a queue made for it, and the reply is the first message that arrives there: nothing else
// can, because nobody else knows the queue. A reply that cannot be read leaves the state alone; one that refuses does
// not.
//
// On a standby supervisor the IP process of the active one is not to be reached, and clients with fixed SAPs are
// registered there by their other half. A dynamic SAP has no other half, so that client registers, with a word in the
// log.
#include <algorithm>
#include <cstring>

#include "ip_api.h"
#include "message.h"
#include "mtrack.h"
#include "mts.h"
#include "report.h"
#include "sysmgr.h"
#include "tsp.h"

extern "C" {

int32_t ip_register_done;

}  // extern "C"

namespace libip {
namespace {

constexpr uint32_t active_supervisor = 1;
constexpr uint32_t lowest_dynamic_sap = 2048;
constexpr uint32_t highest_dynamic_sap = 65535;
constexpr uint32_t passes_before_others = 0x10;  // bit of a queue's options for an opcode
constexpr uint32_t kept_options = 0xffef;        // bits that stay: the upper half is reserved

// What the IP process answered last. Nobody asks for it; it is for who looks at a core dump.
[[gnu::used]] uint32_t registration_result;

void debug_misc(const char *text) {
  if (dbg_ip_api_misc != 0) debug_line("%s", text);
}

bool is_dynamic(uint32_t sap) {
  return sap >= lowest_dynamic_sap && sap <= highest_dynamic_sap;
}

// Writes a name into a message: at most what its field holds with a terminator.
template <size_t Size>
void copy_name(char (&field)[Size], const char *name) {
  copy_text(field, name);
  field[Size - 1] = '\0';
}

uint32_t send_request(uint32_t queue, ip_msgtype *message) {
  mts_send_opts options = send_options();
  return ip_cl_mts_send(queue, IP_SAP_CONTROL, message, 0, &options, IP_OPCODE_CLIENT);
}

void fill_registration(ip_msg_register &message, const char *name, uint8_t reg_key, uint32_t reg_mode,
                       uint32_t reg_arg1, uint32_t reg_arg2) {
  fill_header(message.header, IP_MSG_REGISTER);
  message.reg_key = reg_key;
  message.reg_mode = reg_mode;
  copy_name(message.name, name);
  message.client_pid = message.header.pid;
  message.client_epid = ksink_get_epid(0);
  message.reg_arg2 = reg_arg2;
  message.reg_arg1 = reg_arg1;
  message.flags = ip_client.flags;
  copy_text(message.recv_fn, ip_client.recv_fn);
}

void let_requests_pass(uint32_t queue) {
  const uint32_t options = mts_options_get(queue, IP_OPCODE_CLIENT);
  mts_options_set(queue, IP_OPCODE_CLIENT, (options & kept_options) | passes_before_others);
}

// On a standby: is the client to be registered all the same?
bool register_on_standby(uint32_t ctrl_q, uint32_t data_sap) {
  // The control queue is asked about even when there is none.
  if (!is_dynamic(mts_sap_get(ctrl_q)) && !is_dynamic(data_sap)) return false;
  syslog_perror("error: ip_register on standby with dynamic saps");
  return true;
}

// Sends a finished registration on a queue of its own.
uint32_t register_on_new_queue(ip_msg_register &message) {
  uint32_t reply_q = no_queue;
  if (ip_init_mts(&reply_q, dynamic_sap) == 0) return 0;
  message.reply_sap = mts_sap_get(reply_q);
  const uint32_t result = ip_register_with_ack(IP_SAP_CONTROL, as_message(message), reply_q);
  mts_unbind(reply_q, 0);
  return result;
}

// What a received message says as a reply. 1: accepted, or nothing.
uint32_t read_reply(mts_msg_ref_t received) {
  const void *payload = mts_payload_get(received);
  if (payload == nullptr) return 1;
  ip_msg_register_reply reply{};
  const size_t size = readable_bytes(received, sizeof reply);
  std::memcpy(&reply, payload, size);
  if (size < sizeof reply || reply.major_type != IP_MAJOR_CLIENT || reply.minor_type != IP_MSG_REGISTER_REPLY) {
    char text[message_text_size];
    const int major = reply.major_type;
    const int minor = reply.minor_type;
    ksink_snprintf(text, sizeof text, "Invalid IP registration reply. Message major type %d, minor type %d", major,
                   minor);
    report_values(msg_error_IP_IP_CLNT_FAILURE, text, major, minor);
    return 0;
  }
  registration_result = reply.result;
  ip_register_done = reply.result != 0 ? 1 : 0;
  return reply.result != 0 ? 1 : 0;
}

// A setter of the client record, which exists while the library is attached.
template <class Change>
uint32_t change_client(Change change) {
  if (ip_api_attached == 0) return 0;
  change(ip_client);
  return 1;
}

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_client_set_flags(int32_t flags) {
  return libip::change_client([flags](struct ip_client &client) {
    client.flags = static_cast<uint32_t>(flags) | IP_CLIENT_RECV_MTS | IP_CLIENT_RECV_TX_MTS;
  });
}

uint32_t ip_client_set_ctrl_q(uint32_t queue) {
  return libip::change_client([queue](struct ip_client &client) { client.ctrl_q = queue; });
}

// The two differ in one flag: packets inside the messages or not.
uint32_t ip_client_set_recv_fn(const char *name) {
  return libip::change_client([name](struct ip_client &client) {
    libip::copy_text(client.recv_fn, name);
    client.flags &= ~(IP_CLIENT_RECV_MTS | IP_CLIENT_RECV_TX_MTS);
  });
}

uint32_t ip_client_set_recv_fn_with_tx_mts(const char *name) {
  return libip::change_client([name](struct ip_client &client) {
    libip::copy_text(client.recv_fn, name);
    client.flags = (client.flags | IP_CLIENT_RECV_MTS) & ~IP_CLIENT_RECV_TX_MTS;
  });
}

uint32_t ip_register(const char *name, uint32_t data_q, uint32_t ctrl_q, uint8_t reg_key, uint32_t reg_mode,
                     struct ip_client *client, uint32_t reg_arg1, uint32_t reg_arg2) {
  using namespace libip;
  if (client == nullptr) {
    debug_misc("ip_register: bad client\n");
    return 0;
  }
  ip_msgtype *block = allocate_message("routing/ip/ip_register.cc", __LINE__);
  if (block == nullptr) {
    debug_misc("ip_register: no memory\n");
    return 0;
  }
  auto &message = *reinterpret_cast<ip_msg_register *>(block);
  fill_registration(message, name, reg_key, reg_mode, reg_arg1, reg_arg2);

  client->data_q = no_queue;
  client->ctrl_q = no_queue;
  client->reg_aux8 = 0;
  client->reg_aux32 = 0;
  if (data_q != no_queue) {
    message.data_sap = mts_sap_get(data_q);
    client->data_q = data_q;
  }
  if (ctrl_q != no_queue) {
    client->ctrl_q = ctrl_q;
    if ((message.flags & IP_CLIENT_KEEP_MTS_OPTION) == 0) let_requests_pass(ctrl_q);
  }

  uint32_t result = 1;
  if (sysmgr_supstate_get() == active_supervisor || register_on_standby(ctrl_q, message.data_sap)) {
    result = register_on_new_queue(message);
  }
  mtrack_free(block);
  return result;
}

uint32_t ip_register_with_ack(uint32_t, ip_msgtype *msg, uint32_t reply_q) {
  using namespace libip;
  if (reply_q == no_queue) return 0;
  if (send_request(reply_q, msg) == 0) {
    syslog_perror("ip_register: bad ip_cl_mts_send.\n");
    return 0;
  }
  ip_msg_register sent;
  std::memcpy(&sent, msg, sizeof sent);
  if ((sent.flags & IP_CLIENT_NO_ACK) != 0) {
    ip_register_done = 1;
    return 1;
  }
  mts_msg_ref_t received = nullptr;
  mts_recv_opts options = receive_options(0);
  tsp_before_yield();
  const int32_t status = mts_recv(reply_q, &received, &options);
  tsp_after_yield();
  if (status < 0) {
    syslog_perror("ip_register_wait_for_ack: error in recv ack from IP\n");
    return 0;
  }
  const uint32_t result = read_reply(received);
  mts_drop(reply_q, received);
  return result;
}

int32_t ip_deregister(const char *name, uint8_t reg_key, struct ip_client *client) {
  using namespace libip;
  if (dbg_ip_deregister != 0) {
    debug_line("ip_deregister (%s %d 0x%x)\n", name != nullptr ? name : "(null)", reg_key,
               static_cast<uint32_t>(reinterpret_cast<uintptr_t>(client)));
  }
  if (client == nullptr) {
    debug_misc("ip_deregister: bad client\n");
    return 0;
  }
  ip_msgtype *block = allocate_message("routing/ip/ip_register.cc", __LINE__);
  if (block == nullptr) {
    debug_misc("ip_deregister: no memory\n");
    return 0;
  }
  auto &message = *reinterpret_cast<ip_msg_deregister *>(block);
  fill_header(message.header, IP_MSG_DEREGISTER);
  message.reg_key = reg_key;
  copy_name(message.name, name);
  message.client_pid = message.header.pid;
  message.reg_aux8 = client->reg_aux8;
  message.reg_aux32 = client->reg_aux32;

  uint32_t made_q = no_queue;
  uint32_t queue = client->ctrl_q != no_queue ? client->ctrl_q : client->data_q;
  if (queue == no_queue) {
    if (ip_init_mts(&made_q, dynamic_sap) == 0) {
      mtrack_free(block);
      return 0;
    }
    queue = made_q;
  }
  uint32_t result = 1;
  if (sysmgr_supstate_get() == active_supervisor) {
    result = send_request(queue, block);
    if (result != 0) {
      registration_result = 0;
      ip_register_done = 0;
      if (dbg_ip_deregister != 0) debug_line("ip_deregister: good send\n");
    } else {
      debug_misc("ip_deregister: bad send\n");
    }
  }
  mtrack_free(block);
  if (made_q != no_queue) mts_unbind(made_q, 0);
  return static_cast<int32_t>(result);
}

}  // extern "C"
