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

// With a null buffer: gives a NUL-terminated text from malloc, or null for a name it cannot read.
using demangle = char* (*)(char* buffer, const char* mangled, int length);

struct Demangler {
  demangle function = nullptr;  // null without the library
  std::string failure;          // why a library that is there did not load
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
    // Not to the stream `stderr`, which can lead to a buffer that is lost at the exit.
    dprintf(STDERR_FILENO, "dlopen: %s\n", demangler().failure.c_str());
    std::exit(1);
  }
  const int length = static_cast<int>(std::strlen(mangled.data));
  char* text = win_undname(nullptr, mangled.data, length);
  if (text != nullptr) mangled = DataPtr<char>(text, true);
}

}  // namespace symforge_internal
