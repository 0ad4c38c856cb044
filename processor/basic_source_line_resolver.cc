#include "google_breakpad/processor/basic_source_line_resolver.h"

#include <cstring>

#include "processor/basic_source_line_resolver_module.h"
#include "processor/module_factory.h"
#include "processor/text_module_loader.h"

namespace google_breakpad {

BasicSourceLineResolver::BasicSourceLineResolver()
    : SourceLineResolverBase(new BasicModuleFactory) {}

BasicSourceLineResolver::~BasicSourceLineResolver() = default;

SourceLineResolverBase::Module* BasicModuleFactory::CreateModule(const std::string& name) const {
  return new BasicSourceLineResolver::Module(name);
}

bool BasicSourceLineResolver::Module::LoadMapFromMemory(char* memory_buffer,
                                                        size_t memory_buffer_size) {
  // The magic decides whatever the size says: hosts rely on it.
  if (memory_buffer != nullptr && strncmp(memory_buffer, "SYMB", 4) == 0) {
    return LoadMapFromMemoryB(memory_buffer, memory_buffer_size);
  }
  TextModuleLoader(this).Load(memory_buffer, memory_buffer_size);
  return true;
}

void BasicSourceLineResolver::Module::LoadTextInPlace(char* text, size_t size) {
  using Loader = TextModuleLoader;
  Loader(this, Loader::Readers::kQuickAndExact, TextStore::Place::kText).Load(text, size);
}

}  // namespace google_breakpad
