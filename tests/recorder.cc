// A library for LD_PRELOAD: reports, in order, the calls on which the state after a loss of power
// depends, and forwards them.

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace {

void report(const char* call) { syscall(SYS_write, STDERR_FILENO, call, std::strlen(call)); }

}  // namespace

extern "C" int fdatasync(int fd) {
  report("fdatasync\n");
  return static_cast<int>(syscall(SYS_fdatasync, fd));
}

extern "C" int fsync(int fd) {
  report("fsync\n");
  return static_cast<int>(syscall(SYS_fsync, fd));
}

extern "C" int rename(const char* from, const char* to) noexcept {
  report("rename\n");
  return static_cast<int>(syscall(SYS_rename, from, to));
}

extern "C" int symlink(const char* target, const char* link) noexcept {
  report("symlink\n");
  return static_cast<int>(syscall(SYS_symlink, target, link));
}
