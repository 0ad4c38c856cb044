#include "symforge/src/driver/input_list.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "base/file_io.h"
#include "base/printable.h"
#include "base/text_buffer.h"
#include "symforge/src/driver/messages.h"

namespace symforge_internal {

namespace {

constexpr size_t kLargestList = size_t{1} << 30;  // bytes

bool read_list(const char* list, TextBuffer& content) {
  const bool standard_input = std::string_view(list) == kStandardInput;
  const FileDescriptor file(standard_input ? dup(STDIN_FILENO) : open(list, O_RDONLY | O_CLOEXEC));
  if (!file.is_open() || !read_file(file.get(), content, kLargestList + 1)) return false;
  errno = EFBIG;
  return content.size() <= kLargestList;
}

}  // namespace

bool read_input_list(const char* list, std::vector<std::string>& paths) {
  TextBuffer content;
  if (!read_list(list, content)) {
    report("failed to read the list %s: %s", printable(list).c_str(), strerror(errno));
    return false;
  }
  std::string_view rest = content.view();
  const char separator = rest.find('\0') == std::string_view::npos ? '\n' : '\0';
  while (!rest.empty()) {
    const std::string_view path = rest.substr(0, rest.find(separator));
    rest.remove_prefix(std::min(path.size() + 1, rest.size()));
    if (!path.empty()) paths.emplace_back(path);
  }
  return true;
}

}  // namespace symforge_internal
