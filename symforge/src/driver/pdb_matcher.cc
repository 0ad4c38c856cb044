#include "symforge/src/driver/pdb_matcher.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "base/file_io.h"
#include "base/text_buffer.h"
#include "symforge/src/PDBParser.h"
#include "symforge/src/driver/child_process.h"
#include "symforge/src/driver/sandbox.h"
#include "symforge/src/pe/image_identity.h"
#include "symforge/src/pe/pe_image.h"

namespace symforge_internal {

namespace {

using Paths = std::vector<std::string>;

std::string read_id(const std::string& pdb) {
  std::string id;
  if (!pdb_debug_id(pdb.c_str(), id)) id.clear();
  return id;
}

// In the child: writes one line per PDB, its identifier or nothing, until all are done or a PDB
// ends the process. Warnings are discarded: the PDB's conversion repeats them.
[[noreturn]] void report_ids(const Paths& pdbs, size_t first, int to, bool sandbox) {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null != -1) dup2(null, STDERR_FILENO);
  // The walk of a batch follows links, so any file can be an input.
  if (sandbox) enter_sandbox({.readable = {"/"}, .writable = {}});
  for (size_t i = first; i < pdbs.size(); ++i) {
    if (!write_file(to, read_id(pdbs[i]).append("\n"))) break;
  }
  _exit(0);
}

// Reads the identifiers of pdbs[first...] in a child process, and appends to `ids` as many as the
// child reported. False if there is no child.
bool read_ids_in_child(const Paths& pdbs, size_t first, bool sandbox,
                       std::vector<std::string>& ids) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  FileDescriptor from(ends[0]);
  FileDescriptor to(ends[1]);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == -1) return false;
  if (pid == 0) {
    end_with_parent(parent, SIGKILL);
    report_ids(pdbs, first, to.get(), sandbox);
  }

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
std::vector<std::string> read_all_ids(const Paths& pdbs, bool sandbox) {
  std::vector<std::string> ids;
  ids.reserve(pdbs.size());
  while (ids.size() < pdbs.size()) {
    if (!read_ids_in_child(pdbs, ids.size(), sandbox, ids)) {
      ids.push_back(read_id(pdbs[ids.size()]));  // fork failed: read it here rather than mispair
    } else if (ids.size() < pdbs.size()) {
      ids.emplace_back();  // the PDB that ended the child
    }
  }
  return ids;
}

bool read_image_id(const std::string& exe, bool any_width, std::string& id) {
  if (any_width) {
    std::optional<ImageIdentity> identity = pe_debug_id(exe.c_str());
    if (identity) id = std::move(identity->debug_id);
    return identity.has_value();
  }
  std::string linked_pdb_name;  // unused: files can have been renamed
  return pe64_debug_id(exe.c_str(), id, linked_pdb_name);
}

}  // namespace

void PdbMatcher::read_ids() {
  read_ = true;
  const Paths pdbs(pdbs_.rbegin(), pdbs_.rend());
  const std::vector<std::string> ids = read_all_ids(pdbs, sandbox_);
  for (size_t i = 0; i < pdbs.size(); ++i) {
    if (ids[i].empty()) continue;
    ids_[pdbs[i]] = ids[i];
    paths_[ids[i]].push_back(pdbs[i]);
  }
}

std::string PdbMatcher::id_of(const std::string& pdb) {
  if (!read_) read_ids();
  const auto found = ids_.find(pdb);
  return found == ids_.end() ? std::string() : found->second;
}

PdbMatcher::Match PdbMatcher::exe_pdb_match(const std::string& exe, std::string& pdb) {
  std::string id;
  const bool no_pdbs = !read_ && pdbs_.empty();
  if (no_pdbs || !read_image_id(exe, any_width_, id)) return Match::kNone;
  if (!read_) read_ids();
  const auto found = paths_.find(id);
  if (found == paths_.end()) return Match::kNone;
  Paths& left = found->second;
  if (left.empty()) return Match::kTaken;
  pdb = std::move(left.back());
  left.pop_back();
  return Match::kFound;
}

}  // namespace symforge_internal
