// SPDX-License-Identifier: Apache-2.0
// membarrier(2), where it works. RSW_NO_MEMBARRIER=1 in the environment makes a process do without it: for tests, and
// for a host on which it is suspected.
#ifndef RSW_TSP_MEMBARRIER_H
#define RSW_TSP_MEMBARRIER_H

namespace rsw {

// A reader's process: from now on barrier_in_all_readers() of any process reaches its threads. False: its readers must
// fence for themselves, which is said once in the log. Threads: any. Blocks: for some milliseconds at most.
bool register_for_membarrier();

// The writer: a full fence in every running thread of every registered process, and here. False: it did not happen.
bool barrier_in_all_readers();

}  // namespace rsw

#endif
