#include "google_breakpad/processor/source_line_resolver_base.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include "base/file_io.h"
#include "base/huge_page_block.h"
#include "base/printable.h"
#include "common/symb.h"
#include "common/symb_block.h"
#include "common/symb_safety.h"
#include "processor/cfi_frame_info.h"
#include "processor/logging.h"
#include "processor/module_factory.h"
#include "processor/source_line_resolver_base_types.h"

namespace google_breakpad {

using symforge_internal::FileDescriptor;
using symforge_internal::prefer_huge_pages;
using symforge_internal::printable;
using symforge_internal::symb_check_safety;
using symforge_internal::symb_has_magic;

namespace {

constexpr off_t kFileSizeLimit = off_t{1} << 31;

void log_failure(const char* what, const std::string& map_file) {
  std::string error_string;
  const int error = ErrnoString(&error_string);
  SYMFORGE_LOG(ERROR) << what << printable(map_file) << ", error " << error << ": " << error_string;
}

// The size of a regular file that can be loaded. For any other logs a line and returns nullopt:
// opening a FIFO or a device could block or have side effects.
std::optional<size_t> size_to_read(const std::string& map_file) {
  struct stat status;
  if (stat(map_file.c_str(), &status) == -1) {
    log_failure("Could not open ", map_file);
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    log_failure("Could not open ", map_file);
    return std::nullopt;
  }
  if (status.st_size >= kFileSizeLimit) {
    errno = EFBIG;
    log_failure("Could not slurp ", map_file);
    return std::nullopt;
  }
  return static_cast<size_t>(status.st_size);
}

bool is_regular(int fd) {
  struct stat status;
  if (fstat(fd, &status) == -1) return false;
  errno = EINVAL;
  return S_ISREG(status.st_mode);
}

bool read_exactly(int fd, char* to, size_t size) {
  while (size > 0) {
    const ssize_t got = read(fd, to, size);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    to += got;
    size -= static_cast<size_t>(got);
  }
  return true;
}

}  // namespace

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
  for (const auto& [identifier, buffer] : *memory_buffers_) delete[] buffer;
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
  const std::optional<size_t> file_size = size_to_read(map_file);
  if (!file_size) return false;
  *symbol_data_size = *file_size + 1;
  SYMFORGE_LOG(INFO) << "Opening " << printable(map_file);
  // The file may have been replaced since the check: do not block on what replaced it.
  const FileDescriptor file(open(map_file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.is_open() || !is_regular(file.get())) {
    log_failure("Could not open ", map_file);
    return false;
  }
  std::unique_ptr<char[]> data(new char[*file_size + 1]);
  prefer_huge_pages(data.get(), *file_size + 1);
  if (!read_exactly(file.get(), data.get(), *file_size)) {
    log_failure("Could not slurp ", map_file);
    return false;
  }
  data[*file_size] = '\0';
  symb_touch(file.get());
  *symbol_data = data.release();
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

// Loads from a buffer of `size` bytes allocated by new[], including a NUL after the contents, and
// keeps or deletes it. SYMB symbols point into the buffer, so it is always kept for them, whatever
// the resolver does with text.
bool SourceLineResolverBase::LoadOwnedBuffer(const CodeModule* module, char* buffer, size_t size) {
  std::unique_ptr<char[]> owned(buffer);
  const bool is_symb = symb_has_magic(buffer, size);
  if (is_symb && !symb_check_safety(buffer, size - 1)) {
    SYMFORGE_LOG(ERROR) << "Unsafe SYMB data for module " << printable(module->code_file())
                        << ": not loaded";
    return false;
  }
  const bool loaded = LoadModuleUsingMemoryBuffer(module, buffer, size);
  if (loaded && is_symb) modules_->find(module->debug_identifier())->second->IndexTables();
  if (loaded && (is_symb || !ShouldDeleteMemoryBufferAfterLoadModule())) {
    memory_buffers_->emplace(module->debug_identifier(), owned.release());
  }
  return loaded;
}

bool SourceLineResolverBase::LoadModule(const CodeModule* module, const std::string& map_file) {
  if (!MayLoad(module)) return false;
  SYMFORGE_LOG(INFO) << "Loading symbols for module " << printable(module->code_file()) << " from "
                     << printable(map_file);
  char* buffer = nullptr;
  size_t size = 0;
  if (!ReadSymbolFile(map_file, &buffer, &size)) return false;
  SYMFORGE_LOG(INFO) << "Read symbol file " << printable(map_file) << " succeeded";
  return LoadOwnedBuffer(module, buffer, size);
}

bool SourceLineResolverBase::LoadModuleUsingMapBuffer(const CodeModule* module,
                                                      const std::string& map_buffer) {
  if (!MayLoad(module)) return false;
  char* buffer = new char[map_buffer.size() + 1];
  std::memcpy(buffer, map_buffer.c_str(), map_buffer.size() + 1);
  return LoadOwnedBuffer(module, buffer, map_buffer.size() + 1);
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
  const auto buffer = memory_buffers_->find(identifier);
  if (buffer != memory_buffers_->end()) {
    delete[] buffer->second;
    memory_buffers_->erase(buffer);
  }
}

bool SourceLineResolverBase::HasModule(const CodeModule* module) {
  return module != nullptr && modules_->find(module->debug_identifier()) != modules_->end();
}

bool SourceLineResolverBase::IsModuleCorrupt(const CodeModule* module) {
  return module != nullptr &&
         corrupt_modules_->find(module->debug_identifier()) != corrupt_modules_->end();
}

SourceLineResolverBase::Module* SourceLineResolverBase::ModuleOf(const StackFrame* frame) const {
  if (frame->module == nullptr) return nullptr;
  const auto loaded = modules_->find(frame->module->debug_identifier());
  return loaded == modules_->end() ? nullptr : loaded->second;
}

void SourceLineResolverBase::FillSourceLineInfo(StackFrame* frame) {
  if (const Module* module = ModuleOf(frame)) module->LookupAddress(frame);
}

WindowsFrameInfo* SourceLineResolverBase::FindWindowsFrameInfo(const StackFrame* frame) {
  const Module* module = ModuleOf(frame);
  return module == nullptr ? nullptr : module->FindWindowsFrameInfo(frame);
}

CFIFrameInfo* SourceLineResolverBase::FindCFIFrameInfo(const StackFrame* frame) {
  const Module* module = ModuleOf(frame);
  return module == nullptr ? nullptr : module->FindCFIFrameInfo(frame);
}

bool SourceLineResolverBase::Module::ParseCFIRuleSet(const std::string& rule_set,
                                                     CFIFrameInfo* frame_info) const {
  CFIFrameInfoParseHandler handler(frame_info);
  return CFIRuleParser(&handler).Parse(rule_set);
}

}  // namespace google_breakpad
