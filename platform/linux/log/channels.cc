// SPDX-License-Identifier: Apache-2.0
// Where the lines go.
//
// There are two channels. The operator's takes catalogue messages and librsw's own lines; it ends in syslog(3), in
// standard error, in both (the default) or in neither, as RSW_LOG says. The developer's takes debug lines; it is off
// unless RSW_DEBUG names standard error or a file.
//
// The environment is read once, when the library is loaded, because a later getenv would race with a program's own
// setenv; read_log_environment() takes it again on request. It is read with secure_getenv: a program that runs with
// more rights than its caller does not let the caller choose a file to write. Each value that we cannot follow is
// answered with one line on standard error that says the variable, the value, what is understood, and what is done
// instead; the process goes on.
//
// Settings are single words, so a line that is written while they change goes to the old place or to the new one. Every
// order on them is relaxed: no other memory is published by them.
//
// A line is built in a buffer on the stack and leaves in one write(2), so that lines of several processes in one file
// stay whole. The operator's lines never hold control characters: an interface name that somebody chose cannot forge a
// second line. The debug file's descriptor is checked against the file that was opened before each write, because
// daemons close every descriptor on their way and the number may since be a socket of theirs; then the file is opened
// again.
#include "channels.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>

#include "log.h"
#include "log/log_writer.h"

namespace {

constexpr uint8_t default_level = 6;

enum Channel : uint32_t { to_syslog = 1, to_stderr = 2 };
enum class Debug : uint32_t { off, standard_error, file };

std::atomic<uint32_t> operator_channels{to_syslog | to_stderr};
std::atomic<Debug> debug_channel{Debug::off};
std::atomic<bool> history_kept{true};

// The debug file, guarded by the mutex: an open and the check before a write belong together.
constinit std::mutex debug_mutex;
char debug_path[4096];
int debug_fd = -1;
dev_t debug_device;
ino_t debug_inode;

char program[64] = "unknown";
char pid_and_tag[32] = "[0]";
libip_facility facility = {program, 0, 0, default_level};

void write_whole(int fd, const char *text, size_t length) {
  while (length > 0) {
    const ssize_t written = write(fd, text, length);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // a full pipe or a closed terminal: there is nobody left to tell
    text += written;
    length -= static_cast<size_t>(written);
  }
}

void complain(const char *format, ...) __attribute__((format(printf, 1, 2)));
void complain(const char *format, ...) {
  char line[rsw::channels::line_size];
  va_list arguments;
  va_start(arguments, format);
  int length = vsnprintf(line, sizeof line - 1, format, arguments);
  va_end(arguments);
  if (length < 0) return;
  if (length > static_cast<int>(sizeof line) - 2) length = static_cast<int>(sizeof line) - 2;
  line[length++] = '\n';
  write_whole(STDERR_FILENO, line, static_cast<size_t>(length));
}

// RSW_LOG: words "syslog", "stderr", "none", separated by commas.
uint32_t channels_from(const char *value) {
  constexpr uint32_t default_channels = to_syslog | to_stderr;
  if (value == nullptr) return default_channels;
  uint32_t chosen = 0;
  bool none = false;
  std::string_view rest = value;
  while (true) {
    const size_t comma = rest.find(',');
    const std::string_view word = rest.substr(0, comma);
    if (word == "syslog") {
      chosen |= to_syslog;
    } else if (word == "stderr") {
      chosen |= to_stderr;
    } else if (word == "none") {
      none = true;
    } else {
      complain("%s: RSW_LOG=%s: \"%.*s\" is none of syslog, stderr, none; it is left out", program, value,
               static_cast<int>(word.size()), word.data());
    }
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
  if (chosen != 0 && none) complain("%s: RSW_LOG=%s: \"none\" beside others is left out", program, value);
  if (chosen != 0 || none) return chosen;
  complain("%s: RSW_LOG=%s names no channel; logging to syslog and stderr", program, value);
  return default_channels;
}

// RSW_LOG_LEVEL: one digit, 0 to 7.
uint8_t level_from(const char *value) {
  if (value == nullptr) return default_level;
  if (value[0] >= '0' && value[0] <= '7' && value[1] == '\0') return static_cast<uint8_t>(value[0] - '0');
  complain("%s: RSW_LOG_LEVEL=%s is not a level from 0 to 7; using %u", program, value, default_level);
  return default_level;
}

bool history_from(const char *value) {
  if (value == nullptr || strcmp(value, "on") == 0) return true;
  if (strcmp(value, "off") == 0) return false;
  complain("%s: RSW_HISTORY=%s is neither on nor off; events are kept", program, value);
  return true;
}

// Under debug_mutex. False: the reason is in errno.
bool open_debug_file() {
  const int fd = open(debug_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600);
  if (fd < 0) return false;
  struct stat file {};
  if (fstat(fd, &file) != 0) {
    const int reason = errno;
    close(fd);
    errno = reason;
    return false;
  }
  debug_fd = fd;
  debug_device = file.st_dev;
  debug_inode = file.st_ino;
  return true;
}

// Under debug_mutex.
bool debug_fd_is_ours() {
  struct stat file {};
  return debug_fd >= 0 && fstat(debug_fd, &file) == 0 && file.st_dev == debug_device && file.st_ino == debug_inode;
}

// RSW_DEBUG: nothing, "" or "0": off; "1" or "stderr": standard error; else a path.
Debug debug_from(const char *value) {
  const std::lock_guard guard(debug_mutex);
  if (debug_fd_is_ours()) close(debug_fd);
  debug_fd = -1;
  if (value == nullptr || *value == '\0' || strcmp(value, "0") == 0) return Debug::off;
  if (strcmp(value, "1") == 0 || strcmp(value, "stderr") == 0) return Debug::standard_error;
  if (strlen(value) >= sizeof debug_path) {
    complain("%s: RSW_DEBUG: the path has %zu characters, at most %zu are possible; debug output is off", program,
             strlen(value), sizeof debug_path - 1);
    return Debug::off;
  }
  memcpy(debug_path, value, strlen(value) + 1);
  if (open_debug_file()) return Debug::file;
  complain("%s: RSW_DEBUG=%s cannot be opened (%s); debug output is off", program, value, strerror(errno));
  return Debug::off;
}

void write_pid_and_tag() {
  snprintf(pid_and_tag, sizeof pid_and_tag, "[%d]", static_cast<int>(getpid()));
}

// The words that libip copies or prints: they hold before main, and in a child after a fork.
__attribute__((constructor)) void set_up() {
  snprintf(program, sizeof program, "%s", program_invocation_short_name);
  memcpy(syslog_preamble, program, sizeof syslog_preamble - 1);
  write_pid_and_tag();
  pthread_atfork(nullptr, nullptr, write_pid_and_tag);
  rsw::read_log_environment();
}

}  // namespace

extern "C" {
libip_facility *sdwrap_sys_facility = &facility;
uint8_t syslog_preamble[40];
uint8_t syslog_vmsg_params[1024];
const char *sdwrap_dbg_modname = "ip";
const char *sdwrap_library_dbg_pid_and_tag = pid_and_tag;
}

namespace rsw {

void read_log_environment() {
  const channels::ErrnoKept kept;
  operator_channels.store(channels_from(secure_getenv("RSW_LOG")), std::memory_order_relaxed);
  facility.level = level_from(secure_getenv("RSW_LOG_LEVEL"));
  history_kept.store(history_from(secure_getenv("RSW_HISTORY")), std::memory_order_relaxed);
  debug_channel.store(debug_from(secure_getenv("RSW_DEBUG")), std::memory_order_relaxed);
}

namespace channels {

ErrnoKept::ErrnoKept() : value_(errno) {}
ErrnoKept::~ErrnoKept() {
  errno = value_;
}

void operator_vline(uint32_t severity, const char *format, va_list arguments) {
  const uint32_t channels = operator_channels.load(std::memory_order_relaxed);
  if (channels == 0) return;
  char line[line_size + 128];
  const int head = snprintf(line, 128, "%s[%d]: ", program, static_cast<int>(getpid()));
  char *text = line + head;
  int length = vsnprintf(text, line_size, format, arguments);
  if (length < 0) return;
  if (length >= static_cast<int>(line_size)) length = static_cast<int>(line_size) - 1;
  while (length > 0 && text[length - 1] == '\n') --length;
  for (char *c = text; c < text + length; ++c) {
    if (static_cast<unsigned char>(*c) < 0x20 || *c == 0x7f) *c = '?';
  }
  text[length] = '\0';
  if ((channels & to_syslog) != 0) syslog(static_cast<int>(severity > 7 ? 7 : severity), "%s", text);
  if ((channels & to_stderr) != 0) {
    text[length] = '\n';
    write_whole(STDERR_FILENO, line, static_cast<size_t>(head + length + 1));
  }
}

void operator_line(uint32_t severity, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  operator_vline(severity, format, arguments);
  va_end(arguments);
}

bool debug_on() {
  return debug_channel.load(std::memory_order_relaxed) != Debug::off;
}

bool history_on() {
  return history_kept.load(std::memory_order_relaxed);
}

void debug_vline(const char *label, const char *format, va_list arguments) {
  const Debug channel = debug_channel.load(std::memory_order_relaxed);
  if (channel == Debug::off) return;
  char line[line_size + 256];
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  int head =
      snprintf(line, 256, "%lld.%06ld %s %s", static_cast<long long>(now.tv_sec), now.tv_nsec / 1000, program, label);
  if (head < 0) return;
  if (head > 255) head = 255;
  int length = vsnprintf(line + head, line_size, format, arguments);
  if (length < 0) return;
  if (length >= static_cast<int>(line_size)) length = static_cast<int>(line_size) - 1;
  length += head;
  while (length > head && line[length - 1] == '\n') --length;
  line[length++] = '\n';
  if (channel == Debug::standard_error) return write_whole(STDERR_FILENO, line, static_cast<size_t>(length));
  const std::lock_guard guard(debug_mutex);
  if (!debug_fd_is_ours() && !open_debug_file()) return;
  write_whole(debug_fd, line, static_cast<size_t>(length));
}

uint32_t operator_level() {
  const libip_facility *current = sdwrap_sys_facility;
  return current != nullptr ? current->level : default_level;
}

const char *program_name() {
  return program;
}

}  // namespace channels
}  // namespace rsw
