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

size_t BasicSourceLineResolver::Module::ByteCount() const {
  size_t bytes = arena_.byte_count() + files_.byte_count() + functions_.GetMap().byte_count() +
                 public_symbols_.Map().byte_count() + cfi_initial_rules_.GetMap().byte_count() +
                 cfi_delta_rules_.byte_count();
  for (const StackWinMap& ranges : windows_frame_info_) bytes += ranges.byte_count();
  return bytes;
}

bool BasicSourceLineResolver::Module::Load(char* buffer, size_t size,
                                           StringStorage::Place strings) {
  if (buffer != nullptr && symb_has_magic(buffer, size)) return LoadMapFromMemoryB(buffer, size);
  TextModuleLoader(this, TextModuleLoader::Readers::kQuickAndExact, strings).Load(buffer, size);
  return true;
}

}  // namespace google_breakpad
