// SPDX-License-Identifier: Apache-2.0
// References to packets in a pool whose words say anything: reading one ends, within bounds, without a fault, and
// freeing what is the sender's frees each buffer once at most.
//
// Input: words. Of each three, the first says which word of the pool (a buffer's next, data, m_len, owner, state or one
// of its group's), the second of which buffer, the third what stands there: as it is, or, if it is small, near a
// buffer. The last word is the reference.
#include <stdlib.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "mbuf/buffers.h"
#include "mbuf/pool.h"
#include "mbuf/pool_records.h"
#include "mbuf/references.h"
#include "support/run_directory.h"

namespace {

constexpr int32_t sender = 0x3fffff;  // no process has this number
constexpr size_t buffer_count = 40;

class Pool {
 public:
  Pool() {
    std::string reason;
    if (!rsw::mbuf_open_for_writing(&reason)) abort();
  }
  void fill() {
    for (struct mbuf *&m : buffers_) {
      m = rsw::take_buffer();
      if (m == nullptr) abort();
      m->m_len = 100;
      m->owner = sender;
    }
    for (size_t i = 0; i + 1 < buffer_count; i += 2) buffers_[i]->next = buffers_[i + 1];
  }
  // Whatever was written is put right, so that each input begins with the same pool.
  void empty() {
    for (uint32_t number = rsw::pool::first_group; number < rsw::pool::first_group + 4; ++number) {
      rsw::pool::Group &group = rsw::pool::group_at(number);
      group.returned = 0;
      for (uint32_t index = 0; index < rsw::pool::group_buffers; ++index) {
        rsw::pool::buffer_at(number, index)->state = 0;
      }
      group.free = ~0u;
    }
  }
  [[nodiscard]] uint32_t near(uint32_t value) const {
    const struct mbuf *m = buffers_[value % buffer_count];
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(m)) + value / 64 % 2100;
  }
  void write(uint32_t which, uint32_t where, uint32_t value) {
    struct mbuf *m = buffers_[where % buffer_count];
    if (value < 1u << 20) value = value % 3 == 0 ? near(value / 3) : value % 4096;
    rsw::pool::Place place{};
    if (!rsw::pool::find_place(reinterpret_cast<uintptr_t>(m), rsw::pool::group_limit, &place)) abort();
    rsw::pool::Group &group = rsw::pool::group_at(place.group);
    uint32_t owner = value;
    const std::array<uint32_t *, 7> words{&m->next.word, &m->data.word,  &m->m_len, &owner, &rsw::buffer_of(m)->state,
                                          &group.free,   &group.returned};
    *words[which % words.size()] = value;
    if (which % words.size() == 3) m->owner = static_cast<int32_t>(owner);
  }

 private:
  test_support::RunDirectory directory_;
  std::array<struct mbuf *, buffer_count> buffers_{};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static auto *const pool = new Pool;
  static std::vector<std::byte> room(rsw::longest_packet_bytes);
  std::vector<uint32_t> words(size / 4);
  if (words.empty()) return 0;
  std::memcpy(words.data(), data, words.size() * 4);
  pool->fill();
  for (size_t i = 0; i + 3 < words.size(); i += 3) pool->write(words[i], words[i + 1], words[i + 2]);
  const uint32_t last = words.back();
  const uint32_t reference = last < 1u << 20 ? pool->near(last) : last;
  size_t length = 77;
  rsw::PacketWords first;
  const rsw::PacketReading reading = rsw::read_packet(reference, sender, room, &length, &first);
  if (length > room.size() || (reading != rsw::PacketReading::ok && length != 0)) abort();
  const uint32_t freed = rsw::free_packet_of(reference, sender);
  if (reading == rsw::PacketReading::ok && freed == 0) abort();
  if (freed > buffer_count || rsw::free_packet_of(reference, sender) > buffer_count - freed) abort();
  pool->empty();
  return 0;
}
