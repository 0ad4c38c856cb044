#include "symforge/src/driver/write_result.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "base/file_io.h"
#include "base/printable.h"
#include "common/symb_text.h"
#include "symforge/src/driver/convert.h"
#include "symforge/src/driver/messages.h"

namespace symforge_internal {

namespace {

// The output of a conversion: the text, or the SYMB image made of it, if one can be made.
struct Output {
  std::array<std::string_view, 2> pieces;  // one after the other
  TextBuffer text;                         // these own them
  TextBuffer unwind_rules;
  std::unique_ptr<char[]> image;
  bool complete = true;  // false: no image could be made, the output is empty

  uint64_t size() const { return pieces[0].size() + pieces[1].size(); }
};

Output make_output(SymbolText result, bool binary) {
  Output output;
  if (!binary) {
    output.text = std::move(result.text);
    output.unwind_rules = std::move(result.unwind_rules);
    output.pieces = {output.text.view(), output.unwind_rules.view()};
    return output;
  }
  result.text.append(result.unwind_rules.view());
  result.unwind_rules = TextBuffer();
  char* image = nullptr;
  size_t size = 0;
  output.complete = symb_write(std::move(result.text), &image, &size);
  if (output.complete) {
    output.image.reset(image);
    output.pieces[0] = {image, size};
  }
  return output;
}

bool write_to_stdout(std::span<const std::string_view> pieces) {
  const auto write = [](std::string_view piece) { return write_file(STDOUT_FILENO, piece); };
  if (std::all_of(pieces.begin(), pieces.end(), write)) return true;
  report_errno("failed to write");
  return false;
}

bool make_folders(const sym_info& info, const ConversionOptions& options) {
  constexpr mode_t kDefaultMode = 0700;
  constexpr mode_t kStandardMode = 0777;
  const mode_t mode = options.standard ? kStandardMode : kDefaultMode;
  if (make_tree_folders(options.tree, info.debug_file, info.debug_id, mode) == TreeFolders::kMade) {
    return true;
  }
  const int error = errno;
  const std::string path = printable(info.debug_file + "/" + info.debug_id);
  if (options.standard) {
    report("failed to create symbol file path: %s: %s", path.c_str(), strerror(error));
  } else {
    report("failed to create symbol file path: %s", path.c_str());
  }
  return false;
}

bool replace_target(const std::string& target, const Output& output,
                    const ConversionOptions& options) {
  constexpr mode_t kDefaultMode = 0600;
  constexpr mode_t kStandardMode = 0666;
  const ReplaceOptions how = {.mode = options.standard ? kStandardMode : kDefaultMode,
                              .sync = options.sync};
  if (const char* failed = replace_file(target, output.pieces, how)) {
    report_errno(failed);
    return false;
  }
  return true;
}

// In standard mode an existing link with the right target counts as made.
bool link_code_id(const sym_info& info, const ConversionOptions& options) {
  if (pdb_create_codeid_link(info, options.tree)) return true;
  if (!options.standard) return false;
  const int error = errno;
  const std::string link = code_id_link(info, options.tree);
  if (link_target(link) == info.debug_id) return true;
  report("failed to link %s: %s", printable(link).c_str(), strerror(error));
  return false;
}

// Syncs the folders above the target, and the link of the code identifier. All at the end: file
// systems with a journal then write them together.
bool sync_folders(const sym_info& info, const ConversionOptions& options) {
  const std::string root = options.tree;
  const std::string folder = root + "/" + info.debug_file;
  if (sync_folder(folder + "/" + info.debug_id) && sync_folder(folder) && sync_folder(root)) {
    return true;
  }
  report_errno("failed to sync");
  return false;
}

}  // namespace

std::string code_id_link(const sym_info& info, std::string_view tree) {
  const bool due = !info.code_id.empty() && (string_ends_with(info.code_file, ".exe") ||
                                             string_ends_with(info.code_file, ".dll"));
  if (!due) return {};
  return std::string(tree).append("/").append(info.debug_file).append("/").append(info.code_id);
}

bool write_result(SymbolText result, const ConversionOptions& options, WrittenResult* written) {
  sym_info info;
  if (result.identity) info = *std::move(result.identity);
  const bool known = result.identity ? !info.debug_id.empty() && !info.debug_file.empty()
                                     : sym_info_parse(result.text.c_str(), info);
  if (!known) {
    report(options.standard ? "the text has no complete MODULE line"
                            : "failed to extrace debug id from data");
    return false;
  }
  if (options.tree == nullptr) {
    const Output output = make_output(std::move(result), options.binary);
    if (!output.complete && options.standard) report("no SYMB image can be made of the text");
    if (!write_to_stdout(output.pieces)) return false;
    if (written != nullptr) *written = {"-", output.size(), std::move(info)};
    return output.complete;
  }

  if (!make_folders(info, options)) return false;
  // Make the output before the temporary file, which would remain if the image writer ended the
  // process.
  const Output output = make_output(std::move(result), options.binary);
  if (!output.complete && options.standard) {
    report("no SYMB image can be made of the text");
    return false;
  }
  const std::string target =
      tree_path(options.tree, info.debug_file, info.debug_id, options.binary);
  if (!replace_target(target, output, options)) return false;
  if (written != nullptr) *written = {target, output.size(), info};
  const bool linked = output.complete && link_code_id(info, options);
  const bool synced = !options.sync || sync_folders(info, options);
  return linked && synced;
}

}  // namespace symforge_internal
