#include "symforge/src/driver/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include "symforge/src/driver/conversion_report.h"
#include "symforge/src/driver/end_signals.h"

namespace symforge_internal {

namespace {

// Bytes of a child's messages that are held; more are printed as far as their lines are complete.
constexpr size_t kMostHeld = 1024 * 1024;

// SIGCHLD interrupts a wait only if it has a handler.
void ignore_end(int) {}

void handle_child_ends(sigset_t& before) {
  struct sigaction action = {};
  action.sa_handler = ignore_end;
  sigaction(SIGCHLD, &action, nullptr);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGCHLD);
  for (const int number : kEndSignals) sigaddset(&blocked, number);
  sigprocmask(SIG_BLOCK, &blocked, &before);
}

}  // namespace

void end_with_parent(pid_t parent, int signal) {
  prctl(PR_SET_PDEATHSIG, signal);
  // A parent that has ended before that call sends no signal.
  if (getppid() != parent) _exit(1);
}

Children::Children(bool hold_messages) : hold_messages_(hold_messages) { handle_child_ends(mask_); }

Children::~Children() {
  sigprocmask(SIG_SETMASK, &mask_, nullptr);
  signal(SIGCHLD, SIG_DFL);
}

bool Children::start(size_t number, const std::function<void()>& run) {
  int ends[2] = {-1, -1};
  if (hold_messages_ && pipe2(ends, O_CLOEXEC) != 0) return false;
  FileDescriptor from(ends[0]);
  const FileDescriptor to(ends[1]);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == -1) return false;
  if (pid == 0) {
    // SIGTERM, so that a conversion removes its temporary file.
    end_with_parent(parent, SIGTERM);
    reset_end_signals();
    sigprocmask(SIG_SETMASK, &mask_, nullptr);
    if (to.is_open()) dup2(to.get(), STDERR_FILENO);
    run();
    _exit(1);
  }
  if (from.is_open()) fcntl(from.get(), F_SETFL, O_NONBLOCK);
  running_.push_back(Child{number, pid, clock_milliseconds(), std::move(from), {}});
  return true;
}

void Children::read_messages(Child& child) {
  char block[16 * 1024];
  for (;;) {
    const ssize_t got = read(child.messages.get(), block, sizeof block);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && errno == EAGAIN) return;
    if (got <= 0) break;
    child.held.append(block, static_cast<size_t>(got));
    if (child.held.size() < kMostHeld) continue;
    const size_t line_end = child.held.rfind('\n');
    const size_t printed = line_end == std::string::npos ? child.held.size() : line_end + 1;
    write_file(STDERR_FILENO, std::string_view(child.held).substr(0, printed));
    child.held.erase(0, printed);
  }
  child.messages.close();
}

void Children::wait_for_events(int milliseconds) {
  std::vector<pollfd> pipes;
  for (const Child& child : running_) {
    if (child.messages.is_open()) pipes.push_back({child.messages.get(), POLLIN, 0});
  }
  const timespec time = {milliseconds / 1000, milliseconds % 1000 * 1000000L};
  // The signals that were blocked between waits take effect here, and end the wait.
  ppoll(pipes.data(), pipes.size(), milliseconds < 0 ? nullptr : &time, &mask_);
}

std::optional<Children::End> Children::take_ended() {
  for (auto child = running_.begin(); child != running_.end(); ++child) {
    int status = 0;
    rusage usage = {};
    const pid_t ended = wait4(child->pid, &status, WNOHANG, &usage);
    if (ended == 0 || (ended == -1 && errno == EINTR)) continue;
    if (child->messages.is_open()) read_messages(*child);
    End end{child->number, ended == -1 ? -1 : status, usage, clock_milliseconds() - child->start,
            std::move(child->held)};
    running_.erase(child);
    return end;
  }
  return std::nullopt;
}

std::optional<Children::End> Children::wait(int milliseconds) {
  if (std::optional<End> end = take_ended()) return end;
  wait_for_events(milliseconds);
  for (Child& child : running_) {
    if (child.messages.is_open()) read_messages(child);
  }
  return take_ended();
}

void Children::send(int signal) const {
  for (const Child& child : running_) kill(child.pid, signal);
}

}  // namespace symforge_internal
