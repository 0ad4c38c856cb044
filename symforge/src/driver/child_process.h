// Child processes of a batch.

#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <csignal>
#include <cstddef>
#include <functional>
#include <list>
#include <optional>
#include <string>

#include "base/file_io.h"

namespace symforge_internal {

// To be called by a child after its fork: the kernel sends `signal` to this process when the
// process `parent` ends, or ends it at once if the parent has ended. This remains in effect after
// execve().
void end_with_parent(pid_t parent, int signal);

// The child processes that run at the same time. While an object exists, SIGCHLD and the signals of
// end_signals.h are blocked except in wait().
class Children {
 public:
  // The end of a child.
  struct End {
    size_t number = 0;  // as given to start()
    int status = 0;     // as from waitpid()
    rusage usage = {};
    uint64_t milliseconds = 0;  // from its start
    std::string messages;       // what it wrote to standard error and was not printed yet
  };

  // `hold_messages`: each child's standard error is collected, so that those of several children
  // do not mix. Otherwise it is that of this process. A child that writes very much has its
  // complete lines printed before its end.
  explicit Children(bool hold_messages);
  ~Children();
  Children(const Children&) = delete;
  Children& operator=(const Children&) = delete;

  // Forks a child that calls `run`, which must not return, with the signal mask that this process
  // had before. False, with the reason in `errno`, when there is no child.
  bool start(size_t number, const std::function<void()>& run);

  // Waits until a child has ended, a signal was handled, or the time is over. A time below 0 is
  // unlimited. Empty when no child has ended.
  std::optional<End> wait(int milliseconds);

  size_t running() const { return running_.size(); }

  // Sends a signal to all children.
  void send(int signal) const;

 private:
  struct Child {
    size_t number;
    pid_t pid;
    uint64_t start;  // on the clock of conversion_report.h
    FileDescriptor messages;
    std::string held;
  };

  void wait_for_events(int milliseconds);
  static void read_messages(Child& child);
  std::optional<End> take_ended();

  const bool hold_messages_;
  sigset_t mask_;  // of this process before
  std::list<Child> running_;
};

}  // namespace symforge_internal
