// SPDX-License-Identifier: Apache-2.0
// Shared segments: memory that one process writes and others read, at the same address in all of them.
//
// A client opens a segment by name and gets a descriptor, which says where the segment lies and where its root record
// is. Everything in the segment is reached from there, through pointers of one 32-bit word. It is mapped read-only for
// clients.
#ifndef RSW_SM_H
#define RSW_SM_H

#include "contract.h"

// A pointer inside a record that processes share: one 32-bit word in every width. In C++ it reads as a T * with an
// acquire load and is assigned with a release store; in C it is a plain T * on 32 bits and a bare word on 64, where
// IP_SHM_GET(T, word) turns it into a T *.
#ifdef __cplusplus
template <class T>
struct ip_shm_ptr {
  uint32_t word;

  // Acquire: what the writer stored into *T before it published this word is visible through the result; the partner is
  // the release store of operator=.
  T *get() const { return reinterpret_cast<T *>(static_cast<uintptr_t>(__atomic_load_n(&word, __ATOMIC_ACQUIRE))); }
  operator T *() const { return get(); }
  T *operator->() const { return get(); }
  // Release: whoever reads the word sees *T as it was filled in; the partner is the acquire load of get().
  ip_shm_ptr &operator=(T *target) {
    __atomic_store_n(&word, static_cast<uint32_t>(reinterpret_cast<uintptr_t>(target)), __ATOMIC_RELEASE);
    return *this;
  }
};
RSW_SIZE(ip_shm_ptr<uint32_t>, 4);
#define IP_SHM_PTR(T) ip_shm_ptr<T>
#define IP_SHM_GET(T, member) ((member).get())
#elif UINTPTR_MAX == 0xffffffffu
#define IP_SHM_PTR(T) T *
#define IP_SHM_GET(T, member) (__atomic_load_n(&(member), __ATOMIC_ACQUIRE))
#else
#define IP_SHM_PTR(T) uint32_t
#define IP_SHM_GET(T, member) ((T *)(uintptr_t)__atomic_load_n(&(member), __ATOMIC_ACQUIRE))
#endif

// The layout hash of the records in "/rsw/shm/ip": the writer stamps it into the segment, and a client that was built
// with another value is refused. libip computes it from its records and does not build while this constant differs.
#define RSW_LAYOUT_IP_DB 0x884f2f8du

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// Prepares this process for shared segments. Opening one does so as well; calling it first gives the reason early.
// Threads: any. Blocks: no. Owns: nothing.
// Results: nonzero: ready. 0: the addresses that segments need are taken in this process (the log says by what).
uint32_t smm_api_init(uint32_t zero);

#define SM_SEGMENT_BOUNDED 0x424e4431u  // in a segment's descriptor

// Opens a segment for reading.
//   name          "/rsw/shm/ip"
//   handle        out: the descriptor, 192 bytes or more, null on failure; not null. Words of 32 bits in it, by offset:
//                   84  the segment's id            88  where its window begins     92  where the segment begins
//                   96  end of its used area       100  end of the window          188  its root record
//                  104  SM_SEGMENT_BOUNDED when all records lie inside the window, none of them beginning in its last
//                       4096 bytes: callers then follow no word that leads elsewhere. Anything else: they follow all
//   a0, a1, a17   0, 1, 17: an existing segment, read-only, whole
// Threads: any. Blocks: no.
// Owns: the descriptor is the caller's until sm_close and does not change meanwhile. One mapping serves all
// descriptors. Results: low 16 bits 0: open. Otherwise not (errno and the log say why: no such segment, nothing
// published yet, a layout that this process does not know, a damaged file).
uint32_t sm_open(const char *name, void **handle, uint32_t a0, uint32_t a1, uint32_t a17);

// Gives a descriptor back. After the last one the segment is not mapped any more: pointers into it are not to be used.
//   handle        as sm_open stored it
// Threads: any, but not while another thread is inside a query of the segment. Blocks: no. Owns: takes the descriptor.
// Results: low 16 bits 0: closed. Otherwise it was no open descriptor.
uint32_t sm_close(void *handle);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
