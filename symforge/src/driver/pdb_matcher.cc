#include "symforge/src/driver/pdb_matcher.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string_view>
#include <vector>

#include "base/file_io.h"
#include "base/text_buffer.h"
#include "symforge/src/PDBParser.h"
#include "symforge/src/pe/pe_image.h"

namespace symforge_internal {

namespace {

using Paths = std::vector<std::string>;

std::string read_id(const std::string& pdb) {
  std::string id;
  if (!pdb_debug_id(pdb.c_str(), id)) id.clear();
  return id;
}

// The child: writes one line per PDB, its identifier or nothing, until it is through or a PDB ends
// it. What the reader of a PDB says goes nowhere: the file's own conversion says it again.
[[noreturn]] void report_ids(const Paths& pdbs, size_t first, int to) {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null != -1) dup2(null, STDERR_FILENO);
  for (size_t i = first; i < pdbs.size(); ++i) {
    if (!write_file(to, read_id(pdbs[i]).append("\n"))) break;
  }
  _exit(0);
}

// Reads the identifiers of pdbs[first...] in a child process, appending to `ids` as many as the
// child came to report. False when no child could be had.
bool read_ids_in_child(const Paths& pdbs, size_t first, std::vector<std::string>& ids) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  FileDescriptor from(ends[0]);
  FileDescriptor to(ends[1]);
  const pid_t pid = fork();
  if (pid == -1) return false;
  if (pid == 0) report_ids(pdbs, first, to.get());

  to.close();
  TextBuffer report;
  read_file(from.get(), report);
  waitpid(pid, nullptr, 0);

  std::string_view lines = report.view();
  for (size_t end; (end = lines.find('\n')) != std::string_view::npos;) {
    ids.emplace_back(lines.substr(0, end));
    lines.remove_prefix(end + 1);
  }
  return true;
}

// The identifier of each PDB; empty where there is none.
std::vector<std::string> read_all_ids(const Paths& pdbs) {
  std::vector<std::string> ids;
  ids.reserve(pdbs.size());
  while (ids.size() < pdbs.size()) {
    if (!read_ids_in_child(pdbs, ids.size(), ids)) {
      ids.push_back(read_id(pdbs[ids.size()]));  // at our own risk: wrong pairs would be worse
    } else if (ids.size() < pdbs.size()) {
      ids.emplace_back();  // the PDB that ended the child before the list was through
    }
  }
  return ids;
}

}  // namespace

void PdbMatcher::read_ids() {
  read_ = true;
  const Paths pdbs(pdbs_.begin(), pdbs_.end());
  const std::vector<std::string> ids = read_all_ids(pdbs);
  for (size_t i = 0; i < pdbs.size(); ++i) {
    if (!ids[i].empty()) paths_.emplace(ids[i], pdbs[i]);
  }
}

bool PdbMatcher::exe_pdb_match(const std::string& exe, std::string& pdb) {
  std::string id;
  std::string linked_pdb_name;  // not looked at: files may have been renamed
  if (pdbs_.empty() || !pe64_debug_id(exe.c_str(), id, linked_pdb_name)) {
    return false;
  }
  if (!read_) read_ids();
  const auto first = paths_.lower_bound(id);
  if (first == paths_.end() || first->first != id) return false;
  pdb = first->second;
  paths_.erase(first);
  return true;
}

}  // namespace symforge_internal
