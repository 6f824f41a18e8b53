// The library that is preloaded into the server: calls of the C library that fail when a test says
// so. Everything else goes to the real function.
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "faults/fault_control.hpp"

namespace {

using spotserver::faults::Call;
using spotserver::faults::Control;
using spotserver::faults::kShort;

std::atomic<Control*> control = nullptr;  // none until the program begins

// The function that would have been called without us.
template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// 0, or how this call is to fail.
int verdict(Call call) {
  Control* const told = control;
  if (told == nullptr || told->call.load() != call) return 0;
  const long number = told->seen++;
  const long due = told->due;
  const int how = told->error;
  if (how == 0 || (number != due && !(told->for_good && number > due))) return 0;
  ++told->failed;
  return how;
}

// True with errno set when this call is to fail.
bool fails(Call call) {
  const int how = verdict(call);
  if (how == 0) return false;
  errno = how == kShort ? EIO : how;
  return true;
}

// The same of a call that opens `path`. A process that writes the counters of a coverage build is
// at its end, and nothing that it does from here on is the server's.
bool failsToOpen(const char* path) {
  if (std::string_view(path).ends_with(".profraw")) control = nullptr;
  return fails(Call::kOpen);
}

bool isSocket(int fd) {
  static auto* const next = real<int(int, struct stat*)>("fstat");
  struct stat status {};
  const int before = errno;
  const bool socket = next(fd, &status) == 0 && S_ISSOCK(status.st_mode);
  errno = before;
  return socket;
}

// Reading and writing: `proceed(size)` does it.
template <typename Proceed>
ssize_t transfer(Call call, int fd, std::size_t size, Proceed proceed) {
  Control* const told = control;
  if (told == nullptr || told->call.load() != call || isSocket(fd)) return proceed(size);
  const int how = verdict(call);
  if (how == kShort) return proceed(size > 1 ? size / 2 : size);
  if (how == 0) return proceed(size);
  errno = how;
  return -1;
}

__attribute__((constructor)) void begin() {
  const char* path = getenv(spotserver::faults::kControlVariable);
  if (path == nullptr) return;
  const int fd = open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) return;
  void* memory = mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (memory != MAP_FAILED) control = static_cast<Control*>(memory);
}

}  // namespace

// The real function of the same name, of type `type`, called with the arguments that follow.
#define NEXT(name, type, ...)                    \
  ([&] {                                         \
    static auto* const next = real<type>(#name); \
    return next(__VA_ARGS__);                    \
  }())

extern "C" {

// ---- memory ----
// By their inner names: dlsym allocates itself.

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size) { return fails(Call::kAllocate) ? nullptr : __libc_malloc(size); }
void* calloc(size_t count, size_t size) {
  return fails(Call::kAllocate) ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* memory, size_t size) {
  return fails(Call::kAllocate) ? nullptr : __libc_realloc(memory, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
  return fails(Call::kAllocate) ? nullptr : __libc_memalign(alignment, size);
}
int posix_memalign(void** memory, size_t alignment, size_t size) {
  if (fails(Call::kAllocate)) return ENOMEM;
  *memory = __libc_memalign(alignment, size);
  return *memory == nullptr ? ENOMEM : 0;
}

// ---- opening and closing ----

// The mode that open's last argument is when it creates.
#define MODE_AFTER(flags)                       \
  mode_t mode = 0;                              \
  if (((flags) & (O_CREAT | O_TMPFILE)) != 0) { \
    va_list rest;                               \
    va_start(rest, flags);                      \
    mode = va_arg(rest, mode_t);                \
    va_end(rest);                               \
  }

int open(const char* path, int flags, ...) {
  MODE_AFTER(flags)
  return failsToOpen(path) ? -1 : NEXT(open, int(const char*, int, ...), path, flags, mode);
}
int open64(const char* path, int flags, ...) {
  MODE_AFTER(flags)
  return failsToOpen(path) ? -1 : NEXT(open64, int(const char*, int, ...), path, flags, mode);
}
int openat(int directory, const char* path, int flags, ...) {
  MODE_AFTER(flags)
  if (failsToOpen(path)) return -1;
  return NEXT(openat, int(int, const char*, int, ...), directory, path, flags, mode);
}
int openat64(int directory, const char* path, int flags, ...) {
  MODE_AFTER(flags)
  if (failsToOpen(path)) return -1;
  return NEXT(openat64, int(int, const char*, int, ...), directory, path, flags, mode);
}
FILE* fopen(const char* path, const char* how) {
  return failsToOpen(path) ? nullptr : NEXT(fopen, FILE * (const char*, const char*), path, how);
}
FILE* fopen64(const char* path, const char* how) {
  return failsToOpen(path) ? nullptr : NEXT(fopen64, FILE * (const char*, const char*), path, how);
}
DIR* opendir(const char* path) {
  return fails(Call::kOpen) ? nullptr : NEXT(opendir, DIR * (const char*), path);
}
DIR* fdopendir(int fd) { return fails(Call::kOpen) ? nullptr : NEXT(fdopendir, DIR * (int), fd); }
int pipe2(int* ends, int flags) {
  return fails(Call::kOpen) ? -1 : NEXT(pipe2, int(int*, int), ends, flags);
}
int close(int fd) {
  const bool counts = control != nullptr && !isSocket(fd);
  const int closed = NEXT(close, int(int), fd);
  return counts && fails(Call::kClose) ? -1 : closed;
}
int fclose(FILE* file) {
  const int closed = NEXT(fclose, int(FILE*), file);
  return fails(Call::kClose) ? EOF : closed;
}

// ---- reading and writing ----

ssize_t read(int fd, void* buffer, size_t size) {
  return transfer(Call::kRead, fd, size, [&](size_t part) {
    return NEXT(read, ssize_t(int, void*, size_t), fd, buffer, part);
  });
}
ssize_t pread(int fd, void* buffer, size_t size, off_t offset) {
  return transfer(Call::kRead, fd, size, [&](size_t part) {
    return NEXT(pread, ssize_t(int, void*, size_t, off_t), fd, buffer, part, offset);
  });
}
ssize_t pread64(int fd, void* buffer, size_t size, off64_t offset) {
  return transfer(Call::kRead, fd, size, [&](size_t part) {
    return NEXT(pread64, ssize_t(int, void*, size_t, off64_t), fd, buffer, part, offset);
  });
}
size_t fread(void* buffer, size_t size, size_t count, FILE* file) {
  if (!fails(Call::kRead)) {
    return NEXT(fread, size_t(void*, size_t, size_t, FILE*), buffer, size, count, file);
  }
  file->_flags |= 0x20;  // what ferror reports
  return 0;
}
char* fgets(char* buffer, int size, FILE* file) {
  if (!fails(Call::kRead)) return NEXT(fgets, char*(char*, int, FILE*), buffer, size, file);
  file->_flags |= 0x20;
  return nullptr;
}
dirent* readdir(DIR* directory) {
  return fails(Call::kRead) ? nullptr : NEXT(readdir, dirent * (DIR*), directory);
}
ssize_t write(int fd, const void* buffer, size_t size) {
  return transfer(Call::kWrite, fd, size, [&](size_t part) {
    return NEXT(write, ssize_t(int, const void*, size_t), fd, buffer, part);
  });
}
ssize_t pwrite64(int fd, const void* buffer, size_t size, off64_t offset) {
  return transfer(Call::kWrite, fd, size, [&](size_t part) {
    return NEXT(pwrite64, ssize_t(int, const void*, size_t, off64_t), fd, buffer, part, offset);
  });
}
ssize_t writev(int fd, const iovec* parts, int count) {
  return transfer(Call::kWrite, fd, 1, [&](size_t) {
    return NEXT(writev, ssize_t(int, const iovec*, int), fd, parts, count);
  });
}
int fsync(int fd) { return fails(Call::kWrite) ? -1 : NEXT(fsync, int(int), fd); }
int fchmod(int fd, mode_t mode) {
  return fails(Call::kWrite) ? -1 : NEXT(fchmod, int(int, mode_t), fd, mode);
}
int fchown(int fd, uid_t owner, gid_t group) {
  return fails(Call::kWrite) ? -1 : NEXT(fchown, int(int, uid_t, gid_t), fd, owner, group);
}
int ftruncate(int fd, off_t size) {
  return fails(Call::kWrite) ? -1 : NEXT(ftruncate, int(int, off_t), fd, size);
}

// ---- questions and names ----

int stat(const char* path, struct stat* status) {
  if (fails(Call::kStat)) return -1;
  return NEXT(stat, int(const char*, struct stat*), path, status);
}
int stat64(const char* path, struct stat64* status) {
  if (fails(Call::kStat)) return -1;
  return NEXT(stat64, int(const char*, struct stat64*), path, status);
}
int lstat(const char* path, struct stat* status) {
  if (fails(Call::kStat)) return -1;
  return NEXT(lstat, int(const char*, struct stat*), path, status);
}
int lstat64(const char* path, struct stat64* status) {
  if (fails(Call::kStat)) return -1;
  return NEXT(lstat64, int(const char*, struct stat64*), path, status);
}
int fstat(int fd, struct stat* status) {
  if (fails(Call::kStat)) return -1;
  return NEXT(fstat, int(int, struct stat*), fd, status);
}
int fstat64(int fd, struct stat64* status) {
  if (fails(Call::kStat)) return -1;
  return NEXT(fstat64, int(int, struct stat64*), fd, status);
}
int access(const char* path, int how) {
  return fails(Call::kStat) ? -1 : NEXT(access, int(const char*, int), path, how);
}
ssize_t readlink(const char* path, char* buffer, size_t size) {
  if (fails(Call::kStat)) return -1;
  return NEXT(readlink, ssize_t(const char*, char*, size_t), path, buffer, size);
}
int rename(const char* from, const char* to) {
  return fails(Call::kName) ? -1 : NEXT(rename, int(const char*, const char*), from, to);
}
int renameat2(int from_directory, const char* from, int to_directory, const char* to,
              unsigned flags) {
  if (fails(Call::kName)) return -1;
  return NEXT(renameat2, int(int, const char*, int, const char*, unsigned), from_directory, from,
              to_directory, to, flags);
}
int link(const char* from, const char* to) {
  return fails(Call::kName) ? -1 : NEXT(link, int(const char*, const char*), from, to);
}
int symlink(const char* from, const char* to) {
  return fails(Call::kName) ? -1 : NEXT(symlink, int(const char*, const char*), from, to);
}
int unlink(const char* path) {
  return fails(Call::kName) ? -1 : NEXT(unlink, int(const char*), path);
}
int mkdir(const char* path, mode_t mode) {
  return fails(Call::kName) ? -1 : NEXT(mkdir, int(const char*, mode_t), path, mode);
}
int rmdir(const char* path) {
  return fails(Call::kName) ? -1 : NEXT(rmdir, int(const char*), path);
}

// ---- connections ----

int accept(int listener, sockaddr* peer, socklen_t* size) {
  if (fails(Call::kAccept)) return -1;
  return NEXT(accept, int(int, sockaddr*, socklen_t*), listener, peer, size);
}
int accept4(int listener, sockaddr* peer, socklen_t* size, int flags) {
  if (fails(Call::kAccept)) return -1;
  return NEXT(accept4, int(int, sockaddr*, socklen_t*, int), listener, peer, size, flags);
}

// ---- processes and threads ----

pid_t fork() { return fails(Call::kSpawn) ? -1 : NEXT(fork, pid_t()); }
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                   void* argument) {
  if (fails(Call::kSpawn)) return EAGAIN;
  return NEXT(pthread_create, int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*),
              thread, attributes, entry, argument);
}

}  // extern "C"
