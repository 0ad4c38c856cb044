// --identify and --check of an untrusted file, alone and against a valid PDB: one line of JSON for
// each, within the cost of a conversion.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "builders/pdb_builder.h"
#include "fuzz/harness.h"
#include "symforge/src/driver/check_file.h"
#include "symforge/src/driver/identify.h"
#include "symforge/src/pe/image_identity.h"
#include "tests/support/memory_file.h"

using namespace symforge_internal;
using fuzzing::require;
using test_support::MemoryFile;

namespace {

// While it exists, standard output is a file.
class StandardOutput {
 public:
  StandardOutput() : saved_(dup(STDOUT_FILENO)) { dup2(file_.fd(), STDOUT_FILENO); }
  ~StandardOutput() {
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
  }
  std::string text() const {
    struct stat status = {};
    fstat(file_.fd(), &status);
    std::string text(static_cast<size_t>(status.st_size), '\0');
    const ssize_t got = pread(file_.fd(), text.data(), text.size(), 0);
    require(got == status.st_size, "readable output");
    return text;
  }

 private:
  const MemoryFile file_;
  const int saved_;
};

bool is_json_line(const std::string& text) {
  const auto is_control = [](char c) { return static_cast<unsigned char>(c) < ' '; };
  return text.starts_with("{\"path\":") && text.ends_with("}\n") &&
         std::count_if(text.begin(), text.end(), is_control) == 1;
}

template <typename Call>
void run(size_t size, Call call) {
  const StandardOutput output;
  int status = -1;
  fuzzing::bounded_conversion(size, [&] {
    status = call();
    return output.text().size();
  });
  require(status == 0 || status == 1, "a documented status");
  require(is_json_line(output.text()), "a line of JSON");
}

}  // namespace

FUZZ_TARGET(file_facts)(const uint8_t* data, size_t size) {
  static const MemoryFile pdb(builders::PdbBuilder(512).build().bytes);
  const MemoryFile file({reinterpret_cast<const char*>(data), size});
  run(size, [&] { return identify_files({file.path()}); });
  run(size, [&] { return check_files({file.path()}, nullptr); });
  run(size, [&] { return check_files({file.path()}, pdb.path()); });

  const FileIdentity identity = identify_file(file.path());
  const std::string place = identity.place_in_tree();
  require(std::count(place.begin(), place.end(), '/') == (place.empty() ? 0 : 2), "a place");
  require(place.find("/../") == place.npos && !place.starts_with("../"), "a place in the tree");
  if (identity.kind != FileKind::kImage) return 0;
  const auto image = pe_debug_id(file.path());
  require(!image || image->debug_id == identity.debug_id, "one identity for both readers");
  return 0;
}
