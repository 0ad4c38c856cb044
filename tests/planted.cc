// A library for LD_PRELOAD: at the first long write of the program, which writes the result, it
// tries what injected code might try, and reports which attempts succeeded.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace {

constexpr size_t kLongWrite = 100;  // longer than any message

void report(const char* attempt, bool works) {
  const std::string line =
      std::string("planted: ") + attempt + (works ? ": works\n" : ": refused\n");
  syscall(SYS_write, STDERR_FILENO, line.data(), line.size());
}

// Whether another program can be executed. Tries it in a child process, which would be replaced.
bool executes() {
  char program[] = "/bin/true";
  char* const args[] = {program, nullptr};
  const pid_t pid = static_cast<pid_t>(syscall(SYS_fork));
  if (pid == 0) {
    execve(program, args, nullptr);
    _exit(1);
  }
  if (pid == -1) return execve(program, args, nullptr) == 0;  // returns only on failure
  int status = 1;
  waitpid(pid, &status, 0);
  return status == 0;
}

void attempt_all() {
  report("read a file", open("/etc/passwd", O_RDONLY) != -1);
  char name[] = "/tmp/symforge_planted_XXXXXX";
  const bool writes = mkstemp(name) != -1;
  if (writes) unlink(name);
  report("write a file", writes);
  report("make a socket", socket(AF_UNIX, SOCK_STREAM, 0) != -1);
  report("execute", executes());
  const pid_t pid = static_cast<pid_t>(syscall(SYS_fork));
  if (pid == 0) _exit(0);
  report("make a process", pid != -1);
  const int protection = PROT_READ | PROT_EXEC;
  report("make code",
         mmap(nullptr, 1, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) != MAP_FAILED);
}

}  // namespace

extern "C" ssize_t write(int fd, const void* bytes, size_t size) {
  static bool attempted = false;
  if (size > kLongWrite && !attempted) {
    attempted = true;
    attempt_all();
  }
  return syscall(SYS_write, fd, bytes, size);
}
