// serve_symb SYMB_FILE [LOAD_ADDRESS [THREADS]]: a symbol server for one module.
//
// Maps a SYMB file read-only, validates it, and resolves addresses on a pool of threads (4 by
// default). Standard input has one hexadecimal absolute address per line. LOAD_ADDRESS, also
// hexadecimal, is where the module is loaded; with the default of 0, addresses are relative to the
// image. Standard output has one line per input line, in the same order, with fields separated by
// tabs: the address, function, file and line, then "function file:line" of each inline frame,
// innermost first. Unknown values are "?".
//
// The example shows three properties. One mapping and one resolver serve any number of threads
// without locks, because lookups only read. SYMB needs no parsing and no private memory. A block
// from an untrusted source must pass symb_validate() before the resolver uses it.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cinttypes>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/symb.h"
#include "google_breakpad/processor/basic_source_line_resolver.h"

using google_breakpad::BasicSourceLineResolver;
using google_breakpad::CodeModule;
using google_breakpad::StackFrame;

namespace {

constexpr uint64_t kMostThreads = 256;

// Maps a whole file read-only. Empty on failure.
class MappedFile {
 public:
  explicit MappedFile(const char* path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1) return;
    struct stat status;
    if (fstat(fd, &status) == 0 && status.st_size > 0) {
      void* data =
          mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
      if (data != MAP_FAILED) {
        data_ = static_cast<char*>(data);
        size_ = static_cast<size_t>(status.st_size);
      }
    }
    close(fd);
  }
  ~MappedFile() {
    if (data_ != nullptr) munmap(data_, size_);
  }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  char* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  char* data_ = nullptr;
  size_t size_ = 0;
};

// The module described by a validated SYMB block, at a load address.
class SymbModule : public CodeModule {
 public:
  SymbModule(const char* block, uint64_t base_address)
      : block_(block),
        header_(reinterpret_cast<const symb_header_v1*>(block)),
        base_address_(base_address) {}

  uint64_t base_address() const override { return base_address_; }
  uint64_t size() const override { return 0; }  // not in the file; the resolver does not use it
  std::string code_file() const override { return string(header_->code_file); }
  std::string code_identifier() const override { return string(header_->code_id); }
  std::string debug_file() const override { return string(header_->debug_file); }
  std::string debug_identifier() const override { return string(header_->debug_id); }
  std::string version() const override { return {}; }
  CodeModule* Copy() const override { return new SymbModule(*this); }
  uint64_t shrink_down_delta() const override { return 0; }
  void SetShrinkDownDelta(uint64_t) override {}
  bool is_unloaded() const override { return false; }

 private:
  // A reference of 0 means that the string is absent.
  std::string string(uint64_t reference) const { return reference == 0 ? "" : block_ + reference; }

  const char* block_;
  const symb_header_v1* header_;
  uint64_t base_address_;
};

// Runs jobs on a fixed number of threads, started in the order of submission.
class ThreadPool {
 public:
  explicit ThreadPool(uint64_t threads) {
    for (uint64_t i = 0; i < threads; ++i) threads_.emplace_back([this] { work(); });
  }
  // Waits for all jobs.
  ~ThreadPool() {
    {
      const std::lock_guard lock(mutex_);
      closed_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) thread.join();
  }

  std::future<std::string> run(std::function<std::string()> job) {
    std::packaged_task<std::string()> task(std::move(job));
    std::future<std::string> result = task.get_future();
    {
      const std::lock_guard lock(mutex_);
      tasks_.push_back(std::move(task));
    }
    changed_.notify_one();
    return result;
  }

 private:
  void work() {
    std::unique_lock lock(mutex_);
    while (true) {
      changed_.wait(lock, [this] { return closed_ || !tasks_.empty(); });
      if (tasks_.empty()) return;
      std::packaged_task<std::string()> task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::packaged_task<std::string()>> tasks_;
  bool closed_ = false;
  std::vector<std::thread> threads_;
};

// Prints answers in the order of the queries, as soon as each is ready. At most kMostPending
// queries are pending; reading the input blocks at that limit.
class OrderedPrinter {
 public:
  ~OrderedPrinter() {
    {
      const std::lock_guard lock(mutex_);
      closed_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }

  void add(std::future<std::string> answer) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return answers_.size() < kMostPending; });
    answers_.push_back(std::move(answer));
    changed_.notify_all();
  }

 private:
  static constexpr size_t kMostPending = 4096;

  void print() {
    std::unique_lock lock(mutex_);
    while (true) {
      if (answers_.empty()) std::fflush(stdout);  // the client may be waiting for it
      changed_.wait(lock, [this] { return closed_ || !answers_.empty(); });
      if (answers_.empty()) return;
      std::future<std::string> answer = std::move(answers_.front());
      answers_.pop_front();
      changed_.notify_all();
      lock.unlock();
      std::fputs(answer.get().c_str(), stdout);
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::future<std::string>> answers_;
  bool closed_ = false;
  std::thread thread_{[this] { print(); }};
};

std::string position(const std::string& file, int line) {
  return file.empty() ? "?" : file + ":" + std::to_string(line);
}

// Called concurrently.
std::string answer(BasicSourceLineResolver& resolver, const CodeModule& module,
                   const std::string& question) {
  StackFrame frame;
  frame.module = &module;
  frame.instruction = std::strtoull(question.c_str(), nullptr, 16);
  resolver.FillSourceLineInfo(&frame);

  char address[2 + 16 + 1];
  std::snprintf(address, sizeof(address), "0x%" PRIx64, frame.instruction);
  std::string text = address;
  text += "\t" + (frame.function_name.empty() ? "?" : frame.function_name);
  text += "\t" + position(frame.source_file_name, frame.source_line);
  for (const StackFrame::Inline& site : frame.inlines) {
    text += "\t" + site.name + " " + position(site.source_file_name, site.source_line);
  }
  return text + "\n";
}

void serve(BasicSourceLineResolver& resolver, const CodeModule& module, uint64_t threads) {
  OrderedPrinter printer;
  ThreadPool pool(threads);  // destroyed first, so that all answers are printed
  for (std::string question; std::getline(std::cin, question);) {
    printer.add(pool.run([&, question] { return answer(resolver, module, question); }));
  }
}

// Parses a number that is the whole of `text`.
bool parse(const char* text, int base, uint64_t& number) {
  const char* end = text + std::strlen(text);
  return std::from_chars(text, end, number, base).ptr == end && text != end;
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t load_address = 0;
  uint64_t threads = 4;
  if (argc < 2 || argc > 4 || (argc > 2 && !parse(argv[2], 16, load_address)) ||
      (argc > 3 && !parse(argv[3], 10, threads)) || threads == 0 || threads > kMostThreads) {
    std::fprintf(stderr, "Usage: %s SYMB_FILE [LOAD_ADDRESS [THREADS]]\n", argv[0]);
    return 2;
  }
  const MappedFile file(argv[1]);
  if (!symb_validate(reinterpret_cast<uint64_t>(file.data()), file.size())) {
    std::fprintf(stderr, "%s: no SYMB file, or a damaged one\n", argv[1]);
    return 1;
  }
  const SymbModule module(file.data(), load_address);

  // The resolver stores a pointer to the block and does not write to it.
  BasicSourceLineResolver resolver;
  if (!resolver.LoadModuleUsingMemoryBuffer(&module, file.data(), file.size())) return 1;
  serve(resolver, module, threads);
  return 0;
}
