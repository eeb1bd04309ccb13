// SPDX-License-Identifier: Apache-2.0
// Other users for tests: ipd's own, a member of its group, and a stranger. They need no entry in the users' data base.
#ifndef TESTS_SYSTEM_OTHER_USERS_H
#define TESTS_SYSTEM_OTHER_USERS_H

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/public_program.h"

namespace other_users {

struct Users {
  uid_t ipd, member, stranger;
};

// None where nobody can become somebody else: a test with this as its parameter is not there then.
inline std::vector<Users> all() {
  if (geteuid() != 0) return {};
  return {{.ipd = 64101, .member = 64102, .stranger = 65534}};
}

// What the unit gives ipd.
inline const std::string the_units = "-all,+net_admin,+net_raw";

// The words in front of a command that runs as that user, in that group alone, and with no more than these
// capabilities.
inline std::vector<std::string> as_user(uid_t user, gid_t group, const std::string &capabilities) {
  return {"setpriv",
          "--reuid=" + std::to_string(user),
          "--regid=" + std::to_string(group),
          "--clear-groups",
          "--no-new-privs",
          "--inh-caps=" + capabilities,
          "--ambient-caps=" + capabilities,
          "--bounding-set=" + capabilities};
}

// A command line, the first word of which is a program of the build, as other users can run it.
inline std::vector<std::string> runnable(const std::vector<std::string> &command) {
  std::vector<std::string> words = test_support::public_program(command.front());
  words.insert(words.end(), command.begin() + 1, command.end());
  return words;
}

inline void give_to(const std::string &directory, uid_t user) {
  ASSERT_EQ(chown(directory.c_str(), user, user), 0);
  ASSERT_EQ(chmod(directory.c_str(), 0755), 0);
}

}  // namespace other_users

#endif
