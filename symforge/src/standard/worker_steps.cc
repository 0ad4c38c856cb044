#include "symforge/src/standard/worker_steps.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "symforge/src/parallel/module_parts.h"
#include "symforge/src/parallel/ordered_text.h"
#include "symforge/src/standard/cross_module_items.h"
#include "symforge/src/standard/function_batch.h"

namespace symforge_internal {

namespace {

// What one worker reads functions with.
class Worker {
 public:
  explicit Worker(const PrintedFunctions& sources)
      : m_types(sources.types),
        m_ids(sources.ids),
        m_names(m_types, m_ids),
        m_items(sources.modules, sources.strings),
        m_files(sources.sourceFiles, sources.strings),
        m_origins(m_names),
        m_reader(sources.with(sources.inlinees, m_items, m_names), m_files, m_origins),
        m_batch(m_files, m_origins) {}

  void read(size_t first, size_t end) {
    m_batch.clear();
    for (; first < end; ++first) m_batch.add(m_reader, first);
  }
  void takeNumbers(FileNumbers& files, InlineOrigins& origins) {
    m_files.takeNumbers(files);
    m_origins.takeNumbers(origins);
  }
  void print(TextBuffer& out) { m_batch.print(out); }
  const FunctionReader& reader() const { return m_reader; }

 private:
  const TypeTable m_types;
  const TypeTable m_ids;
  FunctionNames m_names;
  CrossModuleItems m_items;
  FileNumbers m_files;
  InlineOrigins m_origins;
  FunctionReader m_reader;
  FunctionBatch m_batch;
};

}  // namespace

std::optional<std::vector<FunctionCollector>> collectWithWorkers(WorkerPool* pool,
                                                                 const MsfFile& file,
                                                                 const ModuleStreams& modules,
                                                                 const SectionMap& sections,
                                                                 bool withInlines) {
  if (pool == nullptr) return std::nullopt;
  const std::vector<bool> repeated = FunctionCollector::repeatedStreams(modules);
  return readModuleParts(*pool, file, modules, [&](const ModulePart& part) {
    FunctionCollector some(sections, withInlines);
    some.collectPart(modules, repeated, part.first, part.end);
    return some;
  });
}

ModuleTables::ModuleTables(WorkerPool* pool, const MsfFile& file, const ModuleStreams& modules,
                           ModuleInlinees& inlinees, SourceFiles& files)
    : m_files(files), m_queue(1 + modules.size()) {
  if (pool == nullptr || !pool->usable()) return;
  m_attempt.emplace(*pool, file, [this, &modules, &inlinees](unsigned) {
    size_t item;
    while (m_queue.take(item)) {
      if (item == 0) {
        m_files.gatherFiles(modules);
      } else {
        inlinees.read(item - 1, item);
      }
    }
  });
}

bool ModuleTables::finish() {
  const bool loaded = m_attempt && m_attempt->finish();
  m_attempt.reset();
  if (!loaded) m_files = SourceFiles();
  return loaded;
}

bool printWithWorkers(WorkerPool& pool, const PrintedFunctions& sources, const CodeFile& image,
                      const std::vector<CodeRange>& ranges, FileNumbers& files,
                      InlineOrigins& origins, StandardCounts& counts, UnwindRules& unwind,
                      TextBuffer& out) {
  constexpr size_t kChunk = 128;  // functions; their text stays in the processor's cache
  const size_t start = out.size();
  const size_t count = sources.functions.size();
  const size_t partLimit = workerTextLimit(out.limit());
  unwind.text.set_limit(partLimit);
  const uint64_t most = FunctionReader::maxRanges(sources.file);
  WorkQueue chunks((count + kChunk - 1) / kChunk);
  OrderedText text(pool, out);
  std::vector<StandardCounts> countsOf(pool.size());
  std::vector<uint64_t> rangesOf(pool.size());
  FileAttempt attempt(pool, sources.file, [&](unsigned number) {
    if (number == 0) unwind.messages = image.printUnwindRules(ranges, unwind.text);
    Worker worker(sources);
    WaitingTexts parts(text, partLimit);
    size_t chunk;
    while (chunks.take(chunk)) {
      worker.read(chunk * kChunk, std::min(count, (chunk + 1) * kChunk));
      pool.waitForTurn(WorkerPool::kFirstOrder, static_cast<uint32_t>(chunk));
      worker.takeNumbers(files, origins);
      pool.passTurn(WorkerPool::kFirstOrder);
      worker.print(parts.start());
      parts.end(chunk);
    }
    parts.finish();
    countsOf[number] = worker.reader().counts();
    rangesOf[number] = most - worker.reader().rangesLeft();
  });
  uint64_t used = 0;
  const bool made = attempt.finish();
  for (const uint64_t some : rangesOf) used += some;
  // One thread decides whether what is nearly too much is so.
  unwind.made = made && used <= most / 2 && out.size() + unwind.text.size() <= out.limit() / 2;
  if (!unwind.made) {
    unwind.text = TextBuffer();
    out.truncate(start);
    return false;
  }
  for (const StandardCounts& some : countsOf) counts.add(some);
  return true;
}

}  // namespace symforge_internal
