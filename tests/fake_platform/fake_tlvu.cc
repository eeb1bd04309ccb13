// SPDX-License-Identifier: Apache-2.0
// The TLV library records what it is asked and hands out what the test put into `tlv`; the keyed digests depend on
// every input and are no digest; command-line output is kept as text.
#include "tlvu.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli.h"
#include "fake_platform/platform.h"
#include "hmac.h"

using fake_platform::platform;

namespace {

std::string format_text(const char *format, va_list arguments) {
  char text[2048];
  std::vsnprintf(text, sizeof text, format, arguments);
  return text;
}

uint32_t status(const char *function) {
  return platform().scripts.result<uint32_t>(function, 0, 1);
}

// A buffer with these bytes, until tlvu_free; null for none.
void *hand_out(const std::vector<uint8_t> &bytes, const char *name) {
  if (bytes.empty()) return nullptr;
  void *buffer = std::malloc(bytes.size());
  std::memcpy(buffer, bytes.data(), bytes.size());
  platform().tlv.buffers.insert(buffer);
  platform().log.name(buffer, name);
  return buffer;
}

// A sum that changes with each byte and its place.
void mix(const void *buf, uint32_t len, const void *key, uint32_t key_len, uint32_t seed, uint8_t *digest,
         uint32_t digest_len) {
  uint32_t state = seed;
  for (uint32_t i = 0; i < len; i++) state = (state ^ static_cast<const uint8_t *>(buf)[i]) * 16777619u;
  for (uint32_t i = 0; i < key_len; i++) state = (state ^ static_cast<const uint8_t *>(key)[i]) * 16777619u;
  for (uint32_t i = 0; i < digest_len; i++) {
    state = (state ^ i) * 16777619u;
    digest[i] = static_cast<uint8_t>(state >> 24);
  }
}

}  // namespace

uint32_t tlvu_field_itr_init(uintptr_t a, uintptr_t b, uintptr_t c, const void *table, uintptr_t d, uint16_t e) {
  platform().log.call(__func__, a, b, c, table, d, e);
  return status(__func__);
}

uint32_t tlvu_field_itr_get_next(void *iterator, void *out) {
  platform().log.call(__func__, static_cast<const void *>(iterator), static_cast<const void *>(out));
  return status(__func__);
}

uint32_t tlvu_get_field(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e, const void *table) {
  platform().log.call(__func__, a, b, c, d, e, table);
  return status(__func__);
}

uint32_t tlvu_table_size(const void *table, const void *record) {
  platform().log.call(__func__, table, record);
  return platform().scripts.result<uint32_t>(__func__, 0, 0);
}

uint32_t tlvu_table_get_struct_size_from_tlv(uint32_t *size, const void *tlv, uint32_t zero, const void *table) {
  platform().log.call(__func__, tlv, zero, table);
  const uint32_t error = status(__func__);
  *size = error == 0 ? platform().tlv.record_size : 0xdead;
  return error;
}

uint32_t tlvu_table_convert_struct_to_tlv(void **out, uint32_t *out_size, const void *table, const void *record,
                                          uintptr_t a, uintptr_t b, uintptr_t c) {
  platform().log.call(__func__, table, record, a, b, c);
  const uint32_t error = status(__func__);
  if (error != 0) return error;
  *out = hand_out(platform().tlv.encoded, "encoded");
  *out_size = static_cast<uint32_t>(platform().tlv.encoded.size());
  return 0;
}

uint32_t tlvu_table_convert_tlv_to_struct(void **out, const void *tlv, uint32_t tlv_size, const void *table,
                                          uintptr_t a) {
  platform().log.call(__func__, tlv, tlv_size, table, a);
  const uint32_t error = status(__func__);
  if (error != 0) return error;
  *out = hand_out(platform().tlv.decoded, "decoded");
  return 0;
}

void tlvu_free(void *buffer, uint32_t flags) {
  platform().log.call(__func__, static_cast<const void *>(buffer), flags);
  if (platform().tlv.buffers.erase(buffer) == 1) {
    std::free(buffer);
  } else if (buffer != nullptr) {
    platform().tlv.freed_unknown = true;
  }
}

void tlvu_error_print(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = format_text(format, arguments);
  va_end(arguments);
  platform().log.call(__func__, text.c_str());
}

void hmac_md5(const void *buf, uint32_t len, const void *key, uint32_t key_len, uint8_t *digest) {
  platform().log.call(__func__, len, key_len);
  mix(buf, len, key, key_len, 0x6d643500u, digest, 16);
}

void hmac_sha(const void *buf, uint32_t len, const void *key, uint32_t key_len, uint32_t out_len, uint8_t *digest) {
  platform().log.call(__func__, len, key_len, out_len);
  mix(buf, len, key, key_len, 0x73686100u, digest, platform().whole_digests ? 64 : out_len);
}

// The library hands out one line as text, and a word behind it that no conversion asks for.
void cli_new_printf(void *out, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = va_arg(arguments, const char *);
  const void *behind = va_arg(arguments, const void *);
  va_end(arguments);
  platform().log.call(__func__, static_cast<const void *>(out), format, text.c_str(), behind);
  platform().command_output.push_back(text);
}
