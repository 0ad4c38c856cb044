#include "embedding/module.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/printable.h"
#include "common/symb.h"
#include "common/symb_block.h"
#include "common/symb_safety.h"
#include "embedding/status.h"
#include "embedding/structure.h"

namespace symforge_internal {

namespace {

using google_breakpad::BadLines;
using google_breakpad::SymbolFile;

symforge_status status_of_errno(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return SYMFORGE_ERROR_NOT_FOUND;
    case ENOMEM:
      return SYMFORGE_ERROR_MEMORY;
    default:
      return SYMFORGE_ERROR_READ;
  }
}

}  // namespace

symforge_status ModuleSymbols::open(const char* path) {
  if (const char* failure = file_.Open(path, SymbolFile::Symb::kMap)) {
    const int error = errno;
    return fail(status_of_errno(error), "%s%s: %s", failure, printable(path).c_str(),
                strerror(error));
  }
  const size_t size = file_.size();
  const std::string name = printable(path);
  if (file_.is_symb()) return take_symb({file_.data(), size}, name.c_str());
  return take_text(file_.TakeArray(), size, name.c_str());
}

symforge_status ModuleSymbols::open_memory(const char* data, size_t size) {
  constexpr const char* kName = "symbol file in memory";
  if (symb_has_magic(data, size)) return take_symb({data, size}, kName);
  std::unique_ptr<char[]> copy(new char[size + 1]);
  if (size > 0) std::memcpy(copy.get(), data, size);
  copy[size] = '\0';
  return take_text(std::move(copy), size, kName);
}

symforge_status ModuleSymbols::take_symb(std::string_view block, const char* name) {
  // The first ensures that strings end with a NUL, and the second that each lookup has a limit.
  if (!symb_validate(reinterpret_cast<uint64_t>(block.data()), block.size()) ||
      !symb_check_safety(block.data(), block.size())) {
    return fail(SYMFORGE_ERROR_FORMAT, "%s: damaged SYMB data", name);
  }
  symb_ = block;
  symbols_.LoadMapFromMemory(const_cast<char*>(block.data()), block.size());  // only read
  symbols_.IndexTables();
  return SYMFORGE_OK;
}

symforge_status ModuleSymbols::take_text(std::unique_ptr<char[]> text, size_t size,
                                         const char* name) {
  if (!read_identity({text.get(), size}, identity_)) {
    return fail(SYMFORGE_ERROR_FORMAT, "%s: neither SYMB data nor a text with a MODULE line", name);
  }
  symbols_.LoadMapFromMemory(text.get(), size + 1);
  return SYMFORGE_OK;
}

symforge_module_info ModuleSymbols::info() const {
  symforge_module_info info = is_symb() ? symb_info() : text_info();
  info.byte_count = byte_count();
  return info;
}

symforge_module_info ModuleSymbols::symb_info() const {
  const auto header = symb_load<symb_header_v1>(symb_.data());
  const auto string = [this](uint64_t offset) { return offset == 0 ? "" : symb_.data() + offset; };
  symforge_module_info info = {};
  info.format = SYMFORGE_FORMAT_SYMB;
  info.operating_system = string(header.os);
  info.architecture = string(header.arch);
  info.debug_file = string(header.debug_file);
  info.debug_identifier = string(header.debug_id);
  info.code_file = string(header.code_file);
  info.code_identifier = string(header.code_id);
  info.function_count = header.function_count;
  return info;
}

symforge_module_info ModuleSymbols::text_info() const {
  symforge_module_info info = {};
  info.format = SYMFORGE_FORMAT_TEXT;
  info.operating_system = identity_.operating_system.c_str();
  info.architecture = identity_.architecture.c_str();
  info.debug_file = identity_.debug_file.c_str();
  info.debug_identifier = identity_.debug_identifier.c_str();
  info.code_file = identity_.code_file.c_str();
  info.code_identifier = identity_.code_identifier.c_str();
  info.function_count = static_cast<uint64_t>(symbols_.Functions().GetCount());
  const BadLines bad = symbols_.FindBadLines();
  info.bad_line_count = bad.count;
  info.first_bad_line = bad.first;
  return info;
}

namespace {

// Makes a module from what `open` opens.
template <typename Open>
symforge_status make_module(symforge_module** module, Open open) {
  return guarded([&] {
    auto opened = std::make_unique<symforge_module>();
    const symforge_status status = open(opened->contents);
    if (status == SYMFORGE_OK) *module = opened.release();
    return status;
  });
}

}  // namespace

}  // namespace symforge_internal

using symforge_internal::fail;
using symforge_internal::make_module;
using symforge_internal::ModuleSymbols;

symforge_status symforge_module_open(const char* path, symforge_module** module) {
  if (module != nullptr) *module = nullptr;
  if (path == nullptr || module == nullptr) {
    return fail(SYMFORGE_ERROR_ARGUMENT, "symforge_module_open: null argument");
  }
  return make_module(module, [&](ModuleSymbols& contents) { return contents.open(path); });
}

symforge_status symforge_module_open_memory(const void* data, size_t size,
                                            symforge_module** module) {
  if (module != nullptr) *module = nullptr;
  if ((data == nullptr && size > 0) || module == nullptr) {
    return fail(SYMFORGE_ERROR_ARGUMENT, "symforge_module_open_memory: null argument");
  }
  return make_module(module, [&](ModuleSymbols& contents) {
    return contents.open_memory(static_cast<const char*>(data), size);
  });
}

void symforge_module_retain(symforge_module* module) {
  if (module != nullptr) module->references.fetch_add(1, std::memory_order_relaxed);
}

void symforge_module_close(symforge_module* module) {
  if (module == nullptr) return;
  if (module->store != nullptr) {
    symforge_internal::close_in_store(module);
  } else if (module->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    delete module;
  }
}

symforge_status symforge_module_get_info(const symforge_module* module,
                                         symforge_module_info* info) {
  if (module == nullptr || !symforge_internal::has_size(info)) {
    return fail(SYMFORGE_ERROR_ARGUMENT,
                "symforge_module_get_info: null argument or wrong size of a structure");
  }
  symforge_internal::store(module->contents.info(), info->size, info);
  return SYMFORGE_OK;
}
