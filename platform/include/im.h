// SPDX-License-Identifier: Apache-2.0
// The interface manager: which interfaces there are, what they are called and whether they are up, and one slot per
// interface and component in which a component publishes its own record of the interface.
//
// A client opens it once (im_ext_pub_lib_init) and then asks. All answers come from shared memory of this host, without
// a message. An iod is small, stands for one interface for its whole life, and is not given to another one while
// somebody may still hold it; it is not the kernel's ifindex, which can be given again at once.
//
//   for (uint32_t iod = im_get_next_ext_if(0, 267); iod != 0; iod = im_get_next_ext_if(iod, 267)) ...
#ifndef RSW_IM_H
#define RSW_IM_H

#include "contract.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// Opens the interface table for this process, on behalf of a component.
//   component     the caller's component number
// Threads: any. Blocks: no. Owns: nothing; to be paired with im_ext_pub_lib_close, calls are counted.
// Results: 0: the table is there. Anything else: there is none or it cannot be attached (the log says why); all
// questions below answer as for an unknown interface.
uint32_t im_ext_pub_lib_init(uint32_t component, uint32_t zero1, uint32_t zero2);

// Takes one im_ext_pub_lib_init back. Records of the last answers are not to be used afterwards.
//   component     as at the opening
// Threads: any. Blocks: no. Owns: nothing. Results: 0.
uint32_t im_ext_pub_lib_close(uint32_t component, uint32_t zero);

// The record that a component published for an interface. For the IP component: its struct ip_iftype.
//   iod           the interface; 0 and unknown ones have no record
//   component     whose slot
// Threads: any. Blocks: no.
// Owns: nothing. The record is shared and read-only; it is good while the caller holds the lock that guards it (for IP
// the database lock, taken before the call), and the next call may answer with another record. Results: the record.
// Null: no such interface, or the component published nothing for it.
void *lcache_im_get_extension1(uint32_t iod, uint32_t component);

// The largest IP packet that an interface carries whole.
//   iod           the interface
// Threads: any. Blocks: no. Owns: nothing. Results: bytes. 0: no such interface.
uint32_t lcache_im_get_if_mtu(uint32_t iod);

// The iod of an interface that is known by its ifindex.
//   ifindex       as the kernel and SNMP number interfaces
//   iod           out: the iod, or 0 when there is none; not null
// Threads: any. Blocks: no. Owns: nothing. Results: 0: found. Anything else: there is no such interface.
uint32_t im_get_iod_frm_ifindex(uint32_t ifindex, uint32_t *iod);

// Steps through the interfaces for which a component published a record: loopbacks first, then the others, each by
// ifindex. Interfaces that come or go during a walk may be met or not; the walk ends all the same.
//   prev          the last answer; 0 begins
//   component     whose slot must be filled
// Threads: any. Blocks: no. Owns: nothing. Results: the next iod. 0: there is none after prev.
uint32_t im_get_next_ext_if(uint32_t prev, uint32_t component);

// Whether an interface can carry packets now: administratively up, and with its carrier.
//   iod           the interface
// Threads: any. Blocks: no. Owns: nothing. Results: nonzero: up. 0: down, or no such interface.
uint32_t im_is_if_up(uint32_t iod);

// Whether an interface was switched on by its administrator, whatever its carrier does.
//   iod           the interface
// Threads: any. Blocks: no. Owns: nothing. Results: nonzero: on. 0: off, or no such interface.
uint32_t im_is_adminup(uint32_t iod);

// An interface's name, as an operator knows it.
//   iod           the interface
// Threads: any. Blocks: no. Owns: nothing; the text may change with the interface: copy what has to last.
// Results: NUL-terminated text. Null: no such interface.
const char *im_get_if_name(uint32_t iod);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
