// Standard mode: what the readers of PDBs and images write to standard error is held back until it
// is known how the conversion ends. A conversion that succeeds passes it on, line by line in the
// form of messages.h. One that fails says everything in one line.
//
// Not for use by several threads at once.

#pragma once

#include <cstdio>
#include <string>

namespace symforge_internal {

class HeldWarnings {
 public:
  // From here on `stderr` leads into this object. Where that is not possible nothing is held.
  HeldWarnings();
  // Leads `stderr` back. What was not passed on is dropped.
  ~HeldWarnings();
  HeldWarnings(const HeldWarnings&) = delete;
  HeldWarnings& operator=(const HeldWarnings&) = delete;

  // Reports each line that is held. At most kMaxBytes are held; a last line says when there was
  // more.
  void pass_on();

  // The last line that is held, or nothing.
  std::string last() const;

  static constexpr size_t kMaxBytes = 64 * 1024;

 private:
  static ssize_t add(void* self, const char* text, size_t size);

  FILE* const original_;
  FILE* stream_ = nullptr;
  std::string text_;  // of complete calls, and so of complete lines as a rule
  bool cut_ = false;
};

}  // namespace symforge_internal
