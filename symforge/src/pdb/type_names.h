// TypeNames: types as text, in the compact form that the symbol file shows: "(int,char const *)"
// for a function, the name for a class.
//
// It is not a full C++ declarator: a function's result is not shown, and a pointer to a function
// shows as the function's argument list.

#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/first_wins_map.h"
#include "base/warning_limit.h"
#include "symforge/src/pdb/type_table.h"

namespace symforge_internal {

class TypeNames {
 public:
  enum Flags : uint32_t {
    // A function shows its result and a "(*)" in front of its parameters, and modifiers are left
    // out. The symbol file has no use for it.
    IsUnderlying = 1,
    // The text is not part of another one. It changes nothing.
    IsTopLevel = 2,
  };

  // `types` and `ids` must outlive this; they may be loaded later.
  // kStandard names the types that the default format has no name for, and writes pointers to
  // member functions out.
  TypeNames(const TypeTable& types, const TypeTable& ids,
            TypeDialect dialect = TypeDialect::kDefault)
      : m_types(types), m_ids(ids), m_dialect(dialect) {}
  TypeNames(const TypeNames&) = delete;
  TypeNames& operator=(const TypeNames&) = delete;

  // Appends the text of `type` to `output`; `flags` are Flags, `info` selects the id records. True
  // when what was rendered is a function type. A pointer of an unknown kind is reported to standard
  // error each time that it is rendered, within the limit of warnings.
  //
  // Throws pdb_exception for types that contain themselves, for more than kMaxDepth nested records,
  // and for a text out of all proportion; LimitExceeded when the texts of the whole file are.
  bool stringizeType(uint32_t type, std::string& output, uint32_t flags, bool info);

  // Whether some text of these records would be reported to standard error. While it is false,
  // isFunctionId() gives the result of stringizeType() for an id without rendering it.
  bool mayWarn() const { return m_types.hasUnknownPointers() || m_ids.hasUnknownPointers(); }
  bool isFunctionId(uint32_t id) const { return m_ids.isFunction(id); }

  // See TypeTable: prefetch what the text of a type record needs.
  void prefetchIndex(uint32_t type) const { m_types.prefetchIndex(type); }
  void prefetchRecord(uint32_t type) const { m_types.prefetchRecord(type); }

  // Far beyond what compilers write, and within the stack also where sanitizers widen every frame.
  static constexpr uint32_t kMaxDepth = 2048;
  static constexpr size_t kMaxText = size_t{1} << 26;        // bytes of one text
  static constexpr uint32_t kMaxVisits = uint32_t{1} << 22;  // types visited for one text

 private:
  bool render(uint32_t type, uint32_t flags, const TypeTable& table);
  bool renderRecord(const TypeInfo& info, uint32_t flags, const TypeTable& table);
  void renderModifier(const TypeInfo& info, uint32_t flags);
  void renderPointer(const TypeInfo& info, uint32_t flags);
  void renderProcedure(const TypeInfo& info, uint32_t flags);
  void renderMemberFunction(const TypeInfo& info, uint32_t flags);
  void renderFunctionId(const TypeInfo& info);
  void renderArguments(const TypeInfo& info, uint32_t flags);
  void renderArray(const TypeInfo& info, const TypeTable& table);
  void renderArgumentList(uint32_t type);
  void remember(uint32_t type, std::string_view text);
  void limitEffort();

  const TypeTable& m_types;
  const TypeTable& m_ids;
  const TypeDialect m_dialect;

  // The text under way.
  std::string* m_output = nullptr;
  size_t m_textStart = 0;
  uint32_t m_depth = 0;
  uint32_t m_visits = 0;
  size_t m_maxText = 0;     // bytes that the text may have
  uint64_t m_warnings = 0;  // of all texts so far
  WarningLimit m_unknownPointers;

  // Argument lists that were rendered without a warning, by type: functions share them.
  FirstWinsMap<std::string_view> m_remembered;
  std::vector<std::unique_ptr<char[]>> m_blocks;  // what m_remembered refers to
  size_t m_blockUsed = 0;                         // bytes of the last of them
};

}  // namespace symforge_internal
