// SPDX-License-Identifier: Apache-2.0
#ifndef IPD_PROCESS_OUT_OF_MEMORY_H
#define IPD_PROCESS_OUT_OF_MEMORY_H

namespace ipd {

// From now on a process that gets no memory, and has no answer to that, ends with `status` and "out of memory" in its
// log. It ends at once, as if it were killed: what is published is right between any two steps, and what is only in
// its own memory, perhaps half done, is nobody's loss. So nothing is unwound and nothing is destroyed.
void end_when_out_of_memory(int status);

}  // namespace ipd

#endif
