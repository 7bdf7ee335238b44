// A fault injector below the library, loaded with LD_PRELOAD: it stands in front of the C
// library's open, write, fsync and rename calls and, when armed, fails one chosen call of one
// thread. Unarmed it only passes every call on.
//
// The 64-bit file-offset names are separate functions of the C library on 32-bit systems, so
// this file must see the plain declarations; a 32-bit build asks for the 64-bit names.
#undef _FILE_OFFSET_BITS
#include "fault_shim/fault_shim.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>

namespace {

enum Op { kNone, kOpen, kWrite, kFsync, kRename };

std::atomic<int> g_op{kNone};
std::atomic<long> g_thread{0};
std::atomic<int> g_countdown{0};
std::atomic<int> g_error{0};
std::atomic<int> g_fired{0};
char g_what[512];

long ThisThread() { return syscall(SYS_gettid); }

Op OpOf(const char* name) {
  if (strcmp(name, "open") == 0) return kOpen;
  if (strcmp(name, "write") == 0) return kWrite;
  if (strcmp(name, "fsync") == 0) return kFsync;
  if (strcmp(name, "rename") == 0) return kRename;
  return kNone;
}

// True when this call is the one to fail; then errno is set.
bool Fails(Op op, const char* what) {
  if (g_op.load(std::memory_order_relaxed) != op) return false;
  if (g_thread.load() != ThisThread()) return false;
  if (g_countdown.fetch_sub(1) != 1) return false;
  g_op.store(kNone);
  snprintf(g_what, sizeof(g_what), "%s", what ? what : "");
  g_fired.store(1);
  errno = g_error.load();
  return true;
}

const char* FdName(int fd) {
  static thread_local char name[64];
  snprintf(name, sizeof(name), "fd %d", fd);
  return name;
}

template <typename F>
F Next(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

mode_t ModeArgument(int flags, va_list args) {
  return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(args, mode_t) : 0;
}

}  // namespace

extern "C" {

void vistrel_fault_arm(const char* op, int nth, int error) {
  g_fired.store(0);
  g_what[0] = '\0';
  g_error.store(error);
  g_countdown.store(nth);
  g_thread.store(ThisThread());
  g_op.store(OpOf(op));
}

void vistrel_fault_disarm(void) { g_op.store(kNone); }

int vistrel_fault_fired(char* what, size_t size) {
  if (what && size) snprintf(what, size, "%s", g_what);
  return g_fired.load();
}

#define OPEN_LIKE(name)                                             \
  int name(const char* path, int flags, ...) {                      \
    va_list args;                                                   \
    va_start(args, flags);                                          \
    mode_t mode = ModeArgument(flags, args);                        \
    va_end(args);                                                   \
    if (Fails(kOpen, path)) return -1;                              \
    static auto next = Next<int (*)(const char*, int, ...)>(#name); \
    return next(path, flags, mode);                                 \
  }
OPEN_LIKE(open)
OPEN_LIKE(open64)

#define OPENAT_LIKE(name)                                                \
  int name(int dir, const char* path, int flags, ...) {                  \
    va_list args;                                                        \
    va_start(args, flags);                                               \
    mode_t mode = ModeArgument(flags, args);                             \
    va_end(args);                                                        \
    if (Fails(kOpen, path)) return -1;                                   \
    static auto next = Next<int (*)(int, const char*, int, ...)>(#name); \
    return next(dir, path, flags, mode);                                 \
  }
OPENAT_LIKE(openat)
OPENAT_LIKE(openat64)

ssize_t write(int fd, const void* data, size_t size) {
  if (Fails(kWrite, FdName(fd))) return -1;
  static auto next = Next<ssize_t (*)(int, const void*, size_t)>("write");
  return next(fd, data, size);
}

int fsync(int fd) {
  if (Fails(kFsync, FdName(fd))) return -1;
  static auto next = Next<int (*)(int)>("fsync");
  return next(fd);
}

int fdatasync(int fd) {
  if (Fails(kFsync, FdName(fd))) return -1;
  static auto next = Next<int (*)(int)>("fdatasync");
  return next(fd);
}

int rename(const char* from, const char* to) {
  if (Fails(kRename, to)) return -1;
  static auto next = Next<int (*)(const char*, const char*)>("rename");
  return next(from, to);
}

int renameat(int from_dir, const char* from, int to_dir, const char* to) {
  if (Fails(kRename, to)) return -1;
  static auto next = Next<int (*)(int, const char*, int, const char*)>("renameat");
  return next(from_dir, from, to_dir, to);
}

int renameat2(int from_dir, const char* from, int to_dir, const char* to, unsigned int flags) {
  if (Fails(kRename, to)) return -1;
  static auto next = Next<int (*)(int, const char*, int, const char*, unsigned int)>("renameat2");
  return next(from_dir, from, to_dir, to, flags);
}

}  // extern "C"
