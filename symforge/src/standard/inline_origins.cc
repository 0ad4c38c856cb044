#include "symforge/src/standard/inline_origins.h"

#include "common/symbol_text.h"
#include "symforge/src/standard/line_name.h"

namespace symforge_internal {

uint32_t InlineOrigins::find(uint32_t inlinee) {
  const uint32_t known = m_byInlinee.find(inlinee);
  if (known != 0) return known == kUnnamed ? kUnnamed : known - 1;
  m_name.clear();
  const uint32_t origin =
      m_names.appendInlinee(inlinee, m_name) ? add(lineName(m_name, m_printableName)) : kUnnamed;
  m_byInlinee[inlinee] = origin == kUnnamed ? kUnnamed : origin + 1;
  return origin;
}

// Different items can have one name, as those of a class that was written twice.
uint32_t InlineOrigins::add(std::string_view name) {
  const auto hash = static_cast<uint32_t>(m_hash(name) >> 32);
  uint32_t& first = m_byHash[hash];
  for (uint32_t origin = first - 1; first != 0 && origin != kUnnamed;
       origin = m_origins[origin].nextOfHash) {
    if (text(origin) == name) return origin;
  }
  const auto origin = static_cast<uint32_t>(m_origins.size());
  m_texts.append(name);
  m_origins.push_back({m_texts.size(), first - 1, kUnnamed});
  first = origin + 1;
  return origin;
}

std::string_view InlineOrigins::text(uint32_t origin) const {
  const size_t start = origin == 0 ? 0 : m_origins[origin - 1].end;
  return m_texts.view().substr(start, m_origins[origin].end - start);
}

uint32_t InlineOrigins::number(uint32_t origin) {
  uint32_t& number = m_origins[origin].number;
  if (number == kUnnamed) {
    number = static_cast<uint32_t>(m_used.size());
    m_used.push_back(origin);
  }
  return number;
}

void InlineOrigins::noteMissing(uint32_t origin) {
  m_origins[origin].number = kMissing;
  m_missing.push_back(origin);
}

void InlineOrigins::takeNumbers(InlineOrigins& shared) {
  for (const uint32_t origin : m_missing) {
    m_origins[origin].number = shared.number(shared.add(text(origin)));
  }
  m_missing.clear();
}

void InlineOrigins::print(TextBuffer& out) const {
  for (size_t i = 0; i < m_used.size(); ++i) {
    append_line(out, InlineOriginFields{static_cast<long>(i), text(m_used[i])});
  }
}

}  // namespace symforge_internal
