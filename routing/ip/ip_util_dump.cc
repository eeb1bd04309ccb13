// SPDX-License-Identifier: Apache-2.0
// Packets and buffers in hexadecimal, for developers.
//
// One walk makes the lines, and two ways take them: the library's own debug lines, or the platform's debug output and
// event history at a level that the caller names. Each line begins when the one before is full, so bytes that end with
// a full line are followed by a line without any: who reads dumps by machine ends there.
#include <cstring>

#include "ip_api.h"
#include "log.h"
#include "mbuf.h"
#include "report.h"

namespace libip {
namespace {

constexpr int32_t bytes_per_line = 16;
constexpr int32_t bytes_per_group = 4;
constexpr uint32_t dump_event = 0x730000;

// One line of bytes.
class HexLine {
 public:
  void begin() {
    length_ = 0;
    add("  ");
  }
  // `place` in the line, from 1.
  void add_byte(uint8_t byte, int32_t place) {
    constexpr char digits[] = "0123456789abcdef";
    const char two[] = {digits[byte >> 4], digits[byte & 0xf], '\0'};
    add(two);
    if (place % bytes_per_group == 0 && place != bytes_per_line) add(" ");
  }
  const char *end() {
    add("\n");
    return text_;
  }

 private:
  void add(const char *words) {
    const size_t count = std::strlen(words);
    std::memcpy(text_ + length_, words, count + 1);
    length_ += count;
  }
  char text_[80] = {};
  size_t length_ = 0;
};

// Hands each line of bytes to show(const char *).
template <class Show>
void for_each_line(const void *buffer, int32_t length, Show show) {
  const auto *bytes = static_cast<const uint8_t *>(buffer);
  HexLine line;
  line.begin();
  for (int32_t i = 0; i < length; i++) {
    const int32_t place = i % bytes_per_line + 1;
    line.add_byte(bytes[i], place);
    if (place != bytes_per_line) continue;
    show(line.end());
    line.begin();
  }
  show(line.end());
}

// Keeps a line in the event history, and shows it: each where the level asks for it.
template <class... Values>
void show_at_level(uint32_t level, const char *format, Values... values) {
  if (sdwrap_hist_event_subtype_check(dump_event, level) != 0) sdwrap_hist_event(dump_event, level, format, values...);
  if (sdwrap_chk_int(level, 0, 0, 1) != 0) buginf(format, values...);
}

constexpr const char *title_format = "%s hexdump %d bytes:\n";

}  // namespace
}  // namespace libip

extern "C" {

uint32_t ip_copy_packet_to_buffer(struct mbuf *packet, void *buffer, int32_t length) {
  using namespace libip;
  if (packet == nullptr || length < 1) return 0;
  // The high half is the platform's.
  const uint32_t status = m_copydata(packet, 0, length, buffer) & 0xffffu;
  if (status == 0) return static_cast<uint32_t>(length);
  report_formatted(msg_error_IP_IP_NO_MBUF, "while copying packet. error 0x%08x", status);
  return 0;
}

void ip_dump_packet(struct mbuf *packet, int32_t length, const char *title, void *scratch) {
  if (ip_copy_packet_to_buffer(packet, scratch, length) == 0) return;
  ip_dump_buffer(scratch, title, length);
}

void ip_dump_buffer(const void *buffer, const char *title, int32_t length) {
  using namespace libip;
  if (length <= 0) return;
  debug_line(title_format, title, length);
  for_each_line(buffer, length, [](const char *line) { debug_line("%s", line); });
}

void ip_dump_buffer_buginf(const void *buffer, const char *title, int32_t length, uint32_t level) {
  using namespace libip;
  if (length <= 0) return;
  show_at_level(level, title_format, title, length);
  for_each_line(buffer, length, [level](const char *line) { show_at_level(level, "%s", line); });
}

}  // extern "C"
