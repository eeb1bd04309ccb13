// SPDX-License-Identifier: Apache-2.0
// A pool of packet buffers of one test, made by the test's process, which plays ipd; and its words as damage finds
// them.
#ifndef TESTS_PLATFORM_POOL_RIG_H
#define TESTS_PLATFORM_POOL_RIG_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <numeric>
#include <string>
#include <vector>

#include "mbuf.h"
#include "mbuf/buffers.h"
#include "mbuf/pool.h"
#include "mbuf/pool_records.h"
#include "mbuf/references.h"
#include "support/process.h"
#include "support/run_directory.h"

namespace pool_rig {

using Bytes = std::vector<uint8_t>;
using test_support::Process;

inline Bytes numbered(size_t count) {
  Bytes bytes(count);
  std::iota(bytes.begin(), bytes.end(), uint8_t{1});
  return bytes;
}

inline uint32_t reference_of(const void *m) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(m));
}

inline Bytes bytes_of(const struct mbuf *m) {
  Bytes bytes;
  for (; m != nullptr; m = m_next(m)) bytes.insert(bytes.end(), m_bytes(m), m_bytes(m) + m->m_len);
  return bytes;
}

inline rsw::PoolReport report() {
  rsw::PoolReport now;
  std::string reason;
  EXPECT_TRUE(rsw::report_pool(&now, &reason)) << reason;
  return now;
}

// Of all processes.
inline uint32_t in_use() {
  return report().in_use;
}

class PoolTest : public testing::Test {
 protected:
  void SetUp() override { open(); }
  void TearDown() override { rsw::mbuf_leave(); }

  void open() {
    rsw::mbuf_leave();
    std::string reason;
    ASSERT_TRUE(rsw::mbuf_open_for_writing(&reason)) << reason;
  }

  // Runs the body in a child, whose end it waits for.
  static int in_child(const std::function<int()> &body) {
    Process child(body);
    const int status = child.wait(std::chrono::seconds(120));
    if (status != 0) ADD_FAILURE() << "the child ended with " << status << ": " << child.output();
    return status;
  }

  test_support::RunDirectory directory_;
};

// One word from a child to its parent and back, in memory that both have.
class SharedWords {
 public:
  SharedWords();
  ~SharedWords();
  SharedWords(const SharedWords &) = delete;
  SharedWords &operator=(const SharedWords &) = delete;
  [[nodiscard]] std::atomic<uint32_t> &operator[](size_t index) const { return words_[index]; }
  // Waits until the word is not zero. What it is then; 0: not in time.
  [[nodiscard]] uint32_t wait(size_t index) const {
    test_support::wait_until([&] { return words_[index].load() != 0; }, std::chrono::seconds(60));
    return words_[index].load();
  }

 private:
  static constexpr size_t bytes = 65536;
  std::atomic<uint32_t> *words_;
};

}  // namespace pool_rig

#endif
