#include "symforge/src/driver/seccomp_filter.h"

#include <asm/unistd_64.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/seccomp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

namespace symforge_internal {

namespace {

// Calls with consecutive numbers. If `mask` is not 0, the argument with the index `argument` has to
// have `value` in its lower half under the mask; `whole`: and 0 in its upper half.
struct CallRule {
  uint32_t first = 0;
  uint32_t last = 0;
  uint32_t argument = 0;
  uint32_t mask = 0;
  uint32_t value = 0;
  bool whole = false;
};

constexpr uint32_t kAllowed[] = {
    __NR_access,
    __NR_brk,
    __NR_clock_gettime,
    __NR_close,
    __NR_exit,
    __NR_exit_group,
    __NR_faccessat,
    __NR_faccessat2,
    __NR_fcntl,
    __NR_fstat,
    __NR_futex,
    __NR_getcwd,
    __NR_getpid,
    __NR_getrandom,
    __NR_getrusage,
    __NR_gettid,
    __NR_gettimeofday,
    __NR_lseek,
    __NR_lstat,
    __NR_madvise,
    __NR_mremap,
    __NR_munmap,
    __NR_newfstatat,
    __NR_pread64,
    __NR_read,
    __NR_readlink,
    __NR_readlinkat,
    __NR_readv,
    __NR_restart_syscall,
    __NR_rt_sigaction,
    __NR_rt_sigprocmask,
    __NR_rt_sigreturn,
    __NR_sigaltstack,
    __NR_stat,
    __NR_statx,
    __NR_time,
    __NR_write,
    __NR_writev,
};

// Only for conversions that write into a tree.
constexpr uint32_t kAllowedForWriting[] = {
    __NR_fdatasync, __NR_fsync,  __NR_mkdir,   __NR_open,
    __NR_openat,    __NR_rename, __NR_symlink, __NR_unlink,
};

constexpr uint32_t kWholeHalf = 0xFFFFFFFF;
constexpr uint32_t kChanges = O_ACCMODE | O_CREAT | O_TRUNC;

std::vector<CallRule> rules_of(bool writing, pid_t process) {
  std::vector<CallRule> rules = {
      {__NR_mmap, __NR_mmap, 2, PROT_EXEC, 0},
      {__NR_mprotect, __NR_mprotect, 2, PROT_EXEC, 0},
      // abort() of this process.
      {__NR_tgkill, __NR_tgkill, 0, kWholeHalf, static_cast<uint32_t>(process), true},
      // Whether a stream is a terminal.
      {__NR_ioctl, __NR_ioctl, 1, kWholeHalf, TCGETS, true},
      // The system log, over the connection that is open.
      {__NR_sendto, __NR_sendto, 4, kWholeHalf, 0, true},
  };
  for (const uint32_t call : kAllowed) rules.push_back({call, call});
  if (writing) {
    for (const uint32_t call : kAllowedForWriting) rules.push_back({call, call});
  } else {
    rules.push_back({__NR_open, __NR_open, 1, kChanges, O_RDONLY});
    rules.push_back({__NR_openat, __NR_openat, 2, kChanges, O_RDONLY});
  }
  std::sort(rules.begin(), rules.end(),
            [](const CallRule& a, const CallRule& b) { return a.first < b.first; });
  size_t kept = 0;  // of rules that were joined
  for (const CallRule& rule : rules) {
    CallRule& last = rules[kept == 0 ? 0 : kept - 1];
    if (kept != 0 && last.mask == 0 && rule.mask == 0 && last.last + 1 == rule.first) {
      last.last = rule.last;
    } else {
      rules[kept++] = rule;
    }
  }
  rules.resize(kept);
  return rules;
}

// Two instructions at the end allow and deny; all others only compare. Short programs matter: the
// kernel compiles each, and runs it for every system call in advance.
class Program {
 public:
  explicit Program(std::span<const CallRule> rules) {
    constexpr uint32_t kFirstOfX32 = 0x40000000;
    code_.reserve(6 + 4 * rules.size());
    load(offsetof(seccomp_data, arch));
    compare(BPF_JEQ, AUDIT_ARCH_X86_64, Next::kStep, Next::kKill);
    load(offsetof(seccomp_data, nr));
    compare(BPF_JGE, kFirstOfX32, Next::kKill, Next::kStep);
    search(rules);
    finish(Next::kDeny, SECCOMP_RET_ERRNO | EPERM);
    finish(Next::kAllow, SECCOMP_RET_ALLOW);
    finish(Next::kKill, SECCOMP_RET_KILL);
  }

  std::vector<sock_filter> take() { return std::move(code_); }

 private:
  // Where a comparison leads: to the next instruction or to one of the last. Until these exist the
  // jump has a number of this.
  enum class Next : uint8_t { kStep = 0, kDeny = 253, kAllow = 254, kKill = 255 };

  // The number of the call is loaded.
  void search(std::span<const CallRule> rules) {
    if (rules.size() == 1) {
      check(rules.front());
      return;
    }
    const size_t middle = rules.size() / 2;
    const size_t branch = code_.size();
    compare(BPF_JGE, rules[middle].first, Next::kStep, Next::kStep);
    search(rules.first(middle));
    code_[branch].jt = distance(branch, code_.size());
    search(rules.subspan(middle));
  }

  void check(const CallRule& rule) {
    const Next found = rule.mask == 0 ? Next::kAllow : Next::kStep;
    if (rule.first == rule.last) {
      compare(BPF_JEQ, rule.first, found, Next::kDeny);
    } else {
      compare(BPF_JGE, rule.first, Next::kStep, Next::kDeny);
      compare(BPF_JGT, rule.last, Next::kDeny, found);
    }
    if (rule.mask != 0) check_argument(rule);
  }

  void check_argument(const CallRule& rule) {
    const uint32_t low = offsetof(seccomp_data, args) + 8 * rule.argument;
    if (rule.whole) {
      load(low + 4);
      compare(BPF_JEQ, 0, Next::kStep, Next::kDeny);
    }
    load(low);
    if (rule.mask != kWholeHalf) code_.push_back(BPF_STMT(BPF_ALU | BPF_AND | BPF_K, rule.mask));
    compare(BPF_JEQ, rule.value, Next::kAllow, Next::kDeny);
  }

  void load(uint32_t offset) { code_.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset)); }
  void compare(uint16_t how, uint32_t number, Next held, Next failed) {
    code_.push_back(BPF_JUMP(static_cast<uint16_t>(BPF_JMP | BPF_K | how), number,
                             static_cast<uint8_t>(held), static_cast<uint8_t>(failed)));
  }

  // Appends a last instruction and makes the jumps to it.
  void finish(Next end, uint32_t action) {
    const auto mark = static_cast<uint8_t>(end);
    for (size_t at = 0; at < code_.size(); ++at) {
      if (BPF_CLASS(code_[at].code) != BPF_JMP) continue;
      if (code_[at].jt == mark) code_[at].jt = distance(at, code_.size());
      if (code_[at].jf == mark) code_[at].jf = distance(at, code_.size());
    }
    code_.push_back(BPF_STMT(BPF_RET | BPF_K, action));
  }

  // Jumps are short, and must not be taken for a Next.
  static uint8_t distance(size_t from, size_t to) {
    const size_t skipped = to - from - 1;
    assert(skipped < static_cast<size_t>(Next::kDeny));
    return static_cast<uint8_t>(skipped);
  }

  std::vector<sock_filter> code_;
};

}  // namespace

std::vector<sock_filter> seccomp_filter(bool writing, pid_t process) {
  return Program(rules_of(writing, process)).take();
}

}  // namespace symforge_internal
