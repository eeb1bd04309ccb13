// SPDX-License-Identifier: Apache-2.0
// Programs of the tree for another user to run. The tree may lie where that user may not look, as in a home directory,
// or have been built under a mask that keeps others out; so it is a copy that is run, with copies of the libraries.
#ifndef TESTS_SUPPORT_PUBLIC_PROGRAM_H
#define TESTS_SUPPORT_PUBLIC_PROGRAM_H

#include <string>
#include <vector>

namespace test_support {

// The words that run a copy of the program, which is one of a build's bin directory; the copy is gone with this
// process. To be called by a user who may read the program.
std::vector<std::string> public_program(const std::string &program);

}  // namespace test_support

#endif
