#include "google_breakpad/processor/basic_source_line_resolver.h"

#include "common/symb_block.h"
#include "processor/basic_source_line_resolver_module.h"
#include "processor/module_factory.h"
#include "processor/text_module_loader.h"

namespace google_breakpad {

using symforge_internal::symb_has_magic;

BasicSourceLineResolver::BasicSourceLineResolver()
    : SourceLineResolverBase(new BasicModuleFactory) {}

BasicSourceLineResolver::~BasicSourceLineResolver() = default;

SourceLineResolverBase::Module* BasicModuleFactory::CreateModule(const std::string& name) const {
  return new BasicSourceLineResolver::Module(name);
}

bool BasicSourceLineResolver::Module::LoadMapFromMemory(char* memory_buffer,
                                                        size_t memory_buffer_size) {
  return Load(memory_buffer, memory_buffer_size, StringStorage::Place::kArena);
}

bool BasicSourceLineResolver::Module::LoadMapInPlace(char* memory_buffer,
                                                     size_t memory_buffer_size) {
  return Load(memory_buffer, memory_buffer_size, StringStorage::Place::kText);
}

bool BasicSourceLineResolver::Module::Load(char* buffer, size_t size,
                                           StringStorage::Place strings) {
  if (buffer != nullptr && symb_has_magic(buffer, size)) return LoadMapFromMemoryB(buffer, size);
  TextModuleLoader(this, TextModuleLoader::Readers::kQuickAndExact, strings).Load(buffer, size);
  return true;
}

}  // namespace google_breakpad
