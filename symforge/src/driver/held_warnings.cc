#include "symforge/src/driver/held_warnings.h"

#include <sys/types.h>

#include <string_view>

#include "base/printable.h"
#include "symforge/src/driver/messages.h"

namespace symforge_internal {

HeldWarnings::HeldWarnings() : original_(stderr) {
  cookie_io_functions_t functions = {};
  functions.write = add;
  stream_ = fopencookie(this, "w", functions);
  if (stream_ == nullptr) return;
  setvbuf(stream_, nullptr, _IONBF, 0);
  stderr = stream_;
}

HeldWarnings::~HeldWarnings() {
  stderr = original_;
  if (stream_ != nullptr) std::fclose(stream_);
}

ssize_t HeldWarnings::add(void* self, const char* text, size_t size) {
  auto& held = *static_cast<HeldWarnings*>(self);
  if (held.text_.size() + size > kMaxBytes) {
    held.cut_ = true;
  } else {
    held.text_.append(text, size);
  }
  return static_cast<ssize_t>(size);
}

void HeldWarnings::pass_on() {
  std::string_view rest = text_;
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    if (!line.empty()) report("%s", printable(line).c_str());
    rest.remove_prefix(line.size() < rest.size() ? line.size() + 1 : line.size());
  }
  if (cut_) report("further warnings are left out");
  text_.clear();
}

std::string HeldWarnings::last() const {
  std::string_view text = text_;
  while (text.ends_with('\n')) text.remove_suffix(1);
  return std::string(text.substr(text.rfind('\n') + 1));  // npos + 1 is 0
}

}  // namespace symforge_internal
