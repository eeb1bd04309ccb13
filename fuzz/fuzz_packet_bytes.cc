// SPDX-License-Identifier: Apache-2.0
// Packets of any bytes, cut anywhere: the checksum of any part is that of the same bytes laid out flat, a header is
// judged valid by the rules alone, an authentication header verifies when it was built and not when a bit of it was
// turned, and no buffer is lost.
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "ip_api.h"
#include "mbuf/buffers.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Words that choose what is done come from the front, the packet is the rest.
class Input {
 public:
  Input(const uint8_t *data, size_t size) : data_(data), size_(size) {}
  uint32_t word() {
    uint32_t value = 0;
    const size_t taken = std::min(size_, sizeof value);
    if (taken > 0) std::memcpy(&value, data_, taken);
    data_ += taken;
    size_ -= taken;
    return value;
  }
  [[nodiscard]] Bytes rest() const { return {data_, data_ + size_}; }

 private:
  const uint8_t *data_;
  size_t size_;
};

// The bytes in buffers of up to 255 bytes, whose sizes the word chooses, empty ones among them.
struct mbuf *cut(const Bytes &bytes, uint32_t choice) {
  struct mbuf *first = nullptr;
  struct mbuf *last = nullptr;
  size_t at = 0;
  do {
    choice = choice * 1664525u + 1013904223u;
    const size_t size = std::min<size_t>(bytes.size() - at, choice >> 24);
    struct mbuf *next = rsw::make_packet({bytes.data() + at, size});
    if (next == nullptr) abort();
    if (first == nullptr) {
      first = next;
    } else {
      last->next = next;
    }
    last = next;
    at += size;
  } while (at < bytes.size());
  return first;
}

uint16_t plain_checksum(const uint8_t *from, size_t length) {
  uint32_t sum = 0;
  for (size_t i = 0; i < length; i += 2) {
    uint16_t word = 0;
    std::memcpy(&word, from + i, std::min<size_t>(2, length - i));
    sum += word;
    if (sum > 0xffff) sum -= 0xffff;
  }
  return static_cast<uint16_t>(~sum);
}

void check_checksums(const Bytes &bytes, uint32_t choice, uint32_t offset, uint32_t length) {
  struct mbuf *packet = cut(bytes, choice);
  const auto any_sum = in_cksum(packet, static_cast<int32_t>(offset), static_cast<int32_t>(length));
  const size_t from = std::min<size_t>(static_cast<size_t>(std::max(0, static_cast<int32_t>(offset))), bytes.size());
  const size_t there =
      std::min<size_t>(static_cast<size_t>(std::max(0, static_cast<int32_t>(length))), bytes.size() - from);
  if (any_sum != plain_checksum(bytes.data() + from, there)) abort();
  if (ip_checksum(bytes.data() + from, static_cast<uint32_t>(there)) != any_sum) abort();
  m_freem(packet);
}

bool is_valid(const Bytes &bytes) {
  if (bytes.size() < 20 || bytes[0] >> 4 != 4) return false;
  const size_t header = (bytes[0] & 0xfu) * size_t{4};
  if (header < 20 || header > bytes.size() || plain_checksum(bytes.data(), header) != 0) return false;
  return static_cast<size_t>(bytes[2] << 8 | bytes[3]) >= header;
}

void check_header(const Bytes &bytes, uint32_t choice) {
  struct mbuf *packet = ip_packet_is_valid(cut(bytes, choice));
  if ((packet != nullptr) != is_valid(bytes)) abort();
  if (packet != nullptr) {
    Bytes copy(bytes.size());
    if (m_copydata(packet, 0, static_cast<int32_t>(copy.size()), copy.data()) != 0 || copy != bytes) abort();
    m_freem(packet);
  }
  packet = cut(bytes, choice);
  const uint32_t echo = ip_is_mpls_oam_echo_request_packet(&packet);
  if (echo > 1 || (echo == 1 && (packet == nullptr || bytes.size() < 24))) abort();
  if (packet != nullptr) m_freem(packet);
}

void check_authentication(Bytes bytes, uint32_t choice) {
  // A key of 16 bytes with a NUL behind it, header, data.
  const uint8_t key[17] = "0123456789abcdef";
  bytes.insert(bytes.begin(), 28, 0);
  const auto data_len = static_cast<uint32_t>(bytes.size() - 28);
  const uint32_t use_md5 = choice & 1;
  ip_build_ah_header(bytes.data(), static_cast<uint8_t>(choice >> 8), choice, ~choice, data_len, key, use_md5);
  Bytes turned = bytes;
  turned[(choice >> 4) % turned.size()] ^= static_cast<uint8_t>(1u << (choice >> 1 & 7u));
  if (ip_verify_ah_header(bytes.data(), data_len, key, use_md5) != 1) abort();
  if (ip_verify_ah_header(turned.data(), data_len, key, use_md5) != 0) abort();
}

// A header as it came, with the data behind it: any answer, and zeros for the check value.
void verify_any(Bytes bytes, uint32_t choice) {
  if (bytes.size() < 28) return;
  const Bytes before = bytes;
  const auto data_len = static_cast<uint32_t>(bytes.size() - 28);
  ip_verify_ah_header(bytes.data(), data_len, "0123456789abcdef", choice & 1);
  for (size_t i = 0; i < bytes.size(); i++) {
    if (bytes[i] != (i >= 12 && i < 28 ? 0 : before[i])) abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Input input(data, size);
  const uint32_t choice = input.word();
  const uint32_t offset = input.word();
  const uint32_t length = input.word();
  const Bytes bytes = input.rest();
  // Anything at all, and a part that is there.
  const auto places = static_cast<uint32_t>(bytes.size() + 1);
  check_checksums(bytes, choice, offset, length);
  check_checksums(bytes, choice, offset % places, length % places);
  check_header(bytes, choice);
  check_authentication(bytes, choice);
  verify_any(bytes, choice);
  if (rsw::buffers_in_use() != 0) abort();
  return 0;
}
