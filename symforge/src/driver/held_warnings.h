// HeldWarnings: in standard mode, what the readers of PDBs and images write to standard error is
// held until the conversion has ended. If it succeeded, each line is reported in the form of
// messages.h. If it failed, a single line reports the failure.
//
// Not for use by several threads at once.

#pragma once

#include <cstdio>
#include <string>

namespace symforge_internal {

class HeldWarnings {
 public:
  // From here on `stderr` writes to this object. Where that is not possible nothing is held.
  HeldWarnings();
  // Restores `stderr`. Lines that were not passed on are dropped.
  ~HeldWarnings();
  HeldWarnings(const HeldWarnings&) = delete;
  HeldWarnings& operator=(const HeldWarnings&) = delete;

  // Reports each held line. At most kMaxBytes are held; if there was more, a last line says so.
  void pass_on();

  // The last held line, or an empty string.
  std::string last() const;

  static constexpr size_t kMaxBytes = 64 * 1024;

 private:
  static ssize_t add(void* self, const char* text, size_t size);

  FILE* const original_;
  FILE* stream_ = nullptr;
  std::string text_;  // of complete calls, so usually complete lines
  bool cut_ = false;
};

}  // namespace symforge_internal
