#include "symforge/src/driver/sandbox_rights.h"

#include <cstring>
#include <ctime>
#include <optional>
#include <string_view>
#include <utility>

#include "base/path_names.h"
#include "common/symb.h"
#include "common/symb_block.h"
#include "symforge/src/pdb/undname.h"
#include "symforge/src/pe/image_identity.h"
#include "symforge/src/utils.h"

namespace symforge_internal {

namespace {

using Kind = OpenedInput::Kind;

// The debug file name in a SYMB image, or an empty string.
std::string name_in_symb(std::string_view image) {
  constexpr size_t kReference = offsetof(symb_header_v1, debug_file);
  if (image.size() < sizeof(symb_header_v1)) return {};
  const auto at = symb_load<uint64_t>(image.data() + kReference);
  if (at >= image.size()) return {};
  const std::string_view rest = image.substr(at);
  return std::string(rest.substr(0, rest.find('\0')));
}

// The debug file name that decides the place in the tree. It comes from the file and can be wrong
// or missing; then it is not a tree component or has no folder in the tree.
std::string debug_file_of(const OpenedInput& opened) {
  const std::string_view content = opened.content().view();
  switch (opened.kind()) {
    case Kind::kText: {
      constexpr size_t kIdentityLines = 16 * 1024;  // they come first
      sym_info info;
      sym_info_parse(std::string(content.substr(0, kIdentityLines)).c_str(), info);
      return info.debug_file;
    }
    case Kind::kSymb:
      return name_in_symb(content);
    case Kind::kPeAlone: {
      const std::optional<ImageIdentity> identity = pe_debug_id(opened.input().exe);
      return identity ? std::string(last_component(identity->debug_file, kAnySeparators))
                      : std::string();
    }
    case Kind::kPdb:
      break;
  }
  const std::string_view path = opened.input().pdb;
  return std::string(path.substr(path.rfind('/') + 1));
}

}  // namespace

SandboxRights sandbox_rights(const OpenedInput& opened, const ConversionOptions& options) {
  SandboxRights rights;
  const ConversionInput& input = opened.input();
  if (opened.kind() == Kind::kPdb) rights.readable.emplace_back(input.pdb);
  if (input.exe != nullptr) rights.readable.emplace_back(input.exe);
  for (const std::string& image : opened.image_candidates()) rights.readable.push_back(image);
  if (options.tree != nullptr) {
    rights.writable.emplace_back(options.tree);
    const std::string debug_file = debug_file_of(opened);
    if (is_tree_component(debug_file)) {
      const std::string folder = std::string(options.tree).append("/").append(debug_file);
      if (is_link(folder)) rights.writable.push_back(folder);
    }
  }
  return rights;
}

void prepare_for_sandbox(const OpenedInput& opened, const ConversionOptions& options) {
  if (opened.kind() == Kind::kPdb) load_demangler();
  if (!options.standard) tzset();
}

}  // namespace symforge_internal
