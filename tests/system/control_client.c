// SPDX-License-Identifier: Apache-2.0
/* A client of the IP process that does what its arguments say, step by step, and says on one line each what came of it.
 *
 *   attach                    becomes a client
 *   bind                      a queue of its own for what follows
 *   control [SAP]             a control queue; - for a dynamic SAP
 *   register NAME KEY         with the control queue, when there is one
 *   deregister NAME KEY
 *   send NAME KEY             a registration from the queue of `bind`
 *   reply                     what comes back to it
 *   join|leave GROUP IF       with the control queue
 *   configure IF ADDR LEN SECONDS
 *   borrow IF LENDER, own IF, redirects IF, cleanup IF
 *   stats IF                  on the queue of `bind`
 *   download                  the whole set of interfaces, to the queue of `bind`
 *   fill                      sends until the IP process takes no more
 *   crowd COUNT NAME          so many processes, each registers as NAME-number and leaves at a USR1
 *   become UID
 *   claim PID                 what registrations from now on say who sent them
 *   forge SEED                see forged_messages.h
 *   insist NAME               registers, configures an address of ib, asks for statistics and leaves, over and over;
 * says when it begins to be served, and when it begins not to be hold                      until it is killed wait for
 * a USR1
 */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define LIBIP_NO_INET_NTOA
#include "forged_messages.h"
#include "ip_api.h"
#include "mts.h"
#include "steps.h"

#define NO_QUEUE 0xffffffffu

static uint32_t queue = NO_QUEUE;
static uint32_t control = NO_QUEUE;
static uint32_t claimed_pid;

static void say(const char *what, uint32_t result) {
  /* One write, so that lines of several processes do not mix. */
  char line[128];
  const int length = snprintf(line, sizeof line, "%s %u\n", what, result);
  if (write(STDOUT_FILENO, line, (size_t)length) != length) _exit(4);
}

static uint32_t register_as(const char *name, uint8_t key) {
  return ip_register(name, NO_QUEUE, control, key, 0, &ip_client, 0, 0);
}

static uint32_t send_registration(const char *name, uint8_t key) {
  struct ip_msg_register message;
  memset(&message, 0, sizeof message);
  message.header.major_type = IP_MAJOR_CLIENT;
  message.header.minor_type = IP_MSG_REGISTER;
  message.header.pid = claimed_pid != 0 ? claimed_pid : (uint32_t)getpid();
  message.client_pid = message.header.pid;
  message.reg_key = key;
  snprintf(message.name, sizeof message.name, "%s", name);
  message.reply_sap = mts_sap_get(queue);
  struct mts_send_opts options = {{1}};
  ip_msgtype plain;
  memcpy(&plain, &message, sizeof plain);
  return ip_cl_mts_send(queue, IP_SAP_CONTROL, &plain, 0, &options, IP_OPCODE_CLIENT);
}

static mts_msg_ref_t receive(void) {
  struct mts_recv_opts options = {{1}};
  mts_msg_ref_t msg = NULL;
  int32_t status;
  do {
    status = mts_recv(queue, &msg, &options);
  } while (status < 0 && errno == EINTR);
  return status < 0 ? NULL : msg;
}

static uint32_t receive_reply(void) {
  const mts_msg_ref_t msg = receive();
  struct ip_msg_register_reply reply = {0, 0, 0, 0, {0, 0}, 0};
  if (msg == NULL || mts_payload_size(msg) < sizeof reply) return 0;
  memcpy(&reply, mts_payload_get(msg), sizeof reply);
  mts_drop(queue, msg);
  return reply.minor_type == IP_MSG_REGISTER_REPLY ? reply.result : 0;
}

static void show_statistics(const char *interface) {
  struct ip_msg_if_stats_request request;
  memset(&request, 0, sizeof request);
  request.iod = interface_of(interface);
  void *answer = NULL;
  const uint32_t result = ip_get_interface_stats(queue, &request, sizeof request, &answer);
  say("stats", result);
  if (result == 0) return;
  struct ip_msg_if_stats_reply reply;
  memcpy(&reply, answer, sizeof reply);
  free(answer);
  printf("of %u: %u counters, %u packets in, %u out\n", reply.iod, reply.count,
         reply.counters[IP_IF_STAT_RX_PACKETS][0], reply.counters[IP_IF_STAT_TX_PACKETS][0]);
  fflush(stdout);
}

static int has_last;

static void learn(ip_if_info_msg *record) {
  if (record->count == 0) has_last = 1;
  const char *entries = (const char *)record + sizeof *record;
  for (uint32_t i = 0; i < record->count; ++i) {
    ip_if_info_msg_entry entry;
    memcpy(&entry, entries + i * sizeof entry, sizeof entry);
    printf("interface %u %.64s index %u context %u flags %u address %08x/%u mtu %u lender %u\n", entry.f0, entry.f1,
           entry.f3, entry.f7, entry.f2 & ~IP_IF_INFO_LAST, entry.f4, entry.f8, entry.f9, entry.f10);
    if ((entry.f2 & IP_IF_INFO_LAST) != 0) has_last = 1;
  }
}

static void download(void) {
  say("download", ip_download_if_info(queue, 1, IP_DOWNLOAD_ONCE));
  while (has_last == 0) {
    const mts_msg_ref_t msg = receive();
    if (msg == NULL) break;
    if (mts_opc_get(msg) == IP_OPCODE_IF_INFO) ip_parse_if_info_notification(msg, learn);
    mts_drop(queue, msg);
  }
  fflush(stdout);
  say("downloaded", (uint32_t)has_last);
}

static void fill(void) {
  uint32_t sent = 0;
  while (ip_report_link_local(1, sent) != 0) ++sent;
  say("filled", sent);
}

/* A call has no other results than these. */
static uint32_t among(uint32_t result, uint32_t good, uint32_t bad, uint32_t other_bad) {
  if (result != good && result != bad && result != other_bad) {
    say("undocumented", result);
    exit(1);
  }
  return result == good ? 1 : 0;
}

static uint32_t is_served(const char *name) {
  uint32_t more = 0;
  struct ip_msg_if_stats_request request;
  memset(&request, 0, sizeof request);
  request.iod = interface_of("ib");
  void *answer = NULL;
  const uint32_t registered = among(register_as(name, 1), 1, 0, 0);
  const uint32_t status = ip_configure_address(request.iod, 0x0a010001, 24, &more, 0, 60);
  const uint32_t configured =
      among(status, IP_CONFIG_STATUS_DONE, IP_CONFIG_STATUS_NO_REPLY, IP_CONFIG_STATUS_NOT_SENT);
  const uint32_t asked = among(ip_get_interface_stats(queue, &request, sizeof request, &answer), 1, 0, 0);
  if (asked != 0) free(answer);
  const uint32_t left = among((uint32_t)ip_deregister(name, 1, &ip_client), 1, 0, 0);
  return registered & configured & asked & left;
}

static void insist(const char *name) {
  uint32_t times_served = 0;
  uint32_t times_refused = 0;
  while (1) {
    while (is_served(name) == 0) {
      const struct timespec a_moment = {0, 20000000};
      nanosleep(&a_moment, NULL);
    }
    say("served", ++times_served);
    while (is_served(name) != 0) {
    }
    say("refused", ++times_refused);
  }
}

static void wait_for_signal(void) {
  sigset_t set;
  int number;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  sigwait(&set, &number);
}

static int member_of_crowd(const char *name, uint32_t number) {
  char own[64];
  snprintf(own, sizeof own, "%s-%u", name, number);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (ip_api_init() == NULL) return 3;
  const uint32_t registered = register_as(own, 1);
  say("registered", registered);
  wait_for_signal();
  return registered == 1 && ip_deregister(own, 1, &ip_client) == 1 ? 0 : 1;
}

static void crowd(uint32_t count, const char *name) {
  pid_t *members = calloc(count, sizeof *members);
  if (members == NULL) exit(4);
  for (uint32_t i = 0; i < count; ++i) {
    members[i] = fork();
    if (members[i] == 0) _exit(member_of_crowd(name, i));
    if (members[i] < 0) exit(4);
  }
  wait_for_signal();
  for (uint32_t i = 0; i < count; ++i) kill(members[i], SIGUSR1);
  uint32_t left = 0;
  for (uint32_t i = 0; i < count; ++i) {
    int status = -1;
    if (waitpid(members[i], &status, 0) == members[i] && status == 0) ++left;
  }
  free(members);
  say("left", left);
}

static uint32_t change_list(const char *verb, const char *interface) {
  const uint32_t iod = interface_of(interface);
  return verb[0] == 'r' ? ip_req_redirect_disable(control, 1, &iod) : ip_unnumbered_pss_cleanup(control, 1, &iod);
}

static int step(char **words, int count) {
  const char *verb = words[0];
  if (strcmp(verb, "attach") == 0) {
    say(verb, ip_api_init() != NULL ? 1u : 0u);
  } else if (strcmp(verb, "bind") == 0) {
    say(verb, ip_init_mts(&queue, -1));
  } else if (strcmp(verb, "reply") == 0) {
    say(verb, receive_reply());
  } else if (strcmp(verb, "download") == 0) {
    download();
  } else if (strcmp(verb, "fill") == 0) {
    fill();
  } else if (strcmp(verb, "hold") == 0) {
    say("held", 1);
    while (1) pause();
  } else if (strcmp(verb, "wait") == 0) {
    say("waits", 1);
    wait_for_signal();
  } else if (count < 2) {
    return 0;
  } else if (strcmp(verb, "control") == 0) {
    const uint32_t bound = ip_init_mts(&control, strcmp(words[1], "-") == 0 ? -1 : atoi(words[1]));
    say(verb, bound != 0 && ip_client_set_ctrl_q(control) != 0 ? 1u : 0u);
    return 2;
  } else if (strcmp(verb, "stats") == 0) {
    show_statistics(words[1]);
    return 2;
  } else if (strcmp(verb, "become") == 0) {
    const uid_t uid = (uid_t)atoi(words[1]);
    say(verb, setgid(uid) == 0 && setuid(uid) == 0 ? 1u : 0u);
    return 2;
  } else if (strcmp(verb, "claim") == 0) {
    claimed_pid = (uint32_t)atoi(words[1]);
    return 2;
  } else if (strcmp(verb, "own") == 0) {
    say(verb, ip_unset_unnumbered(interface_of(words[1])));
    return 2;
  } else if (strcmp(verb, "redirects") == 0 || strcmp(verb, "cleanup") == 0) {
    say(verb, change_list(verb, words[1]));
    return 2;
  } else if (strcmp(verb, "insist") == 0) {
    insist(words[1]);
  } else if (strcmp(verb, "forge") == 0) {
    forge_messages(queue, (uint32_t)strtoul(words[1], NULL, 10));
    return 2;
  } else if (count < 3) {
    return 0;
  } else if (strcmp(verb, "register") == 0) {
    say(verb, register_as(words[1], (uint8_t)atoi(words[2])));
    return 3;
  } else if (strcmp(verb, "deregister") == 0) {
    say(verb, (uint32_t)ip_deregister(words[1], (uint8_t)atoi(words[2]), &ip_client));
    return 3;
  } else if (strcmp(verb, "send") == 0) {
    say(verb, send_registration(words[1], (uint8_t)atoi(words[2])));
    return 3;
  } else if (strcmp(verb, "join") == 0) {
    say(verb, ip_join_group(address_of(words[1]), interface_of(words[2])));
    return 3;
  } else if (strcmp(verb, "leave") == 0) {
    say(verb, ip_leave_group(address_of(words[1]), interface_of(words[2])));
    return 3;
  } else if (strcmp(verb, "borrow") == 0) {
    say(verb, ip_set_unnumbered(interface_of(words[1]), words[2]));
    return 3;
  } else if (strcmp(verb, "crowd") == 0) {
    crowd((uint32_t)atoi(words[1]), words[2]);
    return 3;
  } else if (strcmp(verb, "configure") == 0 && count >= 5) {
    uint32_t more = 0;
    say(verb, ip_configure_address(interface_of(words[1]), address_of(words[2]), (uint8_t)atoi(words[3]), &more, 0,
                                   (uint32_t)atoi(words[4])));
    return 5;
  } else {
    return 0;
  }
  return 1;
}

int main(int argc, char **argv) {
  /* Taken by sigwait only. */
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  sigprocmask(SIG_BLOCK, &set, NULL);
  return take_steps(argc, argv, step);
}
