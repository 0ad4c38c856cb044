#include "symforge/src/standard/image_join.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/symbol_text.h"

namespace symforge_internal {

namespace {

// The code of the FUNC lines.
std::vector<CodeRange> functionsOf(std::string_view text) {
  std::vector<CodeRange> functions;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    const std::string_view line = text.substr(at, end - at);
    FunctionFields fields;
    if (line.starts_with("FUNC ") && quick_parse(line.data(), line.data() + line.size(), &fields) &&
        fields.size != 0 && fields.address <= UINT32_MAX && fields.size <= UINT32_MAX) {
      functions.push_back(
          {static_cast<uint32_t>(fields.address), static_cast<uint32_t>(fields.size)});
    }
    at = end + 1;
  }
  return functions;
}

}  // namespace

void joinImage(const CodeFile& image, TextBuffer& text, StandardCounts& counts) {
  const size_t module = text.view().find('\n');
  if (!image.found() || module == std::string_view::npos) return;
  TextBuffer codeId;
  image.printStandardCodeId(codeId);
  text.insert(module + 1, codeId.view());
  if (text.view().find("\nSTACK CFI ") != std::string_view::npos) return;
  const std::vector<CodeRange> functions = functionsOf(text.view());
  for (std::string& message : image.printUnwindRules(functions, text)) {
    counts.messages.push_back(std::move(message));
  }
}

}  // namespace symforge_internal
