#include "google_breakpad/processor/source_line_resolver_base.h"

#include <cassert>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "base/printable.h"
#include "common/symb_block.h"
#include "common/symb_safety.h"
#include "processor/cfi_frame_info.h"
#include "processor/logging.h"
#include "processor/module_factory.h"
#include "processor/source_line_resolver_base_types.h"
#include "processor/symbol_file.h"

namespace google_breakpad {

using symforge_internal::printable;
using symforge_internal::symb_check_safety;
using symforge_internal::symb_has_magic;

namespace {

void log_failure(const char* what, const std::string& map_file) {
  std::string error_string;
  const int error = ErrnoString(&error_string);
  SYMFORGE_LOG(ERROR) << what << printable(map_file) << ", error " << error << ": " << error_string;
}

}  // namespace

// An array followed by a NUL, or a mapped file.
struct SourceLineResolverBase::Storage {
  SymbolFile file;
  std::unique_ptr<char[]> array;
  char* data = nullptr;
  size_t size = 0;  // of the contents, without the NUL
};

bool SourceLineResolverBase::CompareString::operator()(const std::string& a,
                                                       const std::string& b) const {
  return strcmp(a.c_str(), b.c_str()) < 0;
}

SourceLineResolverBase::SourceLineResolverBase(ModuleFactory* module_factory)
    : modules_(new ModuleMap),
      corrupt_modules_(new ModuleSet),
      memory_buffers_(new MemoryMap),
      module_factory_(module_factory) {}

SourceLineResolverBase::~SourceLineResolverBase() {
  for (const auto& [identifier, module] : *modules_) delete module;
  delete modules_;
  delete corrupt_modules_;
  delete memory_buffers_;
  delete module_factory_;
}

SourceLineResolverBase::Module* SourceLineResolverBase::CreateModule(const std::string& name) {
  return module_factory_->CreateModule(name);
}

bool SourceLineResolverBase::ReadSymbolFile(const std::string& map_file, char** symbol_data,
                                            size_t* symbol_data_size) {
  if (symbol_data == nullptr || symbol_data_size == nullptr) {
    SYMFORGE_LOG(ERROR) << "Could not Read file into Null memory pointer";
    return false;
  }
  *symbol_data = nullptr;
  SymbolFile file;
  if (const char* failure = file.Open(map_file, SymbolFile::Symb::kRead)) {
    log_failure(failure, map_file);
    return false;
  }
  *symbol_data_size = file.size() + 1;
  *symbol_data = file.TakeArray().release();
  return true;
}

// The checks common to all loads.
bool SourceLineResolverBase::MayLoad(const CodeModule* module) const {
  if (module == nullptr) return false;
  if (modules_->find(module->debug_identifier()) == modules_->end()) return true;
  SYMFORGE_LOG(INFO) << "Symbols for module " << printable(module->code_file())
                     << " already loaded";
  return false;
}

// Checks and loads the contents, and keeps them as long as the symbols point into them. SYMB
// symbols always do, whatever the resolver does with text.
bool SourceLineResolverBase::LoadFrom(const CodeModule* module, std::unique_ptr<Storage> storage) {
  const bool is_symb = symb_has_magic(storage->data, storage->size);
  if (is_symb && !symb_check_safety(storage->data, storage->size)) {
    SYMFORGE_LOG(ERROR) << "Unsafe SYMB data for module " << printable(module->code_file())
                        << ": not loaded";
    return false;
  }
  char* const data = storage->data;
  const size_t size = is_symb ? storage->size : storage->size + 1;
  const std::string identifier = module->debug_identifier();
  const bool keep = is_symb || !ShouldDeleteMemoryBufferAfterLoadModule();
  // Kept first: when memory runs out later, a module that is loaded remains valid.
  if (keep) memory_buffers_->insert_or_assign(identifier, std::move(storage));
  if (!LoadModuleUsingMemoryBuffer(module, data, size)) {
    memory_buffers_->erase(identifier);
    return false;
  }
  if (is_symb) modules_->find(identifier)->second->IndexTables();
  return true;
}

bool SourceLineResolverBase::LoadModule(const CodeModule* module, const std::string& map_file) {
  if (!MayLoad(module)) return false;
  SYMFORGE_LOG(INFO) << "Loading symbols for module " << printable(module->code_file()) << " from "
                     << printable(map_file);
  auto storage = std::make_unique<Storage>();
  if (const char* failure = storage->file.Open(map_file, SymbolFile::Symb::kMap)) {
    log_failure(failure, map_file);
    return false;
  }
  storage->data = storage->file.data();
  storage->size = storage->file.size();
  SYMFORGE_LOG(INFO) << "Read symbol file " << printable(map_file) << " succeeded";
  return LoadFrom(module, std::move(storage));
}

bool SourceLineResolverBase::LoadCopy(const CodeModule* module, std::string_view contents) {
  if (!MayLoad(module)) return false;
  auto storage = std::make_unique<Storage>();
  storage->size = contents.size();
  storage->array.reset(new char[contents.size() + 1]);
  storage->data = storage->array.get();
  if (!contents.empty()) std::memcpy(storage->data, contents.data(), contents.size());
  storage->data[contents.size()] = '\0';
  return LoadFrom(module, std::move(storage));
}

bool SourceLineResolverBase::LoadModuleUsingMapBuffer(const CodeModule* module,
                                                      const std::string& map_buffer) {
  return LoadCopy(module, map_buffer);
}

bool SourceLineResolverBase::LoadModuleUsingMapBuffer(const CodeModule* module,
                                                      std::string_view map_buffer) {
  return LoadCopy(module, map_buffer);
}

bool SourceLineResolverBase::LoadModuleUsingMapBuffer(const CodeModule* module,
                                                      const char* map_buffer) {
  return LoadCopy(module, map_buffer);
}

bool SourceLineResolverBase::LoadModuleUsingMemoryBuffer(const CodeModule* module,
                                                         const char* memory_buffer,
                                                         size_t memory_buffer_size) {
  if (symb_has_magic(memory_buffer, memory_buffer_size)) {
    // (SYMB data is not modified)
    return LoadModuleUsingMemoryBuffer(module, const_cast<char*>(memory_buffer),
                                       memory_buffer_size);
  }
  return LoadCopy(module, {memory_buffer, memory_buffer_size});
}

bool SourceLineResolverBase::LoadModuleUsingMemoryBuffer(const CodeModule* module,
                                                         char* memory_buffer,
                                                         size_t memory_buffer_size) {
  if (!MayLoad(module)) return false;
  SYMFORGE_LOG(INFO) << "Loading symbols for module " << printable(module->code_file())
                     << " from memory buffer";
  const std::string identifier = module->debug_identifier();
  std::unique_ptr<Module> symbols(module_factory_->CreateModule(identifier));
  if (!symbols->LoadMapFromMemory(memory_buffer, memory_buffer_size)) {
    SYMFORGE_LOG(ERROR) << "Too many error while parsing symbol data for module "
                        << printable(module->code_file());
    assert(symbols->IsCorrupt());
  }
  if (symbols->IsCorrupt()) corrupt_modules_->insert(identifier);
  modules_->emplace(identifier, symbols.release());
  return true;
}

bool SourceLineResolverBase::ShouldDeleteMemoryBufferAfterLoadModule() { return true; }

void SourceLineResolverBase::UnloadModule(const CodeModule* module) {
  if (module == nullptr) return;
  const std::string identifier = module->debug_identifier();
  const auto loaded = modules_->find(identifier);
  if (loaded != modules_->end()) {
    delete loaded->second;
    corrupt_modules_->erase(identifier);
    modules_->erase(loaded);
  }
  memory_buffers_->erase(identifier);
}

const SourceLineResolverBase::Module* SourceLineResolverBase::FindModule(
    const CodeModule* module) const {
  if (module == nullptr) return nullptr;
  const auto loaded = modules_->find(module->debug_identifier());
  return loaded == modules_->end() ? nullptr : loaded->second;
}

bool SourceLineResolverBase::HasModule(const CodeModule* module) const {
  return FindModule(module) != nullptr;
}

bool SourceLineResolverBase::IsModuleCorrupt(const CodeModule* module) const {
  return module != nullptr &&
         corrupt_modules_->find(module->debug_identifier()) != corrupt_modules_->end();
}

BadLines SourceLineResolverBase::FindBadLines(const CodeModule* module) const {
  const Module* symbols = FindModule(module);
  return symbols == nullptr ? BadLines() : symbols->FindBadLines();
}

void SourceLineResolverBase::FillSourceLineInfo(StackFrame* frame) const {
  if (const Module* module = FindModule(frame->module)) module->LookupAddress(frame);
}

WindowsFrameInfo* SourceLineResolverBase::FindWindowsFrameInfo(const StackFrame* frame) const {
  const Module* module = FindModule(frame->module);
  return module == nullptr ? nullptr : module->FindWindowsFrameInfo(frame);
}

CFIFrameInfo* SourceLineResolverBase::FindCFIFrameInfo(const StackFrame* frame) const {
  const Module* module = FindModule(frame->module);
  return module == nullptr ? nullptr : module->FindCFIFrameInfo(frame);
}

// The functions of the interface, which are not const.
bool SourceLineResolverBase::HasModule(const CodeModule* module) {
  return std::as_const(*this).HasModule(module);
}
bool SourceLineResolverBase::IsModuleCorrupt(const CodeModule* module) {
  return std::as_const(*this).IsModuleCorrupt(module);
}
void SourceLineResolverBase::FillSourceLineInfo(StackFrame* frame) {
  std::as_const(*this).FillSourceLineInfo(frame);
}
WindowsFrameInfo* SourceLineResolverBase::FindWindowsFrameInfo(const StackFrame* frame) {
  return std::as_const(*this).FindWindowsFrameInfo(frame);
}
CFIFrameInfo* SourceLineResolverBase::FindCFIFrameInfo(const StackFrame* frame) {
  return std::as_const(*this).FindCFIFrameInfo(frame);
}

bool SourceLineResolverBase::Module::ParseCFIRuleSet(const std::string& rule_set,
                                                     CFIFrameInfo* frame_info) const {
  CFIFrameInfoParseHandler handler(frame_info);
  return CFIRuleParser(&handler).Parse(rule_set);
}

}  // namespace google_breakpad
