#include "symforge/src/pdb/undname.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace symforge_internal {

namespace {

constexpr char wine_undname_file[] = "/opt/tamarisk/lib/libwine-undname.so";

// With a null buffer: gives a NUL-terminated text from malloc, or null for a name it cannot read.
using demangle = char* (*)(char* buffer, const char* mangled, int length);

// Null without the library. The library stays open for the rest of the process.
demangle loadDemangler() {
  if (access(wine_undname_file, R_OK) != 0) return nullptr;
  void* library = dlopen(wine_undname_file, RTLD_LAZY);
  if (library == nullptr) {
    std::fprintf(stderr, "dlopen: %s\n", dlerror());
    std::exit(1);
  }
  return reinterpret_cast<demangle>(dlsym(library, "win_undname"));
}

}  // namespace

void undname(DataPtr<char>& mangled) {
  static const demangle win_undname = loadDemangler();
  if (win_undname == nullptr) return;
  const int length = static_cast<int>(std::strlen(mangled.data));
  char* text = win_undname(nullptr, mangled.data, length);
  if (text != nullptr) mangled = DataPtr<char>(text, true);
}

}  // namespace symforge_internal
