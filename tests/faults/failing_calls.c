// SPDX-License-Identifier: Apache-2.0
/* A library to be loaded before all others: one call of the system fails once.
 *
 *   FAIL_CALL=recvmsg FAIL_AT=3 FAIL_ERRNO=4 FAIL_SAID=/path LD_PRELOAD=... program
 *
 * The third recvmsg of the program, of whichever library of it, does nothing and fails with EINTR; the file then has a
 * byte. With FAIL_EVER=1 all later ones fail as well. With FAIL_FROM=accept4 the count begins with the first accept4.
 * What a function answers without errno it answers here, too.
 * malloc, calloc, realloc are one call. */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#pragma GCC visibility push(default)

static const char *failing_call; /* null: none */
static long calls_left;
static int error_wanted;
static int for_ever;
static const char *said;
static const char *first_call; /* null: they are counted */

static void read_environment(void) {
  static int is_read;
  if (is_read != 0) return;
  is_read = 1;
  const char *at = getenv("FAIL_AT");
  const char *error = getenv("FAIL_ERRNO");
  said = getenv("FAIL_SAID");
  if (at == NULL || error == NULL) return;
  calls_left = strtol(at, NULL, 10);
  error_wanted = (int)strtol(error, NULL, 10);
  for_ever = getenv("FAIL_EVER") != NULL;
  first_call = getenv("FAIL_FROM");
  failing_call = getenv("FAIL_CALL");
}

/* With several threads at a time, which of them makes the n-th call is left to chance. */
static int fails(const char *name) {
  read_environment();
  if (first_call != NULL) {
    if (strcmp(first_call, name) == 0) first_call = NULL;
    return 0;
  }
  if (failing_call == NULL || strcmp(failing_call, name) != 0) return 0;
  /* Relaxed: of several threads one gets each number, and nothing else is told by it. */
  const long left = __atomic_sub_fetch(&calls_left, 1, __ATOMIC_RELAXED);
  if (left > 0 || (left < 0 && !for_ever)) return 0;
  if (left < 0) {
    errno = error_wanted;
    return 1;
  }
  if (said != NULL) {
    const long fd = syscall(SYS_openat, AT_FDCWD, said, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    (void)!syscall(SYS_write, fd, "1", 1);
    syscall(SYS_close, fd);
  }
  errno = error_wanted;
  return 1;
}

/* dlsym answers an object's address for a function's. */
#define NEXT(name, type)                  \
  static type next;                       \
  if (next == NULL) {                     \
    void *found = dlsym(RTLD_NEXT, name); \
    memcpy(&next, &found, sizeof next);   \
  }

#define FAILS(result, answer, name, parameters, arguments) \
  result name parameters;                                  \
  result name parameters {                                 \
    if (fails(#name)) return answer;                       \
    NEXT(#name, __typeof__(&name))                         \
    return next arguments;                                 \
  }

/* Both names of a function with large offsets count as one. */
#define FAILS_LARGE(result, answer, name, parameters, arguments) \
  FAILS(result, answer, name, parameters, arguments)             \
  result name##64 parameters;                                    \
  result name##64 parameters {                                   \
    if (fails(#name)) return answer;                             \
    NEXT(#name "64", __typeof__(&name##64))                      \
    return next arguments;                                       \
  }

FAILS(int, -1, socket, (int domain, int type, int protocol), (domain, type, protocol))
FAILS(int, -1, bind, (int fd, const struct sockaddr *address, socklen_t size), (fd, address, size))
FAILS(int, -1, connect, (int fd, const struct sockaddr *address, socklen_t size), (fd, address, size))
FAILS(int, -1, listen, (int fd, int backlog), (fd, backlog))
FAILS(int, -1, setsockopt, (int fd, int level, int option, const void *value, socklen_t size),
      (fd, level, option, value, size))
FAILS(int, -1, getsockopt, (int fd, int level, int option, void *value, socklen_t *size),
      (fd, level, option, value, size))
FAILS(ssize_t, -1, sendmsg, (int fd, const struct msghdr *message, int flags), (fd, message, flags))
FAILS(ssize_t, -1, recvmsg, (int fd, struct msghdr *message, int flags), (fd, message, flags))
FAILS(ssize_t, -1, send, (int fd, const void *bytes, size_t size, int flags), (fd, bytes, size, flags))
FAILS(ssize_t, -1, sendto,
      (int fd, const void *bytes, size_t size, int flags, const struct sockaddr *address, socklen_t length),
      (fd, bytes, size, flags, address, length))
FAILS(ssize_t, -1, recvfrom, (int fd, void *bytes, size_t size, int flags, struct sockaddr *address, socklen_t *length),
      (fd, bytes, size, flags, address, length))
FAILS(int, -1, accept4, (int fd, struct sockaddr *address, socklen_t *size, int flags), (fd, address, size, flags))
FAILS(int, -1, poll, (struct pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))
FAILS(int, -1, epoll_create1, (int flags), (flags))
FAILS(int, -1, epoll_ctl, (int set, int operation, int fd, struct epoll_event *event), (set, operation, fd, event))
FAILS(int, -1, epoll_wait, (int set, struct epoll_event *events, int most, int timeout), (set, events, most, timeout))
FAILS(int, -1, eventfd, (unsigned value, int flags), (value, flags))
FAILS(int, -1, inotify_init1, (int flags), (flags))
FAILS(int, -1, inotify_add_watch, (int fd, const char *path, uint32_t mask), (fd, path, mask))
FAILS(int, -1, signalfd, (int fd, const sigset_t *mask, int flags), (fd, mask, flags))
FAILS(int, -1, flock, (int fd, int operation), (fd, operation))
FAILS(int, -1, mkdir, (const char *path, mode_t mode), (path, mode))
FAILS(int, -1, mkdirat, (int directory, const char *path, mode_t mode), (directory, path, mode))
FAILS(int, -1, fchmod, (int fd, mode_t mode), (fd, mode))
FAILS(int, -1, rename, (const char *from, const char *to), (from, to))
FAILS(int, -1, unlink, (const char *path), (path))
FAILS(int, -1, unlinkat, (int directory, const char *path, int flags), (directory, path, flags))
FAILS(int, -1, munmap, (void *address, size_t size), (address, size))
FAILS(int, -1, madvise, (void *address, size_t size, int advice), (address, size, advice))
FAILS(int, -1, fstat, (int fd, struct stat *file), (fd, file))
int fstat64(int fd, struct stat64 *file);
int fstat64(int fd, struct stat64 *file) {
  if (fails("fstat")) return -1;
  NEXT("fstat64", __typeof__(&fstat64))
  return next(fd, file);
}
FAILS_LARGE(int, -1, ftruncate, (int fd, off_t size), (fd, size))
FAILS_LARGE(int, -1, fallocate, (int fd, int mode, off_t offset, off_t size), (fd, mode, offset, size))
FAILS_LARGE(int, error_wanted, posix_fallocate, (int fd, off_t offset, off_t size), (fd, offset, size))
FAILS_LARGE(ssize_t, -1, pread, (int fd, void *bytes, size_t size, off_t offset), (fd, bytes, size, offset))
FAILS_LARGE(ssize_t, -1, pwrite, (int fd, const void *bytes, size_t size, off_t offset), (fd, bytes, size, offset))
FAILS_LARGE(void *, MAP_FAILED, mmap, (void *address, size_t size, int protection, int flags, int fd, off_t offset),
            (address, size, protection, flags, fd, offset))

#define OPENS(name, counted)                       \
  int name(const char *path, int flags, ...);      \
  int name(const char *path, int flags, ...) {     \
    va_list arguments;                             \
    va_start(arguments, flags);                    \
    const mode_t mode = va_arg(arguments, mode_t); \
    va_end(arguments);                             \
    if (fails(counted)) return -1;                 \
    NEXT(#name, __typeof__(&name))                 \
    return next(path, flags, mode);                \
  }
#define OPENS_AT(name, counted)                               \
  int name(int directory, const char *path, int flags, ...);  \
  int name(int directory, const char *path, int flags, ...) { \
    va_list arguments;                                        \
    va_start(arguments, flags);                               \
    const mode_t mode = va_arg(arguments, mode_t);            \
    va_end(arguments);                                        \
    if (fails(counted)) return -1;                            \
    NEXT(#name, __typeof__(&name))                            \
    return next(directory, path, flags, mode);                \
  }
#define TAKES_A_WORD(name)                      \
  int name(int fd, int command, ...);           \
  int name(int fd, int command, ...) {          \
    va_list arguments;                          \
    va_start(arguments, command);               \
    void *argument = va_arg(arguments, void *); \
    va_end(arguments);                          \
    if (fails("fcntl")) return -1;              \
    NEXT(#name, __typeof__(&name))              \
    return next(fd, command, argument);         \
  }
OPENS(open, "open")
OPENS(open64, "open")
OPENS_AT(openat, "open")
OPENS_AT(openat64, "open")
TAKES_A_WORD(fcntl)
TAKES_A_WORD(fcntl64)

long syscall(long number, ...) {
  va_list arguments;
  va_start(arguments, number);
  long words[6];
  for (int i = 0; i < 6; ++i) words[i] = va_arg(arguments, long);
  va_end(arguments);
  if (number == SYS_pidfd_open && fails("pidfd_open")) return -1;
  if (number == SYS_membarrier && fails("membarrier")) return -1;
  NEXT("syscall", __typeof__(&syscall))
  return next(number, words[0], words[1], words[2], words[3], words[4], words[5]);
}

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t number, size_t size);
void *__libc_realloc(void *block, size_t size);

void *malloc(size_t size) {
  return fails("malloc") ? NULL : __libc_malloc(size);
}
void *calloc(size_t number, size_t size) {
  return fails("malloc") ? NULL : __libc_calloc(number, size);
}
void *realloc(void *block, size_t size) {
  return fails("malloc") ? NULL : __libc_realloc(block, size);
}

#pragma GCC visibility pop
