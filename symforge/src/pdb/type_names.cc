#include "symforge/src/pdb/type_names.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <utility>

#include "symforge/src/parallel/worker_pool.h"
#include "symforge/src/pdb/leaf_traits.h"

namespace symforge_internal {

namespace {

// Limits of the cache of argument lists: their number, and the bytes of their texts.
constexpr size_t kMostRemembered = size_t{1} << 17;
constexpr size_t kBlocks = 64;
constexpr size_t kBlockBytes = 64 * 1024;
constexpr size_t kLongestRemembered = kBlockBytes / 16;

// Indices of arrays below this are not types: the array's size follows them.
constexpr uint32_t kFirstArrayIndexType = 0x8000;

using PrimitiveNames = std::array<std::string_view, 256>;

// By the low byte of the index. Empty: unknown.
constexpr PrimitiveNames kPrimitiveNames = [] {
  PrimitiveNames names;
  for (const auto& [number, name] : std::initializer_list<std::pair<int, std::string_view>>{
           {3, "void"},
           {8, "long"},
           {16, "signed char"},
           {17, "short"},
           {18, "long"},
           {19, "__int64"},
           {20, "s128"},
           {32, "unsigned char"},
           {33, "unsigned short"},
           {34, "unsigned long"},
           {35, "unsigned __int64"},
           {36, "u128"},
           {48, "bool"},
           {49, "bool"},
           {50, "bool"},
           {51, "bool"},
           {64, "float"},
           {65, "double"},
           {66, "long double"},
           {67, "f128"},
           {104, "signed char"},
           {105, "unsigned char"},
           {112, "char"},
           {113, "wchar_t"},
           {114, "short"},
           {115, "unsigned short"},
           {116, "int"},
           {117, "unsigned int"},
           {118, "__int64"},
           {119, "unsigned __int64"},
           {120, "s128"},
           {121, "u128"},
       })
    names[number] = name;
  return names;
}();

// The same in the standard format.
constexpr PrimitiveNames kStandardPrimitiveNames = [] {
  PrimitiveNames names = kPrimitiveNames;
  for (const auto& [number, name] : std::initializer_list<std::pair<int, std::string_view>>{
           {20, "__int128"},
           {36, "unsigned __int128"},
           {67, "__float128"},
           {70, "_Float16"},
           {80, "_Complex float"},
           {81, "_Complex double"},
           {82, "_Complex long double"},
           {83, "_Complex __float128"},
           {120, "__int128"},
           {121, "unsigned __int128"},
           {122, "char16_t"},
           {123, "char32_t"},
           {124, "char8_t"},
       })
    names[number] = name;
  return names;
}();

// A pointer of 16 bits to void: what compilers write for it.
constexpr uint32_t kNullPointerType = 0x0103;

void renderStandardPrimitive(uint32_t type, std::string& output) {
  if (type == kNullPointerType) {
    output += "std::nullptr_t";
    return;
  }
  const std::string_view name = kStandardPrimitiveNames[type & 0xFF];
  output += name.empty() ? "<unnamed type>" : name;
  if ((type >> 8 & 6) != 0) output += " *";
}

void renderPrimitive(uint32_t type, std::string& output) {
  const std::string_view name = kPrimitiveNames[type & 0xFF];
  if (name.empty()) {
    output += "!Unknown!";
    return;
  }
  output += name;
  // Two of the three mode bits say pointer; the lowest one is ignored.
  if ((type >> 8 & 6) != 0) output += " *";
}

template <typename Record>
const Record& recordOf(const TypeInfo& info) {
  return *reinterpret_cast<const Record*>(info.data.data);
}

// Rendering is recursive to the depth of the types: functions that need stack space are kept out of
// its frames.
template <typename Number>
[[gnu::noinline]] void appendDecimal(Number number, std::string& output) {
  char digits[24];
  output.append(digits, std::to_chars(digits, digits + sizeof(digits), number).ptr);
}

// The value of a numeric record. If the record is too short, the value continues in the bytes after
// it.
template <typename Number>
Number numberOf(const TypeInfo& info) {
  Number number{};
  std::memcpy(&number, info.data.data, std::min(sizeof(number), info.readable));
  return number;
}

[[gnu::noinline]] void renderReal(double number, std::string& output) {
  char digits[512];
  output.append(digits, static_cast<size_t>(std::snprintf(digits, sizeof(digits), "%f", number)));
}

[[gnu::noinline]] void renderNumber(const TypeInfo& info, std::string& output) {
  switch (info.type) {
    case LEAF::LF_CHAR:
      output += numberOf<char>(info);
      break;
    case LEAF::LF_SHORT:
      appendDecimal(numberOf<int16_t>(info), output);
      break;
    case LEAF::LF_USHORT:
      appendDecimal(numberOf<uint16_t>(info), output);
      break;
    case LEAF::LF_LONG:
      appendDecimal(numberOf<int32_t>(info), output);
      break;
    case LEAF::LF_ULONG:
      appendDecimal(numberOf<uint32_t>(info), output);
      break;
    case LEAF::LF_QUADWORD:
      appendDecimal(numberOf<int64_t>(info), output);
      break;
    case LEAF::LF_UQUADWORD:
      appendDecimal(numberOf<uint64_t>(info), output);
      break;
    case LEAF::LF_REAL32:
      renderReal(double{numberOf<float>(info)}, output);
      break;
    case LEAF::LF_REAL64:
      renderReal(numberOf<double>(info), output);
      break;
    case LEAF::LF_REAL80:
      output += "f80";
      break;
    case LEAF::LF_REAL128:
      output += "f128";
      break;
    default:
      break;  // the other numbers have no text
  }
}

}  // namespace

bool TypeNames::stringizeType(uint32_t type, std::string& output, uint32_t flags, bool info) {
  m_output = &output;
  m_textStart = output.size();
  m_depth = 0;
  m_visits = 0;
  const TypeTable& table = info ? m_ids : m_types;
  FileBudget* const budget = table.budget();
  m_maxText = budget == nullptr ? kMaxText : std::min<uint64_t>(kMaxText, budget->typeText.left());
  const bool isFunction = render(type, flags, table);
  if (budget != nullptr) {
    budget->typeVisits.spend(m_visits);
    budget->typeText.spend(m_output->size() - m_textStart);
  }
  return isFunction;
}

// `table` is searched for the index itself; every record refers to types.
bool TypeNames::render(uint32_t type, uint32_t flags, const TypeTable& table) {
  limitEffort();
  if (type == 0) {
    *m_output += "...";
    return false;
  }
  TypeInfo info;
  if (!table.find(type, info)) {
    if (m_dialect == TypeDialect::kStandard) {
      renderStandardPrimitive(type, *m_output);
    } else {
      renderPrimitive(type, *m_output);
    }
    return false;
  }
  if (++m_depth > kMaxDepth) throw pdb_exception("Types are nested too deeply");
  const bool isFunction = renderRecord(info, flags, table);
  --m_depth;
  return isFunction;
}

// Types that contain others many times can have huge texts.
void TypeNames::limitEffort() {
  if (++m_visits > kMaxVisits || m_output->size() - m_textStart > m_maxText)
    throw pdb_exception("The name of a type is too long");
}

bool TypeNames::renderRecord(const TypeInfo& info, uint32_t flags, const TypeTable& table) {
  const LeafTraits& traits = traitsOf(info.type);
  switch (traits.text) {
    case LeafText::kNone:
      break;
    case LeafText::kName:
      *m_output += info.name.data;
      break;
    case LeafText::kArguments:
      renderArguments(info, flags);
      break;
    case LeafText::kProcedure:
      renderProcedure(info, flags);
      break;
    case LeafText::kMemberFunction:
      renderMemberFunction(info, flags);
      break;
    case LeafText::kModifier:
      renderModifier(info, flags);
      break;
    case LeafText::kPointer:
      renderPointer(info, flags);
      break;
    case LeafText::kIndex:
      render(recordOf<LeafIndex>(info).index, flags, m_types);
      break;
    case LeafText::kArray:
      renderArray(info, table);
      break;
    case LeafText::kFunctionId:
      renderFunctionId(info);
      break;
    case LeafText::kNumber:
      renderNumber(info, *m_output);
      break;
  }
  return traits.isFunction;
}

void TypeNames::renderFunctionId(const TypeInfo& info) {
  *m_output += info.name.data;
  render(recordOf<LeafFuncID>(info).type, 0, m_types);
}

void TypeNames::renderProcedure(const TypeInfo& info, uint32_t flags) {
  const LeafProc& procedure = recordOf<LeafProc>(info);
  if ((flags & IsUnderlying) != 0) {
    render(procedure.rvtype, 0, m_types);
    *m_output += " (*)";
  }
  renderArgumentList(procedure.arglist);
}

void TypeNames::renderMemberFunction(const TypeInfo& info, uint32_t flags) {
  const LeafMFunc& function = recordOf<LeafMFunc>(info);
  if ((flags & IsUnderlying) != 0) {
    render(function.rvtype, 0, m_types);
    *m_output += " (";
    render(function.classtype, 0, m_types);
    *m_output += "::*)";
  }
  renderArgumentList(function.arglist);
}

void TypeNames::renderArguments(const TypeInfo& info, uint32_t flags) {
  const uint32_t count = recordOf<LeafArgList>(info).count;
  // The count's size in bytes has wrapped.
  if (sizeof(LeafArgList) + uint64_t{count} * sizeof(le_uint32) > info.readable)
    throw pdb_exception("Invalid argument list");
  const auto* types = reinterpret_cast<const le_uint32*>(info.data.data + sizeof(LeafArgList));
  *m_output += '(';
  for (uint32_t i = 0; i < count; ++i) {
    if (i != 0) *m_output += ',';
    render(types[i], flags, m_types);
  }
  *m_output += ')';
}

// The attributes are compared as a whole: const with volatile prints nothing.
void TypeNames::renderModifier(const TypeInfo& info, uint32_t flags) {
  const LeafModifier& modifier = recordOf<LeafModifier>(info);
  render(modifier.type, 0, m_types);
  if ((flags & ~uint32_t{IsTopLevel}) != 0) return;
  switch (modifier.attr) {
    case LeafModifier::kConst:
      *m_output += " const";
      break;
    case LeafModifier::kVolatile:
      *m_output += " volatile";
      break;
    case LeafModifier::kUnaligned:
      *m_output += " unaligned";
      break;
    default:
      break;
  }
}

void TypeNames::renderPointer(const TypeInfo& info, uint32_t flags) {
  static constexpr std::string_view kMarkers[] = {" *", " &", "::*", "::", " &&"};
  static_assert(std::size(kMarkers) == LeafPointer::kLastMode + 1);
  const LeafPointer& pointer = recordOf<LeafPointer>(info);
  const bool writtenOut =
      m_dialect == TypeDialect::kStandard && pointer.mode() == LeafPointer::kMemberFunction;
  const uint32_t underlying = writtenOut ? uint32_t{IsUnderlying} : flags & IsUnderlying;
  if (!render(pointer.utype, underlying, m_types)) {
    if (pointer.mode() <= LeafPointer::kLastMode) {
      *m_output += kMarkers[pointer.mode()];
    } else {
      WorkerPool::giveUpOnWorker();
      m_unknownPointers.put("Unknown ptr type encountered\n");
      ++m_warnings;
    }
  }
  if ((pointer.attr & LeafPointer::kConst) != 0) *m_output += " const";
  if ((pointer.attr & LeafPointer::kVolatile) != 0) *m_output += " volatile";
}

// The number in the brackets is the size in bytes, read in its short form.
void TypeNames::renderArray(const TypeInfo& info, const TypeTable& table) {
  const LeafArray& array = recordOf<LeafArray>(info);
  render(array.elemtype, 0, m_types);
  *m_output += '[';
  if (array.idxtype < kFirstArrayIndexType) {
    appendDecimal(table.wordAt(info.offset + sizeof(LeafArray)), *m_output);
  } else {
    render(array.idxtype, 0, m_types);
  }
  *m_output += ']';
}

void TypeNames::renderArgumentList(uint32_t type) {
  if (const std::string_view* text = m_remembered.find(type)) {
    *m_output += *text;
    return;
  }
  const size_t start = m_output->size();
  const uint64_t warnings = m_warnings;
  render(type, 0, m_types);
  if (m_warnings == warnings) remember(type, std::string_view(*m_output).substr(start));
}

void TypeNames::remember(uint32_t type, std::string_view text) {
  if (text.size() > kLongestRemembered || m_remembered.values().size() == kMostRemembered) return;
  if (m_blocks.empty() || kBlockBytes - m_blockUsed < text.size()) {
    if (m_blocks.size() == kBlocks) return;
    m_blocks.push_back(std::make_unique_for_overwrite<char[]>(kBlockBytes));
    m_blockUsed = 0;
  }
  char* copy = m_blocks.back().get() + m_blockUsed;
  std::memcpy(copy, text.data(), text.size());
  m_blockUsed += text.size();
  m_remembered.insert(type, {copy, text.size()});
}

}  // namespace symforge_internal
