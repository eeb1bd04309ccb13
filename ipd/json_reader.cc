// SPDX-License-Identifier: Apache-2.0
#include "ipd/json_reader.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <vector>

#include "ipd/config.h"

namespace ipd {
namespace {

constexpr size_t largest_file = 16u << 20;
// Nothing here nests deeper than four levels; a file of brackets must not cost memory or stack.
constexpr int deepest = 16;

std::string printable(const std::string &key) {
  std::string shown;
  for (char c : key.substr(0, 40)) shown += (c >= ' ' && c < 0x7f) ? c : '?';
  return shown;
}

// "[json.exception.parse_error.101] parse error at line 1, column 2: syntax error ..." from the line on.
std::string syntax_reason(const char *what) {
  const std::string text = what;
  const size_t line = text.find("line ");
  std::string reason = line == std::string::npos ? text : text.substr(line);
  for (char &c : reason) {
    if (c < ' ' || c >= 0x7f) c = '?';
  }
  return reason;
}

}  // namespace

nlohmann::json parse_json(std::string_view text) {
  if (text.find_first_not_of(" \t\r\n") == std::string_view::npos) return nlohmann::json::object();
  std::vector<std::set<std::string>> keys;
  const auto watch = [&keys](int depth, nlohmann::json::parse_event_t event, nlohmann::json &parsed) {
    using Event = nlohmann::json::parse_event_t;
    if (depth > deepest) throw JsonRefusal("nested too deeply");
    if (event == Event::object_start) keys.emplace_back();
    if (event == Event::object_end) keys.pop_back();
    if (event == Event::key && !keys.back().insert(parsed.get<std::string>()).second) {
      throw JsonRefusal(printable(parsed.get<std::string>()) + ": given twice");
    }
    return true;
  };
  try {
    return nlohmann::json::parse(text.begin(), text.end(), watch, true, true);
  } catch (const nlohmann::json::exception &error) {
    throw JsonRefusal(syntax_reason(error.what()));
  }
}

JsonObject::JsonObject(const nlohmann::json &value, std::string path,
                       std::initializer_list<std::string_view> known_keys)
    : value_(value), path_(std::move(path)) {
  if (!value.is_object()) throw JsonRefusal((path_.empty() ? "the file" : path_) + ": must be an object { }");
  for (const auto &item : value.items()) {
    bool known = false;
    for (std::string_view key : known_keys) known = known || key == item.key();
    if (!known) throw JsonRefusal((path_.empty() ? "" : path_ + ".") + printable(item.key()) + ": unknown key");
  }
}

std::string JsonObject::path(const char *key) const {
  return path_.empty() ? key : path_ + "." + key;
}

void JsonObject::refuse(const char *key, const std::string &what) const {
  throw JsonRefusal(path(key) + ": " + what);
}

const nlohmann::json &JsonObject::array(const char *key) const {
  static const nlohmann::json none = nlohmann::json::array();
  if (!has(key)) return none;
  if (!value_[key].is_array()) refuse(key, "must be a list [ ]");
  return value_[key];
}

std::optional<std::string> JsonObject::text(const char *key, size_t limit) const {
  if (!has(key)) return std::nullopt;
  if (!value_[key].is_string()) refuse(key, "must be a text in quotes");
  const auto &text = value_[key].get_ref<const std::string &>();
  if (text.empty()) refuse(key, "must not be empty");
  if (text.size() > limit) refuse(key, "longer than " + std::to_string(limit) + " characters");
  for (char c : text) {
    if (static_cast<unsigned char>(c) <= ' ' || c == 0x7f) refuse(key, "must not contain spaces or control characters");
  }
  return text;
}

std::string JsonObject::required_text(const char *key, size_t limit) const {
  const auto found = text(key, limit);
  if (!found) refuse(key, "missing");
  return *found;
}

std::optional<uint64_t> JsonObject::number(const char *key, uint64_t least, uint64_t most) const {
  if (!has(key)) return std::nullopt;
  const std::string range = "must be a whole number from " + std::to_string(least) + " to " + std::to_string(most);
  if (!value_[key].is_number_unsigned()) refuse(key, range);
  const auto number = value_[key].get<uint64_t>();
  if (number < least || number > most) refuse(key, range);
  return number;
}

std::optional<uint32_t> JsonObject::address(const char *key) const {
  const auto found = text(key, 255);
  if (!found) return std::nullopt;
  const auto address = parse_address(*found);
  if (!address) refuse(key, "must be an IPv4 address such as \"192.0.2.1\"");
  return address;
}

std::optional<bool> JsonObject::truth(const char *key) const {
  if (!has(key)) return std::nullopt;
  if (!value_[key].is_boolean()) refuse(key, "must be true or false");
  return value_[key].get<bool>();
}

bool read_file(const std::string &file, std::string *text, std::string *reason) {
  text->clear();
  FILE *stream = fopen(file.c_str(), "re");
  if (stream == nullptr) {
    *reason = file + ": " + strerror(errno);
    return false;
  }
  std::vector<char> room(64u << 10);
  size_t got = 0;
  while (text->size() <= largest_file && (got = fread(room.data(), 1, room.size(), stream)) > 0) {
    text->append(room.data(), got);
  }
  const int failure = ferror(stream) != 0 ? errno : 0;
  fclose(stream);
  if (failure != 0) *reason = file + ": " + strerror(failure);
  if (failure == 0 && text->size() > largest_file) *reason = file + ": larger than 16 MiB";
  return failure == 0 && text->size() <= largest_file;
}

}  // namespace ipd
