#include "symforge/src/emit/worker_steps.h"

#include <algorithm>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "symforge/src/emit/function_list.h"
#include "symforge/src/emit/function_printer.h"
#include "symforge/src/emit/module_functions.h"
#include "symforge/src/emit/param_sizes.h"
#include "symforge/src/parallel/module_parts.h"
#include "symforge/src/parallel/ordered_text.h"

namespace symforge_internal {

std::optional<std::vector<CollectedPart>> collectWithWorkers(WorkerPool* pool,
                                                             const ModuleSources& sources,
                                                             bool withSites) {
  if (pool == nullptr) return std::nullopt;
  return readModuleParts(*pool, sources.file, sources.modules, [&](const ModulePart& part) {
    CollectedPart some{{}, InlineSites(sources.names)};
    getModuleFunctions(std::span(sources.modules).subspan(part.first, part.end - part.first),
                       sources.sections, withSites ? &some.sites : nullptr, some.functions);
    return some;
  });
}

void joinParts(std::vector<CollectedPart>& parts, size_t more, InlineSites* sites,
               Functions& functions) {
  std::vector<Functions> lists;
  lists.reserve(parts.size());
  for (CollectedPart& part : parts) {
    if (sites != nullptr) sites->append(part.sites, part.functions);
    lists.push_back(std::move(part.functions));
  }
  joinSorted(lists, more, functions);
}

bool printWithWorkers(WorkerPool& pool, const PrintSources& sources, const Functions& functions,
                      TextBuffer& out) {
  constexpr size_t kChunk = 512;  // functions; their text stays in the processor's cache
  if (!pool.usable()) return false;
  const size_t start = out.size();
  const size_t partLimit = workerTextLimit(out.limit());
  WorkQueue chunks((functions.size() + kChunk - 1) / kChunk);
  OrderedText text(pool, out);
  FileAttempt attempt(pool, sources.file, [&](unsigned) {
    const TypeTable types = sources.types;
    const TypeTable ids = sources.ids;
    TypeNames names(types, ids);
    std::optional<InlinePrinter> inlines;
    if (sources.sites != nullptr) {
      inlines.emplace(sources.file, *sources.sites, sources.inlinees, names);
    }
    FunctionPrinter printer(sources.sections, names, inlines ? &*inlines : nullptr);
    WaitingTexts parts(text, partLimit);
    size_t chunk;
    while (chunks.take(chunk)) {
      printer.printFunctions(functions, chunk * kChunk,
                             std::min(functions.size(), (chunk + 1) * kChunk), parts.start());
      parts.end(chunk);
    }
    parts.finish();
  });
  // One thread decides whether a text that is nearly too long is so.
  if (attempt.finish() && out.size() <= out.limit() / 2) return true;
  out.truncate(start);
  return false;
}

SideWork::SideWork(WorkerPool* pool, const Parts& parts) : m_parts(parts) {
  if (pool == nullptr || !pool->usable()) return;
  m_text.set_limit(workerTextLimit(parts.textLimit));
  const unsigned second = pool->size() - 1;
  m_attempt.emplace(*pool, parts.file, [this, second](unsigned worker) {
    if (worker == 0 && m_parts.withUnwindData) m_parts.image.PrintFrameDataUsingEXE(m_text);
    if (worker == second) readFrames();
  });
}

void SideWork::release(State state) {
  m_state = state;
  m_state.notify_all();
}

void SideWork::readFrames() {
  m_parts.frames.readFrameData(m_parts.file, m_parts.debugHeader);
  m_state.wait(kUnsorted);
  if (m_state == kAbandoned) return;
  resolveParamSizes(m_parts.functions, m_parts.globals, m_parts.frames, m_parts.sections.count());
}

bool SideWork::finish() {
  if (!m_attempt) return false;
  m_done = m_attempt->finish();
  m_attempt.reset();
  if (!m_done) {
    m_text = TextBuffer();
    m_parts.frames = FrameTables();
    for (FunctionRecord& function : m_parts.functions) function.paramSize = 0;
    for (PublicFunction& symbol : m_parts.globals.symbols()) symbol.covered = false;
  }
  return m_done;
}

// A text that was made is within the limit, if it is within what is left for it.
void SideWork::printUnwindData(TextBuffer* apart, TextBuffer& out) {
  if (!m_parts.withUnwindData) return;
  if (!m_done || out.size() + m_text.size() > out.limit() / 2) {
    m_parts.image.PrintFrameDataUsingEXE(out);
  } else {
    *apart = std::move(m_text);
  }
}

}  // namespace symforge_internal
