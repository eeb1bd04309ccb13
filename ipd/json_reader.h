// SPDX-License-Identifier: Apache-2.0
// JSON files that people write: every key known, every value of its type and range, no key twice, and a complaint that
// says which key. Shared by the configuration and the description of a simulated system.
#ifndef IPD_JSON_READER_H
#define IPD_JSON_READER_H

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace ipd {

// Thrown by the reading functions below and caught where a file is read; what() is "key: what is wrong".
class JsonRefusal {
 public:
  explicit JsonRefusal(std::string text) : text_(std::move(text)) {}
  [[nodiscard]] const std::string &text() const { return text_; }

 private:
  std::string text_;
};

// Parses; comments are allowed, an empty text is an empty object. Throws JsonRefusal, for a repeated key too.
nlohmann::json parse_json(std::string_view text);

// One object of the file under a path such as "contexts[1]"; empty for the top.
class JsonObject {
 public:
  JsonObject(const nlohmann::json &value, std::string path, std::initializer_list<std::string_view> known_keys);

  [[nodiscard]] bool has(const char *key) const { return value_.contains(key); }
  [[nodiscard]] std::string path(const char *key) const;
  [[nodiscard]] const nlohmann::json &array(const char *key) const;  // an empty one when the key is missing
  // Missing: nothing. Empty or longer than `limit`: refused.
  [[nodiscard]] std::optional<std::string> text(const char *key, size_t limit) const;
  [[nodiscard]] std::string required_text(const char *key, size_t limit) const;
  [[nodiscard]] std::optional<uint64_t> number(const char *key, uint64_t least, uint64_t most) const;
  [[nodiscard]] std::optional<uint32_t> address(const char *key) const;  // host order
  [[nodiscard]] std::optional<bool> truth(const char *key) const;
  [[noreturn]] void refuse(const char *key, const std::string &what) const;

 private:
  const nlohmann::json &value_;
  std::string path_;
};

// The whole file. False: *reason.
bool read_file(const std::string &file, std::string *text, std::string *reason);

}  // namespace ipd

#endif
