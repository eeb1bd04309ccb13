// SPDX-License-Identifier: Apache-2.0
// The three overlap questions against a twin that knows no tree: a list of prefixes that is looked at from end to end,
// with its own idea of which prefix covers which.
#include <algorithm>
#include <optional>
#include <set>
#include <tuple>

#include "unit/library_test.h"
#include "unit/random_words.h"

namespace unit {
namespace {

constexpr uint32_t interfaces = 6;

struct Prefix {
  uint32_t addr;
  uint32_t len;
  bool with_info;
  std::vector<uint32_t> holders;
};

// Bit by bit, without a mask.
bool same_first_bits(uint32_t a, uint32_t b, uint32_t count) {
  for (uint32_t bit = 0; bit < count; bit++) {
    if ((a >> (31 - bit) & 1) != (b >> (31 - bit) & 1)) return false;
  }
  return true;
}

struct Answer {
  uint32_t result;
  uint32_t iod;
  bool operator==(const Answer &) const = default;
};

struct Twin {
  std::vector<Prefix> prefixes = {};  // sorted by address, then by length
  std::set<uint32_t> up = {};

  using Holder = std::optional<uint32_t>;

  static Holder holder(const Prefix &prefix, Holder before) {
    if (!prefix.with_info) return before;
    return prefix.holders.empty() ? Holder() : prefix.holders.front();
  }

  [[nodiscard]] std::vector<Prefix> covers(uint32_t addr, uint32_t len) const {
    std::vector<Prefix> found;
    for (uint32_t length = 0; length <= len; length++) {
      for (const Prefix &prefix : prefixes) {
        if (prefix.len == length && same_first_bits(prefix.addr, addr, length)) found.push_back(prefix);
      }
    }
    return found;
  }

  // The first one inside; prefixes.size(): none.
  [[nodiscard]] size_t more_specific(uint32_t addr, uint32_t len) const {
    size_t i = 0;
    while (i < prefixes.size() && (prefixes[i].len <= len || !same_first_bits(prefixes[i].addr, addr, len))) i++;
    return i;
  }

  [[nodiscard]] Answer find(uint32_t addr, uint32_t len, uint32_t ignored) const {
    Holder current;
    for (const Prefix &prefix : covers(addr, len)) {
      current = holder(prefix, current);
      if (current && up.contains(*current) && *current != ignored) return {1, *current};
    }
    const uint32_t compared = len == 0 ? 32 : len;
    size_t i = more_specific(addr, len);
    for (bool first = true; i < prefixes.size(); first = false) {
      const Prefix &at = prefixes[i];
      current = holder(at, current);
      if (current && *current != ignored) {
        if (same_first_bits(at.addr, addr, compared)) return {1, *current};
        if (at.addr > addr) return {0, 0};
      }
      // The first step skips what begins at the same address.
      const auto after = std::make_tuple(at.addr, first ? 32u : at.len);
      while (i < prefixes.size() && std::make_tuple(prefixes[i].addr, prefixes[i].len) <= after) i++;
    }
    return {0, 0};
  }

  [[nodiscard]] Answer check(uint32_t addr, uint32_t len) const {
    std::vector<Prefix> candidates = covers(addr, len);
    if (const size_t i = more_specific(addr, len); i < prefixes.size()) candidates.push_back(prefixes[i]);
    Holder current;
    for (const Prefix &prefix : candidates) {
      current = holder(prefix, current);
      if (current && up.contains(*current)) return {1, *current};
    }
    return {0, 0};
  }

  [[nodiscard]] Answer check_no_state(uint32_t addr, uint32_t len) const {
    std::vector<Prefix> candidates = covers(addr, len);
    if (const size_t i = more_specific(addr, len); i < prefixes.size()) candidates.push_back(prefixes[i]);
    for (const Prefix &prefix : candidates) {
      if (!prefix.holders.empty()) return {1, prefix.holders.front()};
    }
    return {0, 0};
  }
};

class OverlapTwinTest : public LibraryTest {
 protected:
  // Few bits differ, so that prefixes meet often.
  uint32_t random_address() { return 0x0a000000 | (random() & 0x80030703); }
  uint8_t random_length() {
    constexpr uint8_t lengths[] = {0, 1, 7, 8, 14, 15, 16, 21, 22, 24, 30, 31, 32, 32};
    return lengths[random.below(std::size(lengths))];
  }

  Prefix random_prefix() {
    Prefix made{random_address(), random_length(), random.below(6) != 0, {}};
    for (uint32_t bit = made.len; bit < 32; bit++) made.addr &= ~(uint32_t{1} << (31 - bit));
    if (made.with_info && random.below(6) != 0) {
      for (uint32_t n = 1 + random.below(2); n != 0; n--) made.holders.push_back(1 + random.below(interfaces));
    }
    return made;
  }

  Twin random_tree(ip_api_context_type *context) {
    Twin twin;
    for (uint32_t iod = 1; iod <= interfaces; iod++) {
      const bool up = random.below(2) != 0;
      platform().interfaces[iod].admin_up = up;
      if (up) twin.up.insert(iod);
    }
    std::set<std::tuple<uint32_t, uint32_t>> known;
    for (uint32_t n = random.below(12); n != 0; n--) {
      const Prefix made = random_prefix();
      if (!known.emplace(made.addr, made.len).second) continue;
      twin.prefixes.push_back(made);
      database.node(context, made.addr, made.holders, {.length = made.len, .with_info = made.with_info});
    }
    std::sort(twin.prefixes.begin(), twin.prefixes.end(),
              [](const Prefix &a, const Prefix &b) { return std::tie(a.addr, a.len) < std::tie(b.addr, b.len); });
    return twin;
  }

  RandomWords random;
};

TEST_F(OverlapTwinTest, AllThreeQuestionsAnswerLikeTheTwin) {
  attach();
  platform().log.record(false);
  uint32_t overlaps = 0;
  constexpr uint32_t trees = 400;
  constexpr uint32_t questions = 40;
  for (uint32_t tree = 0; tree < trees; tree++) {
    auto *context = database.context_without_tree(tree + 1, "random");
    void *handle = platform().memory.allocate(16);
    platform().trees[handle] = {};
    context->local_pt = handle;
    const Twin twin = random_tree(context);
    for (uint32_t i = 0; i < questions; i++) {
      const uint32_t addr = random_address();
      const uint8_t len = random_length();
      const uint32_t ignored = random.below(interfaces + 1);
      SCOPED_TRACE(fake_platform::dotted(addr) + "/" + std::to_string(len) + " but " + std::to_string(ignored));
      uint32_t out = 99;
      const uint32_t found = ip_find_overlap_interface(context, addr, len, ignored, &out);
      ASSERT_EQ((Answer{found, out}), twin.find(addr, len, ignored));
      overlaps += found;
      const uint32_t checked = ip_check_for_prefix_overlap(context, addr, len, &out);
      ASSERT_EQ((Answer{checked, out}), twin.check(addr, len));
      const uint32_t any = ip_check_for_prefix_overlap_no_state(context, addr, len, &out);
      ASSERT_EQ((Answer{any, out}), twin.check_no_state(addr, len));
    }
    platform().trees.erase(handle);
  }
  EXPECT_GT(overlaps, trees * questions / 20) << "the data must meet";
  EXPECT_LT(overlaps, trees * questions * 19 / 20) << "and miss";
}

}  // namespace
}  // namespace unit
