// The filter of system calls decides like the one that libseccomp makes of the same rights.

#include "symforge/src/driver/seccomp_filter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/seccomp.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr pid_t kProcess = 4711;

// What a program decides about a call.
uint32_t decide(const std::vector<sock_filter>& program, const seccomp_data& call) {
  uint32_t a = 0;
  for (size_t at = 0; at < program.size(); ++at) {
    const sock_filter& op = program[at];
    switch (op.code) {
      case BPF_LD | BPF_W | BPF_ABS:
        std::memcpy(&a, reinterpret_cast<const char*>(&call) + op.k, sizeof a);
        break;
      case BPF_ALU | BPF_AND | BPF_K:
        a &= op.k;
        break;
      case BPF_JMP | BPF_JA:
        at += op.k;
        break;
      case BPF_JMP | BPF_JEQ | BPF_K:
        at += a == op.k ? op.jt : op.jf;
        break;
      case BPF_JMP | BPF_JGE | BPF_K:
        at += a >= op.k ? op.jt : op.jf;
        break;
      case BPF_JMP | BPF_JGT | BPF_K:
        at += a > op.k ? op.jt : op.jf;
        break;
      case BPF_RET | BPF_K:
        return op.k;
      default:
        ADD_FAILURE() << "unknown instruction " << op.code;
        return 0;
    }
  }
  ADD_FAILURE() << "the program does not end";
  return 0;
}

constexpr char kCalls[] =
    "access brk clock_gettime close exit exit_group faccessat faccessat2 fcntl fstat futex "
    "getcwd getpid getrandom getrusage gettid gettimeofday lseek lstat madvise mremap munmap "
    "newfstatat pread64 read readlink readlinkat readv restart_syscall rt_sigaction "
    "rt_sigprocmask rt_sigreturn sigaltstack stat statx time write writev ";
constexpr char kWritingCalls[] = "fdatasync fsync mkdir open openat rename symlink unlink";

struct Right {
  std::string call;
  std::vector<scmp_arg_cmp> conditions;
};

std::vector<sock_filter> made_by_library(bool writing) {
  const scmp_datum_t changes = O_ACCMODE | O_CREAT | O_TRUNC;
  std::vector<Right> rights = {
      {"mmap", {{2, SCMP_CMP_MASKED_EQ, PROT_EXEC, 0}}},
      {"mprotect", {{2, SCMP_CMP_MASKED_EQ, PROT_EXEC, 0}}},
      {"tgkill", {{0, SCMP_CMP_EQ, kProcess, 0}}},
      {"ioctl", {{1, SCMP_CMP_EQ, TCGETS, 0}}},
      {"sendto", {{4, SCMP_CMP_EQ, 0, 0}}},
  };
  if (!writing) {
    rights.push_back({"open", {{1, SCMP_CMP_MASKED_EQ, changes, O_RDONLY}}});
    rights.push_back({"openat", {{2, SCMP_CMP_MASKED_EQ, changes, O_RDONLY}}});
  }
  std::istringstream calls(std::string(kCalls) + (writing ? kWritingCalls : ""));
  for (std::string call; calls >> call;) rights.push_back({call, {}});
  const scmp_filter_ctx context = seccomp_init(SCMP_ACT_ERRNO(EPERM));
  for (const Right& right : rights) {
    EXPECT_EQ(0, seccomp_rule_add_array(
                     context, SCMP_ACT_ALLOW, seccomp_syscall_resolve_name(right.call.c_str()),
                     static_cast<unsigned>(right.conditions.size()), right.conditions.data()))
        << right.call;
  }
  int ends[2];
  EXPECT_EQ(0, pipe(ends));
  EXPECT_EQ(0, seccomp_export_bpf(context, ends[1]));
  seccomp_release(context);
  close(ends[1]);
  std::vector<sock_filter> program(4096);
  const ssize_t bytes = read(ends[0], program.data(), program.size() * sizeof(sock_filter));
  close(ends[0]);
  program.resize(static_cast<size_t>(bytes) / sizeof(sock_filter));
  return program;
}

TEST(SeccompFilterTest, DecidesLikeTheLibrary) {
  const uint64_t arguments[] = {
      0,         1,      2,        PROT_EXEC, PROT_EXEC | 3, O_CREAT, O_TRUNC,
      O_CLOEXEC, TCGETS, kProcess, 1UL << 32, TIOCSTI,       O_RDWR,  kProcess | 1UL << 32};
  for (const bool writing : {false, true}) {
    const std::vector<sock_filter> expected = made_by_library(writing);
    const std::vector<sock_filter> actual = symforge_internal::seccomp_filter(writing, kProcess);
    size_t allowed = 0;
    for (const uint32_t machine : {uint32_t{AUDIT_ARCH_X86_64}, uint32_t{AUDIT_ARCH_I386}}) {
      for (const int first : {0, 0x40000000}) {
        for (int number = first; number < first + 600; ++number) {
          for (const uint64_t argument : arguments) {
            seccomp_data call = {};
            call.nr = number;
            call.arch = machine;
            for (__u64& value : call.args) value = argument;
            const uint32_t decision = decide(actual, call);
            ASSERT_EQ(decision, decide(expected, call)) << number << " with " << argument;
            allowed += decision == SECCOMP_RET_ALLOW ? 1 : 0;
          }
        }
      }
    }
    EXPECT_GT(allowed, 500U);
  }
}

}  // namespace
