// SPDX-License-Identifier: Apache-2.0
// Packet buffers. A freed buffer is not reused within a test: its length is set to 0 and its owner to -1, so that a use
// after the free shows.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "fake_platform/packets.h"
#include "fake_platform/platform.h"
#include "fake_platform/watched_blocks.h"

using fake_platform::platform;

namespace {

struct Buffer {
  struct mbuf head;
  uint8_t room[fake_platform::packet_room];
};

Buffer *buffer_of(struct mbuf *m) {
  return reinterpret_cast<Buffer *>(m);
}

uint32_t total_length(const struct mbuf *m) {
  uint32_t total = 0;
  for (; m != nullptr; m = m->next.get()) total += m->m_len;
  return total;
}

bool fails(const char *function) {
  return platform().scripts.result<uint32_t>(function, 1, 0) == 0;
}

void release(struct mbuf *m) {
  while (m != nullptr) {
    struct mbuf *next = m->next.get();
    m->m_len = 0;
    m->owner = -1;
    m->next = nullptr;
    m = next;
  }
}

}  // namespace

struct mbuf *fake_platform::packet_buffer(std::span<const uint8_t> bytes) {
  auto *buffer = platform().memory.make<Buffer>();
  buffer->head.data = buffer->room + packet_front_room;
  buffer->head.m_len = static_cast<uint32_t>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), buffer->room + packet_front_room);
  return &buffer->head;
}

struct mbuf *fake_platform::packet_chain(const std::vector<std::vector<uint8_t>> &parts) {
  struct mbuf *first = nullptr;
  for (auto part = parts.rbegin(); part != parts.rend(); ++part) {
    struct mbuf *buffer = packet_buffer(*part);
    buffer->next = first;
    first = buffer;
  }
  return first;
}

std::vector<uint8_t> fake_platform::packet_bytes(const struct mbuf *packet) {
  std::vector<uint8_t> bytes;
  for (; packet != nullptr; packet = packet->next.get()) {
    bytes.insert(bytes.end(), packet->data.get(), packet->data.get() + packet->m_len);
  }
  return bytes;
}

struct mbuf *m_prepend(struct mbuf *m, int32_t bytes, int32_t one) {
  platform().log.call(__func__, static_cast<const void *>(m), bytes, one);
  const uint8_t *start = buffer_of(m)->room;
  if (fails(__func__) || m->data.get() - start < bytes) {
    release(m);
    return nullptr;
  }
  m->data = m->data.get() - bytes;
  m->m_len += static_cast<uint32_t>(bytes);
  return m;
}

struct mbuf *m_pullup(struct mbuf *m, int32_t bytes) {
  platform().log.call(__func__, static_cast<const void *>(m), bytes);
  const auto answer = platform().scripts.result<uintptr_t>(__func__, 1, 0);
  const auto wanted = static_cast<uint32_t>(bytes);
  if (m == nullptr || answer == 0 || wanted > total_length(m) ||
      m->data.get() + wanted > buffer_of(m)->room + fake_platform::packet_room) {
    release(m);
    return nullptr;
  }
  if (answer == fake_platform::moves_packet) {
    struct mbuf *moved = fake_platform::packet_buffer({m->data.get(), m->m_len});
    moved->next = m->next.get();
    m->next = nullptr;
    release(m);
    m = moved;
  }
  for (struct mbuf *next; m->m_len < wanted && (next = m->next.get()) != nullptr;) {
    const uint32_t moved = std::min(wanted - m->m_len, next->m_len);
    std::memcpy(m->data.get() + m->m_len, next->data.get(), moved);
    m->m_len += moved;
    next->data = next->data.get() + moved;
    next->m_len -= moved;
    if (next->m_len == 0) m->next = next->next.get();
  }
  return m;
}

uint32_t m_copydata(struct mbuf *m, int32_t offset, int32_t length, void *buffer) {
  platform().log.call(__func__, static_cast<const void *>(m), offset, length);
  const auto status = platform().scripts.result<uint32_t>(__func__, 0, 1);
  const std::vector<uint8_t> bytes = fake_platform::packet_bytes(m);
  if (status % 0x10000 != 0) return status;
  if (static_cast<size_t>(offset) + static_cast<size_t>(length) > bytes.size()) return 1;
  std::memcpy(buffer, bytes.data() + offset, static_cast<size_t>(length));
  return status;
}

uint32_t m_length(struct mbuf *m) {
  platform().log.call(__func__, static_cast<const void *>(m));
  return platform().scripts.result<uint32_t>(__func__, total_length(m), 0);
}

void m_freem(struct mbuf *m) {
  platform().log.call(__func__, static_cast<const void *>(m));
  release(m);
}

struct mts_iovec *m_convert_mbuf_to_iovec_limited(struct mbuf *m, uint32_t limit, uint32_t *count, void **overflow,
                                                  uint32_t *total_len, uint32_t *copied_len,
                                                  uint32_t *vector_allocated) {
  platform().log.call(__func__, static_cast<const void *>(m), limit);
  if (fails(__func__)) return nullptr;
  auto *vector = static_cast<struct mts_iovec *>(std::calloc(limit, sizeof(struct mts_iovec)));
  *count = 0;
  *overflow = nullptr;
  *copied_len = 0;
  *vector_allocated = platform().vector_allocated ? 1 : 0;
  fake_platform::watch_block(vector, "vector");
  *total_len = total_length(m);
  for (; m != nullptr && *count + 1 < limit; m = m->next.get()) vector[(*count)++] = {m->data.get(), m->m_len};
  if (m == nullptr) return vector;
  // What is left goes into one block of its own.
  const std::vector<uint8_t> rest = fake_platform::packet_bytes(m);
  *overflow = std::malloc(rest.size());
  fake_platform::watch_block(*overflow, "overflow");
  std::memcpy(*overflow, rest.data(), rest.size());
  *copied_len = static_cast<uint32_t>(rest.size());
  vector[(*count)++] = {*overflow, *copied_len};
  return vector;
}

void m_set_owner(struct mbuf *m, int32_t owner) {
  platform().log.call(__func__, static_cast<const void *>(m), owner);
  for (; m != nullptr; m = m->next.get()) m->owner = owner;
}

void mbuf_dump(const char *title, struct mbuf *m, uint32_t zero1, uint32_t zero2) {
  platform().log.call(__func__, title, static_cast<const void *>(m), zero1, zero2);
}
