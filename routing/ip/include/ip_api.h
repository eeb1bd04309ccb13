// SPDX-License-Identifier: Apache-2.0
// libip: IPv4 state of this system for every process that speaks IPv4.
//
// The IP process publishes contexts, interfaces and addresses in a shared segment. A client attaches it read-only and
// answers its own questions from it, in its own thread, without a message:
//
//   if (ip_api_init() == NULL) exit(1);
//   uint32_t iod = ip_get_iod_for_local_address("default", 0x7f000001);   // 127.0.0.1: which of my interfaces?
//   ...
//   ip_api_close();
//
// Words used throughout:
//   iod         an interface, as the interface manager numbers them; 0 is no interface
//   context     a VRF: an id (never 0), a name, a table of the URIB
//   context_id  of a context; 0 is none
//   address     32 bits in host order, first octet most significant: 10.0.0.0 is 0x0a000000. inet_ntoa() is the
//               exception
//   addr        an address
//   true        1; false, none, "no answer" and failure are all 0 or null, unless a function says otherwise
//
// Threads, where a function says "any": any number of threads may call it at once, also from inside a callback that the
// library makes. "start-up" functions build up or tear down the state of the whole process without a lock: call them
// from start-up and shut-down code, while no other thread is inside the library.
//
// Blocks: no, unless a function says otherwise. The reader lock under the queries makes no system call and waits for
// nobody. In the IP process (ip_is_server_flag) queries take no lock at all: it owns the database.
//
// Owns: nothing, unless a function says otherwise: what was whose stays so. Records and names that point into the
// shared segment stay readable while the process is attached, but may change or be reused after the call: copy what has
// to last.
#ifndef IP_API_H
#define IP_API_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include "ip_db.h"
#include "ip_memory_types.h"
#include "ip_messages.h"
#include "ip_msg.h"
#include "ip_packet.h"
#include "ip_packet_util.h"
#include "log.h"
#include "mts.h"
#include "tlvu.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// ---------------------------------------------------------------------------------------------------------- the client

// The one client record of a process. There is no typedef: the variable below bears the name.
struct ip_client {
  uint32_t ctrl_q;        // queue handle for control messages
  uint32_t data_q;        // queue handle for packets
  uint8_t seg_desc[176];  // first part of the segment descriptor, as it was at attach
  uint32_t rwsem_lock;    // reader lock; 0: none
  uint8_t reg_aux8;
  uint8_t reserved189[3];
  uint32_t reg_aux32;
  uint32_t flags;
  char recv_fn[33];  // name of the receive function
  uint8_t reserved233[3];
};
static_assert(sizeof(struct ip_client) == 236, "programs that link the library hold a copy of this record");
static_assert(offsetof(struct ip_client, seg_desc) == 8, "");
static_assert(offsetof(struct ip_client, rwsem_lock) == 184, "");
static_assert(offsetof(struct ip_client, reg_aux8) == 188, "");
static_assert(offsetof(struct ip_client, reg_aux32) == 192, "");
static_assert(offsetof(struct ip_client, flags) == 196, "");
static_assert(offsetof(struct ip_client, recv_fn) == 200, "");

// The client record of this process.
extern struct ip_client ip_client;

// ----------------------------------------------------------------------------------------------------- start and stop

// Full start: shared-memory manager, shared database, and on the active supervisor the URIB client.
// Threads: start-up. May be called once per module of a process; each success wants one ip_api_close().
// Owns: the result belongs to the library.
// Results: the client pointer: go on. Null: the reason is in the system log; what was done so far stays done (see
//   ip_shm_api_init), treat it as fatal. A URIB that does not start yet is no failure: URIB questions try again.
struct ip_client *ip_api_init(void);

// Start for the shared database only.
// Threads: start-up. The first success creates the reader lock, attaches the segment, opens the interface manager and
//   registers the memory types; later calls count a reference and do nothing else.
// Results: the client pointer. Null: lock, segment or interface manager failed; the log says which. An earlier step is
//   not undone: the lock stays in ip_client.rwsem_lock, the segment stays in ip_shseg. A new call starts over.
struct ip_client *ip_shm_api_init(void);

// Attaches the segment and finds the root record. Part of ip_shm_api_init; of use alone only to a program that wants
// the records and neither lock nor interface manager.
//   dest  null, or 176 bytes for a copy of the first part of the segment descriptor
// Threads: start-up.
// Results: 1 attached: ip_shseg, ip_api_data, ip_api_mpib and ip_api_contexts_queue are set. 0 not attached.
uint32_t ip_attach_shm(void *dest);

// Registers the memory types of this component with the memory tracker. Part of ip_shm_api_init.
// Threads: start-up.
// Results: what the tracker answers for the shared types.
uint32_t ip_mem_init(void);

// Takes one reference and marks the process as attached without attaching anything, for a process that only sends
// messages. Questions to the database find it empty.
// Threads: start-up. Wants one ip_api_close() like the others.
// Results: the client pointer, always.
struct ip_client *ip_api_init_mts_q(void);

// Gives one reference back; the last one closes the interface manager, destroys the lock, detaches the segment and
// closes the URIB client. Without a reference: logged, nothing happens. Threads: start-up. No other thread may be
// inside a query.
void ip_api_close(void);

// The same, but leaves the lock and the URIB client alone, for a process in which others still use them.
void ip_api_close_nodeps(void);

// Takes the name of the segment away: who is attached stays attached, nobody attaches any more. For the IP process.
// Threads: start-up. Results: 1, always.
uint32_t ip_remove_shm(void);

// The client record of this process. Threads: any. Results: the address of ip_client, attached or not.
struct ip_client *ip_get_client_pointer(void);

// Size in bytes of the largest message between a client and the IP process. Threads: any. Results: 232.
uint32_t ip_get_max_msg_size(void);

// How full the data queue is: nobody keeps account of that. Kept for its callers. Threads: any. Results: 0.
uint32_t ip_data_queue_get_usage(void);

// Does nothing: drivers need no state of their own in this library. Kept for their start-up code. Threads: any.
// Results: 1.
uint32_t ip_driver_api_init(void);
void ip_driver_api_close(void);

// Names the one special interface that counts as enabled for IP, forwarding and multicast whatever its record says.
//   ifidx  interface index; 0: none
// Threads: start-up.
void set_fwd_enabled_spl_ifidx(uint32_t ifidx);

// Is this the special interface? The iod is looked up when it is first needed and never again: naming another interface
// afterwards changes nothing.
// Threads: any. Results: 1 yes; 0 no, none named, or the interface manager does not know it yet (asked again next
// time).
uint32_t is_fwd_enabled_spl_iod(uint32_t iod);

// ------------------------------------------------------------------------------------------ messages to the IP process

// What a client asks the IP process for, rather than the database. The messages stand in ip_msg.h; each goes to
// IP_SAP_CONTROL. A client that wants packets or replies binds queues and registers:
//
//   uint32_t control, data;
//   if (ip_init_mts(&control, -1) == 0 || ip_init_mts(&data, -1) == 0) exit(1);
//   if (ip_register("ospf", data, control, 89, 0, ip_api_init(), 0, 0) == 0) exit(1);
//   ip_join_group(0xe0000005, iod);
//   ...
//   ip_deregister("ospf", 89, &ip_client);

// Binds a queue named "IP MTS queue".
//   queue_out  out: the handle, -1 when it was not bound; null: nothing is bound
//   sap        a fixed SAP, or -1: a dynamic one
// Threads: any. Owns: the queue is the caller's, until mts_unbind(queue, 0). Results: 1 bound; 0 not.
uint32_t ip_init_mts(uint32_t *queue_out, int32_t sap);

// Binds the URIB's queue, on IP_SAP_URIB, into ip_urib_mts_q. For the IP process.
// Threads: start-up. Results: 1 bound; 0 not: logged as IP_STARTUP_FAILURE.
uint32_t ip_get_urib_q(void);

// Sends a message of IP_MSG_SIZE bytes to a SAP of this node, and one of any size.
//   queue   to send from; -1: refused
//   sap     of the receiver
//   msg     begins with the header of ip_msg.h; its uuid is written here; null: refused
//   size    bytes, the header included
//   prio    checked and otherwise ignored: above 32768: refused
//   opts    struct mts_send_opts
//   opcode  IP_OPCODE_...
// Threads: any, one per message. Blocks: as mts_send. Owns: nothing; the message may be released at once.
// Results: 1 sent; 0 not. Debug lines: dbg_cl_mts_send each send, dbg_ip_api_misc what was refused.
uint32_t ip_cl_mts_send(uint32_t queue, uint32_t sap, ip_msgtype *msg, int32_t prio, void *opts, uint32_t opcode);
uint32_t ip_cl_mts_send_with_sz(uint32_t queue, uint32_t sap, void *msg, uint32_t size, int32_t prio, void *opts,
                                uint32_t opcode);

// Sends a request of IP_MSG_SIZE bytes from the client's control queue. Attached or not.
//   msg  as for ip_cl_mts_send()
// Threads, Blocks, Owns, Results: as ip_cl_mts_send().
uint32_t ip_mts_send(ip_msgtype *msg);

// Gives the IP process's two queues back. Their variables keep the old handles. Threads: start-up.
void ip_free_message_queue(void);

// Hands the packet that a message names, if it does, to another owner (m_set_owner).
//   msg    null: nothing happens
//   owner  a process id
// Threads: any, one per packet.
void ip_change_msg_owner(ip_msgtype *msg, int32_t owner);

// Sets what a registration will say. Threads: start-up, between ip_api_init and ip_register. Results: 1; 0, nothing
// changed: not attached.
//   flags  IP_CLIENT_...; the two receive flags are always set with them
//   queue  the control queue
//   name   of the receive function, 33 characters of it. It clears both receive flags; _with_tx_mts sets
//          IP_CLIENT_RECV_MTS and clears the other
uint32_t ip_client_set_flags(int32_t flags);
uint32_t ip_client_set_ctrl_q(uint32_t queue);
uint32_t ip_client_set_recv_fn(const char *name);
uint32_t ip_client_set_recv_fn_with_tx_mts(const char *name);

// Registers with the IP process, and waits for what it says, unless IP_CLIENT_NO_ACK is set. On a standby supervisor it
// registers only if a queue has a dynamic SAP (and logs that), because the fixed ones are the active one's to serve.
//   name      at most 67 characters; null: none
//   data_q    where packets arrive; -1: none
//   ctrl_q    the control queue; -1: none. Requests are let pass before other messages there, unless
//             IP_CLIENT_KEEP_MTS_OPTION is set
//   reg_key   with the name, what the registration is known by
//   client    &ip_client; its queues are replaced by these. Null: refused
//   reg_mode, reg_arg1, reg_arg2   the IP process's to interpret
// Threads: start-up. Blocks: until the reply, or until the IP process is gone.
// Results: 1 registered, or not needed on a standby. 0: no client, no memory, no queue, not sent (system log), no reply
//   (system log), a reply of another kind (logged as IP_CLNT_FAILURE), or refused.
uint32_t ip_register(const char *name, uint32_t data_q, uint32_t ctrl_q, uint8_t reg_key, uint32_t reg_mode,
                     struct ip_client *client, uint32_t reg_arg1, uint32_t reg_arg2);

// The part of ip_register that sends a registration and waits.
//   sap      not looked at
//   msg      struct ip_msg_register
//   reply_q  a queue of its own: the first message that arrives there is the reply; -1: refused
// Threads, Blocks, Results: as ip_register; 1 also for a reply without a payload, which leaves ip_register_done alone.
uint32_t ip_register_with_ack(uint32_t sap, ip_msgtype *msg, uint32_t reply_q);

// Ends a registration. Sent from the client's control queue, else from its data queue, else from one made for it. On a
// standby supervisor nothing is sent.
//   name, reg_key  as registered
//   client         &ip_client; null: refused
// Threads: start-up. Blocks: as mts_send; nothing is waited for. Results: 1 sent, or on a standby; 0 not.
int32_t ip_deregister(const char *name, uint8_t reg_key, struct ip_client *client);

// Requests without a reply, from the client's control queue. All of them: Threads: any. Blocks: as mts_send.
// Results: 1 sent; 0 not: an argument is refused (iod 0, no group or a group where a source belongs), or no queue.

// Switches multicast on the interface as a whole on or off: while a process has it on, every group arrives and
// IFF_MULTICAST is set.
uint32_t ip_enable_multicast(uint32_t iod);
uint32_t ip_disable_multicast(uint32_t iod);

// Joins or leaves a group on an interface, for any source.
//   group  in 224.0.0.0/4, host order
uint32_t ip_join_group(uint32_t group, uint32_t iod);
uint32_t ip_leave_group(uint32_t group, uint32_t iod);

// The same by the interface's index, ifindex, 0 being refused. ip_join_group_if starts the library and registers the
// process, without a name, if that has not been done (Threads: start-up, then); such a registration has no queues, so
// the request itself is not sent: bind a control queue and join again. It takes a reference as ip_api_init does.
uint32_t ip_join_group_if(uint32_t group, uint32_t ifindex);
uint32_t ip_leave_group_if(uint32_t group, uint32_t ifindex);

// Joins or leaves a group on an interface for one source.
//   group   in 224.0.0.0/4, host order
//   source  an address that is no group, host order
uint32_t ip_join_channel(uint32_t group, uint32_t source, uint32_t iod);
uint32_t ip_leave_channel(uint32_t group, uint32_t source, uint32_t iod);

// Reports a link-local value.
//   ref    a number of the process's choosing; the same one again replaces the value. 0: refused
//   value  what the process wants
uint32_t ip_report_link_local(uint32_t ref, uint32_t value);

// Makes an interface borrow another one's address, and undoes it.
//   iod   the borrower
//   name  the lender's, not empty, 40 characters of it
uint32_t ip_set_unnumbered(uint32_t iod, const char *name);
uint32_t ip_unset_unnumbered(uint32_t iod);

// Requests without a reply, from a queue that the caller names. All of them: Threads: any. Blocks: as mts_send.
// Results: 1 sent; 0 not: no memory, no such queue, too many interfaces.

// Asks for the load-sharing configuration.
uint32_t ip_request_load_share_cfg(uint32_t queue);

// Switches redirects off on interfaces, and cleans up what is left of unnumbered ones.
//   iods  count of them. The cleanup takes 30150 at most and logs IP_FAILURE for more, and for no memory
uint32_t ip_req_redirect_disable(uint32_t queue, uint32_t count, const uint32_t *iods);
uint32_t ip_unnumbered_pss_cleanup(uint32_t queue, uint32_t count, const uint32_t *iods);

// ------------------------------------------------------------------------------------------ requests that are answered

// Configures an address on an interface, or takes it away.
//   address, masklen  host order; not martian; 1 .. 32
//   cfg_result        out: more about the status, untouched when there is nothing more; null: not wanted
//   cfg_flags         IP_CONFIG_NO_WAIT, IP_CONFIG_COLLECT, or neither: wait for the reply; and IP_CONFIG_REMOVE
//   wait              seconds, 0 without end
// Threads: one at a time; nobody else receives on the control queue meanwhile: what arrives there and is not the reply
// is lost.
// Blocks: until the reply.
// Results: IP_CONFIG_STATUS_...; with IP_CONFIG_NO_WAIT 1 sent, 0 not; with IP_CONFIG_COLLECT 0, errno EAGAIN: sent.
uint32_t ip_configure_address(uint32_t iod, uint32_t address, uint8_t masklen, uint32_t *cfg_result, uint32_t cfg_flags,
                              uint32_t wait);

// Reads a reply that the caller received on the control queue (opcode IP_OPCODE_CONFIGURE) and drops it.
//   msg         as mts_recv() gave it
//   i1, i2, i3  not looked at
//   cfg_result  as above
// Threads: any. Results: IP_CONFIG_STATUS_...; IP_CONFIG_STATUS_NO_REPLY also for a message that is too short for one.
uint32_t ip_parse_config_response(mts_msg_ref_t msg, uint32_t i1, uint32_t i2, uint32_t i3, uint32_t *cfg_result);

// Asks the IP process for an interface's statistics.
//   queue    to ask from
//   request  struct ip_msg_if_stats_request; its header is written here
//   size     bytes of it
//   reply    out: the response, struct ip_msg_if_stats_reply; untouched without one
// Threads: any, one per queue. Blocks: until the response, at most 10 seconds.
// Owns: the reply is the caller's, to be released by free(3). Results: 1, *reply is there. 0: request or reply is null,
//   the request is shorter than its header, not sent, no response, rejected, no memory.
uint32_t ip_get_interface_stats(uint32_t queue, void *request, uint32_t size, void **reply);

// Queue handles; -1: none. The second and third are the IP process's, and set by it.
extern uint32_t ip_urib_mts_q, ip_server_ctrl_mts_q, ip_server_data_mts_q;

// 1 once the process is registered, 0 again when it is not.
extern int32_t ip_register_done;

// ----------------------------------------------------------------------------------------------- why a question failed

// The reason of the last failed call of a query that says "error text", one line without a newline; empty after a
// success of such a query. Other queries leave it alone.
// Threads: any, but there is one buffer per process: two threads that fail at once may mix their texts.
// Results: the address of ip_api_err_log; both functions are the same.
char *ip_api_get_error(void);
char *ip_get_api_error_info(void);

// ------------------------------------------------------------------------------------------------------------ contexts

// The context record of an id.
// Threads: any.
// Results: the record (in the segment, see Owns above). Null: not attached, no such context (both silent), or id 0
//   (logged as INVALID_NOTIFY).
struct ip_api_context_type *ip_get_api_context(uint32_t context_id);

// The context record of a name.
//   name  compared exactly, letter case counts
// Threads: any.
// Results: the record. Null: not attached, no such context (both silent), or null name (logged as IP_INTERNAL_ERROR).
struct ip_api_context_type *ip_get_api_context_by_name(const char *name);

// The id of a named context.
//   name  as for ip_get_api_context_by_name(), and logged like there
// Threads: any. Results: the id; 0: none, or not attached.
uint32_t ip_get_api_context_id(const char *name);

// The name of a context.
// Threads: any, error text.
// Results: the name in the segment. Null: id 0 (also logged as IP_INTERNAL_ERROR), not attached or no such context: the
//   error text says which; a database without contexts leaves it empty.
char *ip_get_api_context_name(uint32_t context_id);

// ------------------------------------------------------------------------------------------------- records of answers

// A prefix. Two are equal only when both fields are: the address is not masked first.
typedef struct ip_prefixtype {
  uint32_t addr;     // host order
  uint8_t mask_len;  // 0 .. 32
} ip_prefixtype;
static_assert(sizeof(ip_prefixtype) == 8, "");
static_assert(offsetof(ip_prefixtype, mask_len) == 4, "");

// Which interface the ICMP errors of a process name as their source.
typedef struct ip_icmp_err_source {
  char if_name[40];   // NUL-terminated
  uint32_t src_addr;  // host order; 0: none
} ip_icmp_err_source;
static_assert(sizeof(ip_icmp_err_source) == 44, "");
static_assert(offsetof(ip_icmp_err_source, src_addr) == 40, "");

// ------------------------------------------------------------------------------------------- questions to an interface

// All of them: Threads: any. Results: 0 also when not attached, for iod 0, and for an interface without IP state.

// Is addr any address of the interface, primary or secondary? Takes no lock: beside a change it may miss an address.
uint32_t ip_is_address_on_interface(uint32_t addr, uint32_t iod);

// The mask length, 0 .. 32, of an address of the interface; 0 also when the interface does not hold addr.
uint32_t ip_get_local_mask_len(uint32_t addr, uint32_t iod);

// Steps through the secondary addresses of an interface, in the IP process's order:
//   uint32_t addr = 0;
//   uint8_t len = 0;
//   for (ip_get_next_secondary(iod, &addr, &len); addr != 0; ip_get_next_secondary(iod, &addr, &len)) ...
//   addr, mask_len  in: 0 for the first one, else what the previous call gave; out: the next one, or 0 and 0 at the
//                   end, and also when the previous one is gone
void ip_get_next_secondary(uint32_t iod, uint32_t *addr, uint8_t *mask_len);

// Number of addresses beyond the primary one.
uint32_t ip_get_secondary_count(uint32_t iod);

// Is the multicast group (host order) joined on the interface?
uint32_t ip_is_group_joined(uint32_t group, uint32_t iod);

// May directed broadcasts leave through the interface? Results: the configured value; nonzero: yes.
uint32_t ip_allow_directed_broadcast(uint32_t iod);

// Does the interface borrow its address from another one?
uint32_t ip_is_iod_unnumbered(uint32_t iod);

// Is multicast enabled on the interface? 1 for the special interface, attached or not.
uint32_t ip_is_multicast_enabled(uint32_t iod);

// Is IP enabled on the interface: it has an address, own or borrowed, or it forwards, or it is the special interface?
// 0 when not attached, for the special interface too.
uint32_t ip_enabled(uint32_t iod);

// Is forwarding enabled on the interface? 1 for the special interface while attached.
uint32_t ip_forward_enabled(uint32_t iod);

// The interface's primary address; an unnumbered interface answers with its lender's. 0 also when there is none.
uint32_t ip_get_local_addr(uint32_t iod);

// The mask of ip_get_local_addr() on the interface itself: 0 for an address that is borrowed.
uint32_t ip_get_local_mask(uint32_t iod);

// The primary address with its length, a borrowed one too.
//   out  the address; 0.0.0.0/0 when there is none, or when not attached
// Results: 1 when attached, also without an address or for an unknown interface: look at *out. 0: not attached, or out
//   is null.
uint32_t ip_get_local_prefix(uint32_t iod, ip_prefixtype *out);

// The interface's address to speak to a destination from: the one whose subnet holds it with the longest prefix, the
// earlier of equals; else the primary one. An unnumbered interface answers with its lender's primary address.
//   dest  host order
// Results: the address; 0 only when there is none at all.
uint32_t ip_get_best_local_addr(uint32_t iod, uint32_t dest);

// The same, only where a subnet holds the destination; an unnumbered interface has its lender's subnets. A prefix of
// length 0 does not count.
//   out  the address; untouched after a 0
// Results: 1 found; 0 no such subnet, or out is null.
uint32_t ip_get_best_intf_addr(uint32_t iod, uint32_t dest, uint32_t *out);

// Is the target in the subnet of one of the interface's own addresses, other than the target itself?
uint32_t ip_check_target_addr_for_local_subnet(uint32_t iod, uint32_t target);

// The interface's own address with the longest prefix that holds addr, the earlier of equals; addr itself does not
// count. 0 also when there is none.
uint32_t ip_get_local_addr_for_subnet(uint32_t iod, uint32_t addr);

// The same question, with its arguments the other way round.
uint32_t ip_is_addr_on_attached_subnet(uint32_t addr, uint32_t iod);

// Is addr the all-ones or all-zeros host of one of the interface's own subnets? Subnets of 31 and 32 bits have none.
// Whether such packets may pass is ip_allow_directed_broadcast()'s to say.
uint32_t ip_is_addr_directed_broadcast(uint32_t addr, uint32_t iod);

// Number of virtual addresses of the interface.
uint32_t ip_get_vaddr_count_for_iod(uint32_t iod);

// What an unnumbered interface borrows.
//   addr  out: the lender's primary address, or 0
//   name  out: the lender's name; room for the longest interface name of the platform and its NUL: the library does not
//         know the size of the buffer. Untouched when the interface names no lender
//   flag  out: 1 when addr is set, else 0; not null
// Error text. Results: 1 asked: look at *flag; when it is 0, the error text says why (not an unnumbered interface, the
//   lender is down, gone or without an address). 0: addr or name is null, or not attached: the error text says which.
uint32_t ip_get_unnumbered_info(uint32_t iod, uint32_t *addr, char *name, uint32_t *flag);

// Says that the interface came up, went down or changed its address: ICMP errors that name it follow.
//   rec   the caller's record; not null
//   flag  nonzero: up, the source becomes ip_get_local_addr(iod); 0: down, it becomes 0
// Results: the new source address, 0 too. When the record names another interface: what strcmp() of the two names
//   says, nonzero, and the record stays as it is. 0 also for an interface without a name.
uint32_t ip_update_icmp_err_source_address(ip_icmp_err_source *rec, uint32_t iod, uint32_t flag);

// The interface's MTU in bytes, from the interface manager; needs no attachment.
uint32_t ip_get_mtu(uint32_t iod);

// The MTU that counts for a packet: that of the iod.
//   ignored1 .. ignored5  not looked at
uint32_t ip_calc_effective_mtu(uint32_t ignored1, uint32_t ignored2, uint32_t ignored3, uint32_t ignored4,
                               uint32_t ignored5, uint32_t iod);

// ------------------------------------------------------------------------------------------- walks over the interfaces

// All of them: Threads: any. The order is the interface manager's, loopbacks first.

// Steps through the interfaces for which ip_enabled() holds:
//   for (uint32_t iod = ip_get_each_enabled_iod(0); iod != 0; iod = ip_get_each_enabled_iod(iod)) ...
// The lock is held for one step: interfaces that come or go during the loop may be met or not.
//   prev  the last answer; 0 begins
// Results: the next iod; 0: none, or not attached.
uint32_t ip_get_each_enabled_iod(uint32_t prev);

// The same for interfaces that have multicast enabled and addresses of their own or are unnumbered.
uint32_t ip_get_each_multicast_iod(uint32_t prev);

// Which enabled interface of the context has the address configured itself? Does not ask the context's tree, and holds
// the lock only from interface to interface: beside a change it may miss an address.
//   context_id  0: nobody
//   addr        host order
// Cost: linear in the addresses of all interfaces of the context. Results: the iod; 0: nobody, or not attached.
uint32_t ip_is_addr_local_configured(uint32_t context_id, uint32_t addr);

// The primary address of the first interface of the context that has an address and multicast enabled.
//   iod  null, or out: the interface; untouched without one
// Results: the address; 0: none.
uint32_t ip_get_local_mcast_addr(uint32_t context_id, uint32_t *iod);

// The primary address of the first interface that has one: a loopback's, where a loopback has an address, in whatever
// context. Results: the address; 0: none.
uint32_t ip_get_loopback_addr(void);

// ------------------------------------------------------------------------------------------- questions to a context

// Which interface of the context holds the address? The first one, where several do.
//   name  of the context
//   addr  host order
// Threads: any, error text.
// Results: the iod; 0: nobody holds it (error text empty), no such context or a context without addresses (error text),
//   null name or not attached (logged as IP_INTERNAL_ERROR, error text empty).
uint32_t ip_get_iod_for_local_address(const char *name, uint32_t addr);

// The same question under its other name.
uint32_t ip_get_alliod_for_address(const char *name, uint32_t addr);

// The same question to a context's record: no lookup of the context, and no reason for a failure.
//   context  as the context lookups give it; null: nobody holds the address
//   addr     host order
// Threads: any; opens the URIB client if nobody did so yet (logged as IP_FAILURE if it does not open).
// Results: the iod; 0: nobody holds it, null context, a context without addresses, not attached.
uint32_t ip_get_iod_for_local(struct ip_api_context_type *context, uint32_t addr);

// Which interface of the context holds the address, virtual or not, active or not? By the context's id, without a
// reason. Threads: any. Results: the iod; 0: nobody, no such context, or id 0 (all silent).
uint32_t ip_is_addr_local_intf(uint32_t context_id, uint32_t addr);

// The same, for virtual addresses only.
uint32_t ip_is_addr_local_vip(uint32_t context_id, uint32_t addr);

// Which interface of the context holds the address now? A virtual address counts only while it is active: while the
// best route of the URIB for it is local and live.
//   name  of the context
//   addr  host order
// Threads: any; may take the URIB's own lock. Results: the iod; 0: nobody, no such context, null name (all silent).
uint32_t ip_is_addr_local_active(const char *name, uint32_t addr);

// The same question under its other name.
uint32_t ip_is_addr_local(const char *name, uint32_t addr);

// The lowest address of the context whose interface is up and that, when it is virtual, is active.
// Threads: any; may take the URIB's own lock. Cost: linear in the addresses below it.
// Results: the address; 0: none, no such context, or id 0 (silent).
uint32_t ip_get_active_local_address(uint32_t context_id);

// Steps through the local addresses of the context in ascending order:
//   for (uint32_t addr = ip_get_next_address("default", 0); addr != 0; addr = ip_get_next_address("default", addr)) ...
//   name  of the context
//   addr  any address, host order; it need not be local
// Threads: any. Results: the lowest local address above addr; 0: none, no such context, or null name (silent).
uint32_t ip_get_next_address(const char *name, uint32_t addr);

// The same question under its other name.
uint32_t ip_get_next_all_address(const char *name, uint32_t addr);

// Which interface of the context holds exactly this prefix? The first one, where several do.
//   name  of the context
//   addr  of the subnet, host order
//   len   0 .. 32
// Threads: any, error text.
// Results: the iod; 0: nobody, no such context or a context without addresses (the error text says which), null name or
//   not attached (logged as IP_INTERNAL_ERROR, error text empty).
uint32_t ip_get_iod_for_local_subnet(const char *name, uint32_t addr, uint8_t len);

// Does the prefix of a new address collide with one that another interface of the context holds? Looks at the prefixes
// that cover it, where only interfaces that are administratively up count, and at those inside it, of interfaces in any
// state.
//   ctx         the context; null is an overlap with iod 0: refuse the address
//   addr, len   the new address, host order, and its length, 1 .. 32 (0 asks for this very address only, inside)
//   ignore_iod  the interface that is to get the address; 0: none
//   out         the interface that collides, 0 without one; not null
// Threads: any. Debug lines at the debug level. Cost: linear in the prefixes inside, up to the first collision.
// Results: 1 overlap, or no context; 0 none, not attached, or a context without addresses.
uint32_t ip_find_overlap_interface(struct ip_api_context_type *ctx, uint32_t addr, uint8_t len, uint32_t ignore_iod,
                                   uint32_t *out);

// Is there any prefix of an interface that is administratively up around the new one, or is the first one inside it?
// Arguments and results as above.
uint32_t ip_check_for_prefix_overlap(struct ip_api_context_type *ctx, uint32_t addr, uint8_t len, uint32_t *out);

// The same for interfaces in any state.
uint32_t ip_check_for_prefix_overlap_no_state(struct ip_api_context_type *ctx, uint32_t addr, uint8_t len,
                                              uint32_t *out);

// The first virtual address, in address order, of an interface.
//   context_id  where to look
//   addr        an address of the interface, host order; it does not change the answer
//   out         the virtual address, host order; of use only after a 1 (written on the way, too)
// Threads: any. Cost: linear in the context's addresses.
// Results: 1 found; 0 none, no such context, out is null (id 0: logged as INVALID_NOTIFY).
uint32_t ip_get_best_intf_vip(uint32_t context_id, uint32_t addr, uint32_t iod, uint32_t *out);

// Is the best route of the URIB for the address a local one with a live next hop?
//   table_id  the context's URIB table; 0: no
//   addr      host order
// Threads: any; takes the URIB's own lock. Results: 1 or 0.
uint32_t ip_urib_is_addr_active_local(uint32_t table_id, uint32_t addr);

// ------------------------------------------------------------------------------------------------ questions to routes

// All of them ask the URIB about the table of a context, under the URIB's own lock. Threads: any.
//   name  of the context
//   addr  host order
// Results: 0 also when there is no such context, the context has no table, the process is not attached, or URIB is not
//   to be had; a null name is logged as IP_INTERNAL_ERROR (and is no such context).
// Those that say "starts URIB" open the URIB client if nobody did so yet, log IP_FAILURE if it does not open, and ask
// all the same. The others count on ip_api_init of an active supervisor, or on another query, to have opened it.

// By which interface is the address connected: on its subnet, or an address of this system itself?
// Results: the iod of the direct route; 0: no direct route covers the address.
uint32_t ip_is_route_direct(const char *name, uint32_t addr);

// The same question. Starts URIB.
uint32_t ip_get_iod_from_addr(const char *name, uint32_t addr);

// On which interface's subnet is the address? An address of this system itself is not on one.
// Results: the iod; 0: none. What stands in the way is logged as IP_INTERNAL_ERROR: null name, not attached, no such
//   context, a context without a table.
uint32_t ip_is_addr_attached(const char *name, uint32_t addr);

// Is the address connected by this interface? The interface says in which context to look. Starts URIB.
//   ignored  not looked at
// Results: 1 yes; 0 no. The iod itself, which is true, when the interface has no table.
uint32_t ip_is_addr_on_iod(const void *ignored, uint32_t addr, uint32_t iod);

// Is the best route for the address that of an address of this system? Starts URIB.
// Results: the iod of that route; 0: no.
uint32_t ip_is_addr_local_in_urib(const char *name, uint32_t addr);

// Which interface holds the address, as the URIB knows it: by a local route for exactly this address. Starts URIB.
// Results: the iod; 0: none.
uint32_t ip_get_iod_for_address(const char *name, uint32_t addr);

// Which interface is on this subnet: has an attached route for exactly this prefix? Starts URIB.
//   addr, len  the prefix; bits of the address beyond the length count
// Results: the iod; 0: none.
uint32_t ip_get_iod_for_subnet(const char *name, uint32_t addr, uint8_t len);

// Where does a packet to a destination leave, and with which source address? Starts URIB.
//   context_id  where to look
//   dest_net    the destination in network order, as it lies in a packet
//   iod         out: the interface that the path leaves by, also when the source address is not one of its own
// Results: the source address, host order: the best one of that interface, or, when it has none or is another context's
//   (a leaked route), the context's lowest active one. 0: multicast destination, null iod, no such context (id 0:
//   logged as INVALID_NOTIFY), no path: *iod untouched; or no address at all: *iod written.
uint32_t ip_get_route(uint32_t context_id, uint32_t dest_net, uint32_t *iod);

// By which interface does multicast traffic of a source have to come in: from its subnet, or as a multicast static
// route says?
//   addr      the source
//   selector  picks one of the next hops of a multicast static route: the same word, the same one
// Results: the iod; 0: neither, or the source is connected in another way and no multicast static route agrees.
uint32_t ip_is_addr_mattached(const char *name, uint32_t addr, uint32_t selector);

// The neighbour from which a multicast static route wants the traffic of a source.
//   addr, selector  as for ip_is_addr_mattached()
// Results: the neighbour's address, host order; 0: no such route, or a direct route covers the source.
uint32_t ip_get_mstatic_rpf(const char *name, uint32_t addr, uint32_t selector);

// The same, a direct route or not.
uint32_t ip_get_mstatic_rpf_no_mpath(const char *name, uint32_t addr, uint32_t selector);

// --------------------------------------------------------------------------------------- router id, counters, settings

// All of them: Threads: any. Results: 0 also when the process is not attached.

// The router id of a context, host order, and the interface that it was taken from.
//   context_id  logged as INVALID_NOTIFY when it is 0
//   name        logged as IP_INTERNAL_ERROR when it is null
// Results: router id or iod; 0: no such context, or it has none.
uint32_t ip_get_router_id(int32_t context_id);
uint32_t ip_get_router_id_iod(int32_t context_id);
uint32_t ip_get_router_id_by_name(const char *name);
uint32_t ip_get_router_id_iod_by_name(const char *name);

// Number of PIM asserts that were sent on the interface. Results: the number; 0: none, iod 0 or no IP state (silent),
// or
//   not attached (logged as IP_INTERNAL_ERROR).
uint32_t ip_get_pim_assert_sent_count(uint32_t iod);

// Calls back for each multicast group that is joined on the interface, until the callback answers nonzero.
//   callback    group: host order; group_data: what the IP process keeps with it; arg: as given. Null: nothing happens.
// Blocks: as long as the callback does. It is called under the reader lock: it may ask further questions, and has to
// come back soon.
void ip_get_each_group(uint32_t iod, uint32_t (*callback)(uint32_t group, uint32_t group_data, uint32_t arg),
                       uint32_t arg);

// How this system shares load among equal-cost paths.
typedef struct ip_ecmp_loadshare_status {
  uint32_t mode;
  uint32_t value;  // host order
} ip_ecmp_loadshare_status;
static_assert(sizeof(ip_ecmp_loadshare_status) == 8, "");
static_assert(offsetof(ip_ecmp_loadshare_status, value) == 4, "");

// Copies that setting of the database.
//   result  out; not null
// Results: 1: *result is filled in. 0, *result untouched: not attached (logged as IP_INTERNAL_ERROR), no database.
uint32_t ip_get_ecmp_loadshare_status(ip_ecmp_loadshare_status *result);

// Multicast packets and bytes of the interface, by the counters that the IP process keeps (struct ip_if_stats).
//   c1 .. c5, b1 .. b2  out; a null one is left out
// Results: 1: all that are not null are filled in. 0, nothing written: iod 0, no IP state, no statistics.
uint32_t ip_get_mcast_pkt_stats_orig(uint32_t iod, uint32_t *c1, uint32_t *c2, uint32_t *c3, uint32_t *c4,
                                     uint32_t *c5);
uint32_t ip_get_mcast_byte_stats_orig(uint32_t iod, uint64_t *b1, uint64_t *b2);

// Does nothing: reads and writes nothing, whatever the interface. Kept for its callers.
//   c1 .. c5, b1 .. b2  not looked at
// Results: 0.
uint32_t ip_get_mcast_pkt_stats(uint32_t iod, uint32_t *c1, uint32_t *c2, uint32_t *c3, uint32_t *c4, uint32_t *c5);
uint32_t ip_get_mcast_byte_stats(uint32_t iod, uint64_t *b1, uint64_t *b2);

// ---------------------------------------------------------------------------------------------- interface information

// The IP process tells a client of its interfaces, in notifications: a message ip_if_info_msg (ip_msg.h), in TLV form.
// ip_download_if_info() asks for them; ip_parse_if_info_notification() reads one:
//
//   static void learn(ip_if_info_msg *record);   // record->count entries follow it, at offset 4
//   ip_download_if_info(queue, 0, IP_DOWNLOAD_FOLLOW);
//   mts_recv(queue, &msg, &wait);
//   if (mts_opc_get(msg) == IP_OPCODE_IF_INFO) ip_parse_if_info_notification(msg, learn);
//   mts_drop(queue, msg);

// Asks the IP process to tell of its interfaces.
//   queue   of the caller: the notifications come to its SAP, and the request is sent from it
//   cookie  tells the downloads of one queue apart; the same one again replaces the earlier
//   mode    IP_DOWNLOAD_...
// Threads: any, one per queue. Blocks: no; a full receiver is an error. Owns: nothing.
// Results: 1: sent. 0: not sent: not attached (logged as IP_INTERNAL_ERROR), no memory (told on the console), no such
//   queue, or the IP process was not reached.
uint32_t ip_download_if_info(uint32_t queue, uint32_t cookie, uint32_t mode);

// How both records look in TLV form; see tlvu.h. The ids of the fields are what stands in a message: none is ever given
// to another field.
struct ip_if_info_msg_tbl_t {
  struct tlv_table_head h;
  struct tlv_field_desc d[3];
};
RSW_SIZE_32(struct ip_if_info_msg_tbl_t, 160);
RSW_OFFSET_32(struct ip_if_info_msg_tbl_t, d, 16);
struct ip_if_info_msg_entry_tbl_t {
  struct tlv_table_head h;
  struct tlv_field_desc d[10];
};
RSW_SIZE_32(struct ip_if_info_msg_entry_tbl_t, 496);
RSW_OFFSET_32(struct ip_if_info_msg_entry_tbl_t, d, 16);

// The tables, of a message and of its entries.
extern struct ip_if_info_msg_tbl_t ip_if_info_msg_tbl;
extern struct ip_if_info_msg_entry_tbl_t ip_if_info_msg_entry_tbl;

// The calls of tlvu.h on these tables: the first of each pair for a whole message, the second, _entry_, for one entry.
// Arguments and results are those of the call that is named. Threads: any, unless it says otherwise.

// A walk over the fields of a TLV buffer: tlvu_field_itr_init, tlvu_field_itr_get_next.
//   a .. e         as the call takes them, in its order and without the table
//   iterator, out  as the call takes them
// Threads: one per walk. Results: those of the call.
uint32_t ip_if_info_msg_field_itr_init(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uint16_t e);
uint32_t ip_if_info_msg_entry_field_itr_init(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uint16_t e);
uint32_t ip_if_info_msg_field_get_next(void *iterator, void *out);
uint32_t ip_if_info_msg_entry_field_get_next(void *iterator, void *out);

// One field by its id: tlvu_get_field.
//   a .. e  as the call takes them, in its order and without the table
// Results: those of the call.
uint32_t ip_if_info_msg_get_field(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e);
uint32_t ip_if_info_msg_entry_get_field(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e);

// How many bytes a record has in TLV form: tlvu_table_size.
uint32_t ip_if_info_msg_get_tlv_sz(const void *record);
uint32_t ip_if_info_msg_entry_get_tlv_sz(const void *record);

// How many bytes the record of a TLV buffer has: tlvu_table_get_struct_size_from_tlv.
//   tlv  the buffer
// Results: bytes. -1: no such record in there (the error is shown by tlvu_error_print, with the function's name).
int32_t ip_if_info_msg_get_struct_sz(const void *tlv);
int32_t ip_if_info_msg_entry_get_struct_sz(const void *tlv);

// A record in TLV form: tlvu_table_convert_struct_to_tlv.
//   out, out_size  out: the buffer and its bytes
//   a, b, c        0
// Owns: *out is the caller's; release it with ip_free_if_info_tlv().
// Results: 0: done. Anything else: the error, shown as above; no buffer.
uint32_t ip_if_info_msg_to_tlv(const void *record, void **out, uint32_t *out_size, uintptr_t a, uintptr_t b,
                               uintptr_t c);
uint32_t ip_if_info_msg_entry_to_tlv(const void *record, void **out, uint32_t *out_size, uintptr_t a, uintptr_t b,
                                     uintptr_t c);

// The record of a TLV buffer: tlvu_table_convert_tlv_to_struct. The buffer may come from anywhere: it is checked.
//   out            out: the record
//   tlv, tlv_size  the buffer and its bytes
//   a              0
// Owns: *out is the caller's; release it with ip_free_if_info_tlv().
// Results: 0: done. Anything else: the error, shown as above; no record.
uint32_t ip_if_info_msg_to_struct(void **out, const void *tlv, uint32_t tlv_size, uintptr_t a);
uint32_t ip_if_info_msg_entry_to_struct(void **out, const void *tlv, uint32_t tlv_size, uintptr_t a);

// Releases what ip_if_info_msg_to_tlv(), ip_if_info_msg_to_struct() and their _entry_ twins made.
//   buffer         null: nothing to release
//   flags          0
// Threads: any. Owns: takes the buffer.
void ip_free_if_info_tlv(void *buffer, uint32_t flags);

// Number of entries of a message: its first word. The message's table asks this.
//   msg            not null
// Threads: any.
uint32_t ip_if_info_msg_get_sz(const void *msg);

// Begins an entry: its first word becomes 0, the others stay as they are. The entry's table asks this.
//   entry          not null
// Threads: any. Results: 0.
uint32_t ip_if_info_msg_default_init(void *entry);

// Puts a message into a notification, in TLV form. For the IP process.
//   n              from mtrack_alloc; payload, payload_len and tlv_payload are written, the id is read
//   msg            the message, with its entries
// Threads: any, one per notification.
// Owns: the payload is from mtrack_alloc and belongs to the notification.
// Results: 0, always. Without memory for the payload the notification itself is released, and must not be touched again
//   (told on the console, and logged as IP_INTERNAL_ERROR). A message that has no TLV form leaves a payload of zeros
//   (logged as IP_TLV_TO_STRUCT). The result tells none of this: a caller that has to know uses
//   ip_if_info_msg_to_tlv().
uint32_t ip_convert_if_info_notification_to_tlv(ip_if_info_notification *n, ip_if_info_msg *msg);

// Reads a notification that arrived.
//   msg            the message, of opcode IP_OPCODE_IF_INFO
//   callback       gets the message's record once, from inside the call; the record is gone afterwards. Null: nothing
//                  is read
// Threads: any, one per message. Blocks: as long as the callback does.
// Owns: nothing; the message stays the caller's, to be dropped.
// Results: 1: the callback has run. 0: it has not: no callback, no payload, or not an encoded record (logged as
//   IP_TLV_TO_STRUCT).
uint32_t ip_parse_if_info_notification(mts_msg_ref_t msg, void (*callback)(ip_if_info_msg *record));

// ------------------------------------------------------------------------------------------ addresses, masks, prefixes

// No state, no attachment needed. All of them: Threads: any.
//   len   of a prefix, 0 .. 32; above that the answer has no use
//   mask  the bits of a prefix as ones, host order

// The mask of a length: 24 is 0xffffff00, 0 is 0.
uint32_t ip_bits2mask(uint8_t len);

// The inverse mask of a length: 24 is 0x000000ff. 0 is 0, not all ones: callers rely on it.
uint32_t ip_wildcard_mask(uint8_t len);

// The length of a mask, from its lowest one bit: 0xff00ff00 gives 24 like 0xffffff00. 0 gives 0.
uint8_t ip_mask2bits(uint32_t mask);

// Number of leading octets that the mask touches, 1 .. 4; a mask of 0 gives 1.
uint32_t ip_bytesinmask(uint32_t mask);

// The classful mask of an address; 0 for classes D and E.
uint32_t ip_natural_mask(uint32_t addr);

// Is this no acceptable route prefix: 127/8, 255.255.255.255, or 0/8 without 0.0.0.0 itself (the default route)?
uint32_t ip_prefix_martian(uint32_t addr);

// Is this no acceptable host address: 0/8 with 0.0.0.0, or what ip_prefix_martian() refuses?
uint32_t ip_address_martian(uint32_t addr);

// Is the host part under the mask all zeros (the old broadcast, and the network) or all ones, or is it 255.255.255.255?
// Under a mask of all ones every address is.
uint32_t ip_is_addr_broadcast(uint32_t addr, uint32_t mask);

// Is the address in 224.0.0.0/4?
uint32_t ip_is_addr_multicast(uint32_t addr);

// Are the mask's one bits contiguous from the top? True for 0 and for all ones.
uint32_t ip_is_mask_contiguous(uint32_t mask);

// The directed broadcast address of the subnet; 0 for addr 0.
uint32_t ip_get_broadcast_address(uint32_t addr, uint8_t len);

// Does the address lie in the prefix? Bits of `prefix` beyond `len` do not count; length 0 holds every address.
uint32_t ip_is_addr_in_prefix(uint32_t addr, uint32_t prefix, uint8_t len);

// The Ethernet address of a multicast group: 01-00-5e and the low 23 bits (RFC 1112). `group` is not checked.
//   mac  6 bytes, written
void ip_get_mac_multicast(uint32_t group, uint8_t *mac);

// Are both fields of two prefixes, a and b, equal?
uint32_t ip_match_prefix(const ip_prefixtype *a, const ip_prefixtype *b);

// Copies both fields of a prefix from src to dst.
void ip_copy_prefix(const ip_prefixtype *src, ip_prefixtype *dst);

// Is the address that of a syslog server? Results: 0, always; kept for its callers.
uint32_t ip_is_syslog_svr_address(uint32_t addr);

// -------------------------------------------------------------------------------------------------- addresses as text

// Eight slots, used in turn: eight results of ip_print_addr() and ip_print_prefix() are valid at a time, the ninth call
// overwrites the first. The next slot is ip_address_string_next & 7.
// Threads: any, but two that format at once may get the same slot.
extern char ip_address_string[8][20];
extern int32_t ip_address_string_next;

// The dotted text of an address, "10.1.2.3".
// Threads: any, but two that format at once may get the same slot. Owns: the result is a slot, which the eighth call
// after this one overwrites.
char *ip_print_addr(uint32_t addr);

// The dotted text and the length of a prefix p, "10.1.0.0/16". Threads, Owns: as above.
char *ip_print_prefix(const ip_prefixtype *p);

// The dotted text of an address in network order, as it lies in a packet (addr_net). It stands in for the C library's
// function in every program that links this library, so it takes the same bytes. A source that includes <arpa/inet.h>
// as well defines LIBIP_NO_INET_NTOA: the C library's declaration then serves for both. Threads: any, but there is one
// buffer: each call overwrites the result of the last.
#ifndef LIBIP_NO_INET_NTOA
char *inet_ntoa(uint32_t addr_net);
#endif

// ------------------------------------------------------------------------------------------------ state of the process

// Written by start and stop, read by anybody; a client does not write them.
extern void *ip_shseg;                                             // handle of the segment; null: not attached
extern void *ip_api_data;                                          // root record, struct ip_root; null: not attached
extern void *ip_api_mpib;                                          // second part of the root record
extern void *ip_api_contexts_queue;                                // head of the context list, the root record
extern uint32_t ip_api_attached;                                   // 1 between start and stop
extern uint32_t ip_api_refcnt;                                     // starts that were not matched by a stop
extern uint32_t ip_api_dep_modules_init_done;                      // 1 once the URIB client is up
extern uint32_t g_ip_fwd_enabled_spl_ifidx;                        // index of the special interface; 0: none
extern uint32_t g_ip_fwd_enabled_spl_iod;                          // its iod, once it was looked up
extern void *addr_ip_shseg, *addr_ip_api_data, *addr_ip_api_mpib;  // copies that a core dump still has after a stop

// Set by the IP process, before it starts the library, and by nobody else: no lock is taken in its queries.
extern uint32_t ip_is_server_flag;

// --------------------------------------------------------------------------------------------------------- diagnostics

// The error text; see ip_api_get_error().
extern char ip_api_err_log[256];

// Debug lines: a client sets the word to nonzero, and the functions named after it say what they do.
extern uint32_t dbg_ip_register, dbg_ip_deregister, dbg_ip_cl_output, dbg_ip_cl_icmp_output, dbg_ip_cl_input,
    dbg_cl_input, dbg_ip_cl_consume, dbg_api_init, dbg_ip_api_misc, dbg_ip_icmp_error, dbg_get_message_queue,
    dbg_msg_set_notify, dbg_cl_mts_open, dbg_cl_mts_send, dbg_in_cksum;
// The last debug line.
extern char dbg_str[500];

// The message catalogue: syslog_msg_IP_<name> and msg_error_IP_<name> for each row of ip_messages.h, the component and
// the facility they belong to. The log collector reads them, and so may a program that names a message of its own.
extern struct msg_component_rec msg_component_IP;
extern struct syslog_fac_rec syslog_fac_LOG_IP;
#define IP_DECLARE_MESSAGE(name, severity, rate, traceback, text) \
  extern struct syslog_msg_rec syslog_msg_IP_##name;              \
  extern struct msg_error_rec msg_error_IP_##name;
IP_MESSAGES(IP_DECLARE_MESSAGE)
#undef IP_DECLARE_MESSAGE

// ------------------------------------------------------------------------------------------------------- memory types

// What memory is taken for. IP_MEM_MAX and IP_SM_MEM_MAX are the numbers of registered types.
#define IP_DECLARE_TYPE(value, name) IP_MEM_##name = (value),
typedef enum ip_mem_type_t { IP_MEMORY_TYPES(IP_DECLARE_TYPE) } ip_mem_type_t;
#undef IP_DECLARE_TYPE
#define IP_DECLARE_TYPE(value, name) IP_SM_MEM_##name = (value),
typedef enum ip_sm_mem_type_t { IP_SHARED_MEMORY_TYPES(IP_DECLARE_TYPE) } ip_sm_mem_type_t;
#undef IP_DECLARE_TYPE

// The name of a type, as the memory tracker shows it. Threads: any. Results: static text; null: no such value.
const char *__ip_mem_type_t_find(uint32_t value);
const char *__ip_sm_mem_type_t_find(uint32_t value);

// The value of a name, in any letter case. Threads: any. Results: the value; 0: no such name, or the name of type 0.
uint32_t __ip_mem_type_t_str2enum(const char *name);
uint32_t __ip_sm_mem_type_t_str2enum(const char *name);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
