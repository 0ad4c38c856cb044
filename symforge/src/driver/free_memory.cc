#include "symforge/src/driver/free_memory.h"

#include <algorithm>
#include <charconv>
#include <string>

#include "base/file_io.h"

namespace symforge_internal {

namespace {

// The number after `name` at the beginning of a line; an empty name: at the beginning of the text.
bool find_number(std::string_view text, std::string_view name, uint64_t& number) {
  size_t at = 0;
  while (!text.substr(at).starts_with(name)) {
    at = text.find('\n', at);
    if (at == std::string_view::npos) return false;
    ++at;
  }
  text.remove_prefix(at + name.size());
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  return std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc();
}

uint64_t free_in_machine() {
  constexpr uint64_t kUnit = 1024;
  uint64_t available;
  if (!find_number(content_of("/proc/meminfo"), "MemAvailable:", available)) return UINT64_MAX;
  return available * kUnit;
}

uint64_t free_in_group() {
  constexpr std::string_view kVersion2 = "0::";
  const std::string groups = content_of("/proc/self/cgroup");
  const size_t at = groups.find(kVersion2);
  if (at == std::string::npos) return UINT64_MAX;
  const size_t begin = at + kVersion2.size();
  const std::string folder =
      "/sys/fs/cgroup" + groups.substr(begin, groups.find('\n', begin) - begin);
  uint64_t limit;
  uint64_t used;
  uint64_t cached = 0;
  // Without a limit the file holds a word.
  if (!find_number(content_of(folder + "/memory.max"), "", limit)) return UINT64_MAX;
  if (!find_number(content_of(folder + "/memory.current"), "", used)) return UINT64_MAX;
  find_number(content_of(folder + "/memory.stat"), "inactive_file", cached);
  used -= std::min(used, cached);
  return limit - std::min(limit, used);
}

}  // namespace

uint64_t free_memory() { return std::min(free_in_machine(), free_in_group()); }

bool parse_size(std::string_view text, uint64_t& size) {
  constexpr std::string_view kSuffixes = "kKmMgGtT";
  int shift = 0;
  if (const size_t at = text.empty() ? std::string_view::npos : kSuffixes.find(text.back());
      at != std::string_view::npos) {
    shift = 10 * static_cast<int>(at / 2 + 1);
    text.remove_suffix(1);
  }
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, size);
  if (error != std::errc() || stop != end || size > (UINT64_MAX >> shift)) return false;
  size <<= shift;
  return true;
}

}  // namespace symforge_internal
