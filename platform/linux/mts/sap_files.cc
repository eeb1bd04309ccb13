// SPDX-License-Identifier: Apache-2.0
// Paths go through /proc/self/fd/N, so that a long run directory does not exceed what a socket address holds, and so
// that a name means the same directory from a queue's bind to its end.
#include "mts/sap_files.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "sm/run_dir.h"

namespace rsw::mts {
namespace {

constexpr char dynamic_directory[] = "dynamic";

bool is_fixed(uint32_t sap) {
  return sap < first_dynamic_sap;
}

// A file in the directory. It takes no memory: an unbind cannot fail for the want of that.
class Name {
 public:
  Name(uint32_t sap, const char *ending) {
    snprintf(text_, sizeof text_, "%s%u%s", is_fixed(sap) ? "" : "dynamic/", sap, ending);
  }
  [[nodiscard]] const char *c_str() const { return text_; }

 private:
  char text_[32];
};

Name socket_name(uint32_t sap) {
  return {sap, ""};
}

Name record_name(uint32_t sap) {
  return {sap, ".queue"};
}

sockaddr_un address_of(int directory, uint32_t sap) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", directory, socket_name(sap).c_str());
  return address;
}

constexpr mode_t mode_while_made = 0700;

// Its maker ended before it had its mode, and its owner may finish it.
bool is_half_made(int parent, const char *name) {
  struct stat found {};
  if (fstatat(parent, name, &found, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(found.st_mode)) return false;
  return (found.st_mode & 07777) == mode_while_made && (geteuid() == 0 || geteuid() == found.st_uid);
}

// Makes a directory with the mode whatever the umask is, for the owner of its parent.
int make_directory(int parent, const char *name, mode_t mode) {
  if (mkdirat(parent, name, mode_while_made) != 0) {
    if (errno != EEXIST) return errno;
    if (!is_half_made(parent, name)) return 0;
  }
  struct stat above {};
  if (fstat(parent, &above) == 0 && geteuid() == 0 && above.st_uid != 0) {
    if (fchownat(parent, name, above.st_uid, above.st_gid, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  }
  return fchmodat(parent, name, mode, 0) == 0 ? 0 : errno;
}

int open_directories(Descriptor *directory, uid_t *owner) {
  const Descriptor run(open(run_directory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat what {};
  if (run.get() < 0 || fstat(run.get(), &what) != 0) return errno;
  *owner = what.st_uid;
  if (const int error = make_directory(run.get(), "mts", 0755); error != 0) return error == EACCES ? ENOENT : error;
  *directory = Descriptor(openat(run.get(), "mts", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (directory->get() < 0) return errno;
  const int error = make_directory(directory->get(), dynamic_directory, 01777);
  return error == EACCES ? 0 : error;
}

int write_lock(int file, int command, short *found) {
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  if (fcntl(file, command, &range) != 0) return errno;
  *found = range.l_type;
  return 0;
}

// The name still leads to the file that was opened.
bool same_file(int directory, const Name &name, int file) {
  struct stat opened {};
  struct stat named {};
  return fstat(file, &opened) == 0 && fstatat(directory, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
}

// Locks the SAP's file. A file that changed under us, or that only readers hold, is tried again.
int lock_sap(int directory, uint32_t sap, Descriptor *lock) {
  const Name name = record_name(sap);
  for (int attempt = 0; attempt < 16; ++attempt) {
    Descriptor file(openat(directory, name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    // In a sticky directory, another user's file cannot be opened: the SAP is that user's.
    if (file.get() < 0) return errno == EACCES || errno == EPERM || errno == ELOOP ? EADDRINUSE : errno;
    short holder = F_UNLCK;
    if (write_lock(file.get(), F_OFD_SETLK, &holder) != 0) {
      if (write_lock(file.get(), F_OFD_GETLK, &holder) != 0 || holder == F_WRLCK) return EADDRINUSE;
      if (holder == F_RDLCK && same_file(directory, name, file.get())) unlinkat(directory, name.c_str(), 0);
      continue;
    }
    if (!same_file(directory, name, file.get())) continue;
    if (fchmod(file.get(), 0644) != 0) return errno;
    *lock = std::move(file);
    return 0;
  }
  return EADDRINUSE;
}

int bind_socket(int directory, uint32_t sap, Descriptor *bound) {
  Descriptor made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (made.get() < 0) return errno;
  const Name name = socket_name(sap);
  if (unlinkat(directory, name.c_str(), 0) != 0 && errno != ENOENT) return errno;
  const sockaddr_un address = address_of(directory, sap);
  if (bind(made.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return errno;
  // Everybody may send; who it was, the kernel says.
  if (fchmodat(directory, name.c_str(), 0666, 0) != 0) return errno;
  *bound = std::move(made);
  return 0;
}

int take(uint32_t sap, BoundSap *bound) {
  if (const int error = lock_sap(bound->directory.get(), sap, &bound->lock); error != 0) return error;
  const int error = bind_socket(bound->directory.get(), sap, &bound->socket);
  if (error != 0) {
    // As long as we hold the lock, the file is ours.
    unlinkat(bound->directory.get(), record_name(sap).c_str(), 0);
    bound->lock.reset();
  }
  bound->sap = error == 0 ? sap : 0;
  return error;
}

}  // namespace

int bind_sap(int32_t sap, BoundSap *bound) {
  if (sap != -1 && (sap <= 0 || static_cast<uint32_t>(sap) > last_sap)) return EINVAL;
  uid_t owner = 0;
  if (const int error = open_directories(&bound->directory, &owner); error != 0) return error;
  if (sap != -1) {
    const auto wanted = static_cast<uint32_t>(sap);
    if (is_fixed(wanted) && geteuid() != 0 && geteuid() != owner) return EACCES;
    return take(wanted, bound);
  }
  for (uint32_t number = first_dynamic_sap; number <= last_sap; ++number) {
    if (const int error = take(number, bound); error != EADDRINUSE && error != EPERM) return error;
  }
  return EADDRINUSE;
}

void release_sap(const BoundSap &bound) {
  if (bound.sap == 0) return;
  unlinkat(bound.directory.get(), socket_name(bound.sap).c_str(), 0);
  unlinkat(bound.directory.get(), record_name(bound.sap).c_str(), 0);
}

int connect_sap(int directory, int socket, uint32_t sap) {
  const sockaddr_un address = address_of(directory, sap);
  while (connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    if (errno == EINTR) continue;
    return errno == ENOENT || errno == EPROTOTYPE ? ECONNREFUSED : errno;
  }
  return 0;
}

bool may_send_from(int directory, uint32_t sap, const ucred &credentials) {
  if (credentials.uid == 0) return true;
  struct stat file {};
  if (fstatat(directory, socket_name(sap).c_str(), &file, AT_SYMLINK_NOFOLLOW) == 0) {
    return file.st_uid == credentials.uid;
  }
  // The sender has unbound its queue already. A fixed SAP is nobody's to claim but the owner's.
  struct stat owner {};
  return !is_fixed(sap) || (fstat(directory, &owner) == 0 && owner.st_uid == credentials.uid);
}

SapRecord *map_record(const BoundSap &bound, int *error) {
  // Storage first: a store into a page that a full file system cannot give would be a signal.
  *error = posix_fallocate(bound.lock.get(), 0, record_file_bytes);
  if (*error != 0) return nullptr;
  void *page = mmap(nullptr, record_file_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, bound.lock.get(), 0);
  *error = page == MAP_FAILED ? errno : 0;
  return page == MAP_FAILED ? nullptr : static_cast<SapRecord *>(page);
}

void unmap_record(SapRecord *record) {
  if (record != nullptr) munmap(record, record_file_bytes);
}

}  // namespace rsw::mts
