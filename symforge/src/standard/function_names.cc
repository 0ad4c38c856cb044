#include "symforge/src/standard/function_names.h"

#include "symforge/src/emit/erase_marker.h"

namespace symforge_internal {

namespace {

// Strings of ids can be made of others, which compilers do not nest.
constexpr uint32_t kMaxStringDepth = 4;
constexpr uint32_t kMaxStringParts = 4096;  // of one name

template <typename Record>
const Record& recordOf(const TypeInfo& info) {
  return *reinterpret_cast<const Record*>(info.data.data);
}

}  // namespace

// Brackets of template arguments nest, and what is between the quotation marks of the compiler's
// own names (`...') is one component.
std::string_view lastNameComponent(std::string_view name) {
  size_t start = 0;
  size_t nesting = 0;
  for (size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    if (c == '<' || c == '`') ++nesting;
    if ((c == '>' || c == '\'') && nesting != 0) --nesting;
    if (c == ':' && nesting == 0 && i + 1 < name.size() && name[i + 1] == ':') start = ++i + 1;
  }
  return name.substr(start);
}

void FunctionNames::appendFunction(std::string_view name, uint32_t type, std::string& output) {
  const size_t start = output.size();
  output += name;
  if (type == 0) return;
  if (hasCompilerMarker(name)) {
    eraseFromTheEnd(output, start, " __ptr64");
    eraseFromTheEnd(output, start, "__cdecl");
  }
  appendType(type, output);
}

bool FunctionNames::appendInlinee(uint32_t inlinee, std::string& output) {
  TypeInfo info;
  if (!m_ids.isFunction(inlinee) || !m_ids.find(inlinee, info)) return false;
  if (info.name.data == nullptr || *info.name.data == '\0') return false;
  if (info.type == LEAF::LF_FUNC_ID) {
    appendFunctionId(info, output);
  } else {
    appendMemberFunctionId(info, output);
  }
  return true;
}

void FunctionNames::appendFunctionId(const TypeInfo& info, std::string& output) {
  const auto& id = recordOf<LeafFuncID>(info);
  appendScope(id.scope_id, output);
  appendText(info.name.data, output);
  appendType(id.type, output);
}

// Compilers call constructors and destructors by words of their own here, while symbols have the
// name of the class.
void FunctionNames::appendMemberFunctionId(const TypeInfo& info, std::string& output) {
  const auto& id = recordOf<LeafMFuncID>(info);
  const std::string_view name = info.name.data;
  const size_t start = output.size();
  appendType(id.classtype, output);
  const std::string className(lastNameComponent(std::string_view(output).substr(start)));
  output += "::";
  if (name == "{ctor}") {
    output += className;
  } else if (name == "{dtor}") {
    output.append("~").append(className);
  } else {
    appendText(info.name.data, output);
  }
  appendType(id.type, output);
}

void FunctionNames::appendScope(uint32_t scope, std::string& output) {
  if (scope == 0) return;
  const size_t start = output.size();
  m_stringParts = 0;
  appendString(scope, output, 0);
  if (output.size() != start) output += "::";
}

void FunctionNames::appendString(uint32_t id, std::string& output, uint32_t depth) {
  TypeInfo info;
  if (depth > kMaxStringDepth || ++m_stringParts > kMaxStringParts) return;
  if (!m_ids.find(id, info)) return;
  if (info.type == LEAF::LF_STRING_ID) {
    const uint32_t substrings = recordOf<LeafStringID>(info).substrings;
    if (substrings != 0) appendString(substrings, output, depth + 1);
    appendText(info.name.data, output);
  } else if (info.type == LEAF::LF_SUBSTR_LIST) {
    const uint32_t count = recordOf<LeafArgList>(info).count;
    if (sizeof(LeafArgList) + uint64_t{count} * sizeof(le_uint32) > info.readable) return;
    const auto* ids = reinterpret_cast<const le_uint32*>(info.data.data + sizeof(LeafArgList));
    for (uint32_t i = 0; i < count && m_stringParts <= kMaxStringParts; ++i) {
      appendString(ids[i], output, depth + 1);
    }
  }
}

// Names can share one long text.
void FunctionNames::appendText(const char* text, std::string& output) {
  const std::string_view name = text;
  if (FileBudget* const budget = m_ids.budget()) budget->typeText.spend(name.size());
  output += name;
}

void FunctionNames::appendType(uint32_t type, std::string& output) {
  m_typeNames.stringizeType(type, output, TypeNames::IsTopLevel, false);
}

}  // namespace symforge_internal
