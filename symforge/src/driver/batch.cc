#include "symforge/src/driver/batch.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <optional>
#include <vector>

#include "base/file_io.h"
#include "base/printable.h"
#include "symforge/src/driver/batch_plan.h"
#include "symforge/src/driver/batch_progress.h"
#include "symforge/src/driver/batch_report.h"
#include "symforge/src/driver/batch_walk.h"
#include "symforge/src/driver/child_process.h"
#include "symforge/src/driver/convert.h"
#include "symforge/src/driver/end_signals.h"
#include "symforge/src/driver/free_memory.h"
#include "symforge/src/driver/job_order.h"
#include "symforge/src/driver/made_records.h"
#include "symforge/src/driver/messages.h"
#include "symforge/src/utils.h"

const char* command = nullptr;

namespace symforge_internal {

namespace {

constexpr char kThisProgram[] = "/proc/self/exe";

void redirect_output() {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null == -1) {
    report("unable to redirect stdout/stderr");
    return;
  }
  for (const int fd : {STDOUT_FILENO, STDIN_FILENO}) {
    if (dup2(null, fd) == -1) report("dup2 failed");
  }
}

// The arguments of a child's command line, which ends in a null pointer.
std::vector<const char*> arguments_of(const ConversionInput& input,
                                      const ConversionOptions& options) {
  std::vector<const char*> args = {command, "-s", options.tree};
  if (options.binary) args.push_back("-b");
  if (input.exe != nullptr) args.insert(args.end(), {"-e", input.exe});
  if (!do_inline) args.push_back("-i");
  if (options.standard) args.push_back("--standard");
  if (options.sync != options.standard) args.push_back(options.sync ? "--sync" : "--no-sync");
  if (!options.sandbox) args.push_back("--no-sandbox");
  if (options.report != nullptr) args.insert(args.end(), {"--report-of-batch", options.report});
  // A path can begin with a dash.
  if (input.pdb != nullptr) args.insert(args.end(), {"--", input.pdb});
  args.push_back(nullptr);
  return args;
}

// In the child: executes a conversion of one input, with an empty environment. It runs the file
// that this process runs, even if the name of that file now belongs to another one.
[[noreturn]] void execute(const ConversionInput& input, const ConversionOptions& options) {
  redirect_output();
  if (input.name() == nullptr) {
    report("No pdb or exe");
    std::exit(1);
  }
  const std::vector<const char*> args = arguments_of(input, options);
  execve(kThisProgram, const_cast<char**>(args.data()), nullptr);
  report("Failed execve: %s", strerror(errno));
  std::exit(1);
}

void report_signal(const char* path, int signal) {
  if (standard_messages()) {
    report("%s: ended by signal: %s", printable(path).c_str(), strsignal(signal));
    return;
  }
  char message[128];  // a longer one is truncated
  snprintf(message, sizeof message, "%s [%s] was terminated by signal: %s",
           printable(command).c_str(), printable(path).c_str(), strsignal(signal));
  report("%s", message);
}

// Whether the conversion of `path` succeeded. Reports its end by a signal.
bool succeeded(const Children::End& end, const char* path) {
  if (WIFSIGNALED(end.status)) report_signal(path, WTERMSIG(end.status));
  return WIFEXITED(end.status) && WEXITSTATUS(end.status) == 0;
}

bool start_conversion(Children& children, size_t number, const ConversionInput& input,
                      const ConversionOptions& options) {
  if (children.start(number, [&] { execute(input, options); })) return true;
  report("Failed fork: %s", strerror(errno));
  return false;
}

bool is_end_signal(int status) {
  if (!WIFSIGNALED(status)) return false;
  for (const int number : kEndSignals) {
    if (WTERMSIG(status) == number) return true;
  }
  return false;
}

// One run over the jobs of a plan.
//
// With one job at a time they run in their order. With several, JobOrder keeps those in order that
// touch the same places of the tree, except that
// - a job whose places are not known runs when no other job does,
// - the first image waits for all texts: in default mode the folder of a debug file gets another
//   mode from a text than from a PDB, and the first conversion makes it.
class Batch {
 public:
  Batch(BatchPlan& plan, const ConversionOptions& options, const BatchOptions& batch_options,
        BatchReport& report, BatchProgress& progress, bool hold_messages)
      : plan_(plan),
        options_(options),
        report_(report),
        min_free_memory_(batch_options.min_free_memory),
        records_(options),
        with_records_(batch_options.if_changed),
        most_(resolved_jobs(options.jobs)),
        progress_(progress),
        children_(hold_messages) {}

  // Ends early after a signal.
  void run() {
    while (end_signal() == 0) {
      add_jobs();
      start_jobs();
      if (children_.running() == 0 && order_.unfinished() == 0 && next_ == plan_.jobs().size()) {
        return;
      }
      finish_job(children_.wait(held_back_ ? kMemoryInterval : kUnlimited));
    }
    children_.send(SIGTERM);
    while (children_.running() > 0) finish_job(children_.wait(kUnlimited));
  }

 private:
  static constexpr int kUnlimited = -1;
  static constexpr int kMemoryInterval = 100;  // milliseconds until memory is checked again
  // Bounds the time until the first conversion, and the memory for jobs that wait.
  static constexpr size_t kMostUnfinished = 4096;

  bool is_text(size_t job) const { return plan_.jobs()[job].kind == BatchJob::Kind::kText; }

  // Adds jobs to the order until one can start, or the next one has to wait for all before it.
  void add_jobs() {
    while (next_ < plan_.jobs().size() && !order_.has_ready() && !alone_) {
      const bool idle = order_.unfinished() == 0;
      if (!idle && (order_.unfinished() >= kMostUnfinished || waits_for_all())) return;
      order_.add(next_places().keys());
      alone_ = !next_places().known;
      next_places_.reset();
      ++next_;
    }
  }

  // Whether the next job cannot run together with those before it.
  bool waits_for_all() { return (is_text(next_ - 1) && !is_text(next_)) || !next_places().known; }

  // The places of the next job. With one job at a time they do not matter.
  const TreePlaces& next_places() {
    if (!next_places_) {
      next_places_.emplace();
      if (most_ > 1) *next_places_ = places_of(plan_.jobs()[next_]);
    }
    return *next_places_;
  }

  // A folder of the tree that is a link can be that of another debug file.
  TreePlaces places_of(const BatchJob& job) {
    TreePlaces places = plan_.places_of(job);
    if (is_link(std::string(options_.tree) + "/" + places.debug_file)) places.known = false;
    return places;
  }

  void start_jobs() {
    held_back_ = false;
    while (children_.running() < most_ && order_.has_ready()) {
      held_back_ =
          children_.running() > 0 && min_free_memory_ > 0 && free_memory() < min_free_memory_;
      if (held_back_) return;
      const size_t job = *order_.take();
      if (with_records_) start_times_[job] = MadeRecords::now();
      const ConversionInput input = plan_.jobs()[job].input();
      progress_.started(input.name());
      if (!start_conversion(children_, job, input, options_)) end_job(job, false);
      add_jobs();
    }
  }

  void end_job(size_t job, bool converted) {
    if (with_records_) store_record(job, converted);
    order_.finish(job);
    if (order_.unfinished() == 0) alone_ = false;
    progress_.ended(plan_.jobs()[job].input().name(), converted);
  }

  void store_record(size_t number, bool converted) {
    const timespec start = start_times_[number];
    start_times_.erase(number);
    const BatchJob& job = plan_.jobs()[number];
    if (converted) records_.store(job, plan_.places_of(job), start);
  }

  void finish_job(const std::optional<Children::End>& end) {
    if (!end) return;
    const bool stopped = is_end_signal(end->status) && end_signal() != 0;
    if (!end->messages.empty() || WIFSIGNALED(end->status)) progress_.hide();
    write_file(STDERR_FILENO, end->messages);
    report_.add_end(plan_.jobs()[end->number].input(), *end);
    if (stopped) return;
    end_job(end->number, succeeded(*end, plan_.jobs()[end->number].input().name()));
  }

  BatchPlan& plan_;
  const ConversionOptions& options_;
  BatchReport& report_;
  const uint64_t min_free_memory_;
  const MadeRecords records_;
  const bool with_records_;
  std::map<size_t, timespec> start_times_;  // of the running jobs, for their records
  const unsigned most_;                     // conversions at a time
  BatchProgress& progress_;
  Children children_;
  JobOrder order_;
  size_t next_ = 0;                        // the first job that was not added to the order
  std::optional<TreePlaces> next_places_;  // of that job, if they were read
  bool alone_ = false;                     // a job with unknown places runs or can start
  bool held_back_ = false;                 // a job that can start waits for memory
};

// `unneeded`: the number of inputs whose result is up to date.
int status_of(const BatchProgress& progress, size_t unneeded, bool standard) {
  constexpr int kNothingDone = 1;
  constexpr int kSomeFailed = 2;
  if (progress.converted() == 0 && unneeded == 0) return kNothingDone;
  if (!standard) return 0;
  return progress.failed() == 0 ? 0 : kSomeFailed;
}

}  // namespace

int convert_batch(const std::vector<std::string>& paths, const ConversionOptions& options,
                  const BatchOptions& batch_options) {
  BatchReport batch_report(options.report);
  if (!batch_report.is_ready()) return 1;
  exit_on_end_signals();
  BatchInput found;
  BatchWalk walk(options.standard, found);
  for (const std::string& path : paths) {
    const bool read = batch_options.recursive ? walk.run(path.c_str()) : walk.add_file(path);
    if (read) continue;
    batch_report.add_summary({.inputs = paths, .unreadable = walk.unreadable().size()}, 1);
    return 1;
  }
  BatchPlan plan(found, /*whole_folders=*/batch_options.recursive, options);
  const size_t all_jobs = plan.jobs().size();
  if (batch_options.if_changed) plan.remove(MadeRecords(options).unneeded(plan));
  const size_t unneeded = all_jobs - plan.jobs().size();
  const bool shown = !batch_options.quiet && has_terminal();
  BatchProgress progress(plan.jobs().size(), shown);
  progress.add_skipped(plan.skipped() + unneeded);
  progress.add_unreadable(walk.unreadable());
  store_end_signals();
  const bool hold_messages = shown || resolved_jobs(options.jobs) > 1;
  Batch(plan, options, batch_options, batch_report, progress, hold_messages).run();
  progress.hide();

  if (options.standard) {
    if (all_jobs == 0 && progress.failed() == 0) {
      const std::string where = paths.size() == 1 ? printable(paths.front()) + ": " : "";
      report("%sno input", where.c_str());
    } else if (!batch_options.quiet) {
      progress.summarize(end_signal());
    }
  }
  const int status = end_signal() != 0 ? status_of_signal(end_signal())
                                       : status_of(progress, unneeded, options.standard);
  batch_report.add_summary({.inputs = paths,
                            .conversions = plan.jobs().size(),
                            .converted = progress.converted(),
                            .failed = progress.failed() - walk.unreadable().size(),
                            .skipped = progress.skipped(),
                            .unreadable = walk.unreadable().size()},
                           status);
  return status;
}

}  // namespace symforge_internal

bool pdb_execve(const char* pdb_path, const char* exe_path, const char* sym_path,
                bool binary_output) {
  using namespace symforge_internal;
  const ConversionInput input = {.pdb = pdb_path, .exe = exe_path};
  const ConversionOptions options = {.binary = binary_output, .tree = sym_path};
  Children children(/*hold_messages=*/false);
  if (!start_conversion(children, 0, input, options)) return false;
  std::optional<Children::End> end;
  while (!end) end = children.wait(-1);
  return succeeded(*end, input.name());
}
