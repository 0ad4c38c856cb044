#include "symforge/src/pdb/undname.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace symforge_internal {

namespace {

constexpr char wine_undname_file[] = "/opt/tamarisk/lib/libwine-undname.so";

// With a null buffer: returns a NUL-terminated text from malloc, or null for a name that it cannot
// decode.
using demangle = char* (*)(char* buffer, const char* mangled, int length);

struct Demangler {
  demangle function = nullptr;  // null without the library
  std::string failure;          // why an existing library did not load
};

// The library stays open for the rest of the process.
Demangler openDemangler() {
  Demangler demangler;
  if (access(wine_undname_file, R_OK) != 0) return demangler;
  if (void* library = dlopen(wine_undname_file, RTLD_LAZY)) {
    demangler.function = reinterpret_cast<demangle>(dlsym(library, "win_undname"));
  } else {
    demangler.failure = dlerror();
  }
  return demangler;
}

const Demangler& demangler() {
  static const Demangler opened = openDemangler();
  return opened;
}

}  // namespace

void load_demangler() { demangler(); }

void undname(DataPtr<char>& mangled) {
  static const demangle win_undname = demangler().function;
  if (win_undname == nullptr) {
    if (demangler().failure.empty()) return;
    // Not through the stream `stderr`, which can be a buffer that is lost at exit.
    dprintf(STDERR_FILENO, "dlopen: %s\n", demangler().failure.c_str());
    std::exit(1);
  }
  const int length = static_cast<int>(std::strlen(mangled.data));
  char* text = win_undname(nullptr, mangled.data, length);
  if (text != nullptr) mangled = DataPtr<char>(text, true);
}

}  // namespace symforge_internal
