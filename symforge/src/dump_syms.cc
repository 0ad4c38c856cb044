// The symforge program: options, their checks, and the choice between one conversion and a batch.

#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/printable.h"
#include "common/symforge_version.h"
#include "google_breakpad/processor/log_sink.h"
#include "symforge/src/driver/batch.h"
#include "symforge/src/driver/check_file.h"
#include "symforge/src/driver/conversion_options.h"
#include "symforge/src/driver/convert.h"
#include "symforge/src/driver/end_signals.h"
#include "symforge/src/driver/free_memory.h"
#include "symforge/src/driver/identify.h"
#include "symforge/src/driver/input_list.h"
#include "symforge/src/driver/last_message.h"
#include "symforge/src/driver/messages.h"
#include "symforge/src/driver/sandbox.h"

using symforge_internal::ConversionInput;
using symforge_internal::ConversionOptions;
using symforge_internal::kStandardInput;
using symforge_internal::printable;
using symforge_internal::read_input_list;
using symforge_internal::report;

namespace {

struct Options {
  bool identify = false;
  bool check = false;
  const char* against = nullptr;  // of --check, borrowed
  std::optional<bool> sync;       // empty: the mode decides
  // The arguments of options that are numbers, borrowed.
  const char* jobs = "1";
  const char* max_memory = "0";
  ConversionInput input;             // `pdb` is the first of the inputs
  std::vector<std::string> inputs;   // files; with -r usually a folder
  const char* files_from = nullptr;  // the argument of --files-from, borrowed
  ConversionOptions conversion;
  symforge_internal::BatchOptions batch;
};

// Long options without a short form.
enum LongOption {
  kHelp = 256,
  kStandard,
  kSync,
  kNoSync,
  kNoSandbox,
  kMaxMemory,
  kFilesFrom,
  kIfChanged,
  kIdentify,
  kCheck,
  kAgainst,
  kReport,
  kReportOfBatch,
};

constexpr option kLongOptions[] = {
    {"help", no_argument, nullptr, kHelp},
    {"version", no_argument, nullptr, 'v'},
    {"binary", no_argument, nullptr, 'b'},
    {"image", required_argument, nullptr, 'e'},
    {"tree", required_argument, nullptr, 's'},
    {"recursive", no_argument, nullptr, 'r'},
    {"jobs", required_argument, nullptr, 'j'},
    {"no-inlines", no_argument, nullptr, 'i'},
    {"files-from", required_argument, nullptr, kFilesFrom},
    {"if-changed", no_argument, nullptr, kIfChanged},
    {"max-memory", required_argument, nullptr, kMaxMemory},
    {"quiet", no_argument, nullptr, 'q'},
    {"standard", no_argument, nullptr, kStandard},
    {"sync", no_argument, nullptr, kSync},
    {"no-sync", no_argument, nullptr, kNoSync},
    {"no-sandbox", no_argument, nullptr, kNoSandbox},
    {"identify", no_argument, nullptr, kIdentify},
    {"check", no_argument, nullptr, kCheck},
    {"against", required_argument, nullptr, kAgainst},
    {"report", required_argument, nullptr, kReport},
    {"report-of-batch", required_argument, nullptr, kReportOfBatch},  // for children of a batch
    {nullptr, 0, nullptr, 0},
};

// Opens /dev/null in the place of standard streams that the parent has closed, so that no file
// opened later gets their numbers. The mode is the wrong one for each stream, so that reads and
// writes still fail and are reported.
void fill_standard_streams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) == -1) open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

// Makes this process the kernel's first choice when memory runs out.
void bump_oom_adj() {
  const int fd = open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC);
  if (fd == -1) return;
  if (write(fd, "+999", 4) < 0) perror("Failed to adjust oom_adj");
  close(fd);
}

void print_usage(FILE* to) {
  fprintf(to,
          "Usage: %s [options] <pdb file/dir> <output_symbol_dir (optional)>\n\n"
          "    -i                         DO NOT extract inline information\n"
          "    -b                         Output sym file in binary format\n"
          "    -e <exe/dll file>          Executable that matches the pdb file\n"
          "    -r                         Convert pdb files in the directory recursively.\n"
          "    -s <output_symbol_dir>     Root directory of Breakpad symbol tree\n"
          "    -v                         Print version and exit.\n"
          "    -h                         Print this help text and exit.\n",
          command);
}

void print_help() {
  printf(
      "Usage: %s [options] INPUT [TREE]\n"
      "       %s [options] -e IMAGE -s TREE\n"
      "       %s [options] -s TREE INPUT...\n"
      "       %s [options] -r FOLDER TREE\n"
      "       %s --identify FILE...\n"
      "       %s --check [--against FILE] FILE...\n\n"
      "Makes a Breakpad symbol file of a PDB, a text symbol file or a SYMB file, on standard\n"
      "output or in the symbol tree TREE. With several inputs or a folder this is a batch. The\n"
      "INPUT - is a text or SYMB file on standard input.\n\n"
      "  -e, --image IMAGE   the exe or dll of the PDB\n"
      "  -s, --tree TREE     root of the symbol tree, the same as a second argument\n"
      "  -r, --recursive     convert everything in FOLDER\n"
      "  -j, --jobs N        use N processors, 0: all (by default 1)\n"
      "      --files-from LIST\n"
      "                      more inputs, one per line or separated by NUL; -: standard input\n"
      "      --if-changed    skip inputs whose result in the tree is up to date\n"
      "      --max-memory SIZE\n"
      "                      in a batch, start no conversion while less memory is free (500M, 2G)\n"
      "  -q, --quiet         in a batch, no progress and no summary\n"
      "  -b, --binary        write SYMB, the binary format, instead of text\n"
      "  -i, --no-inlines    no inlined calls\n"
      "      --standard      the published text format, complete content, strict exit statuses\n"
      "      --sync          results reach the disk before they replace older ones\n"
      "                      (with --standard by default)\n"
      "      --no-sync       leave that to the system (by default without --standard)\n"
      "      --no-sandbox    keep all rights of the process during a conversion\n"
      "      --report FILE   append one JSON object for each conversion; -: to standard error\n"
      "      --identify      print what each file is, one JSON object a line\n"
      "      --check         check symbol files, one JSON object a line\n"
      "      --against FILE  with --check: the PDB or image that they must belong to\n"
      "  -v, --version       print the version\n"
      "  -h                  print the short usage\n"
      "      --help          print this text\n\n"
      "Exit status: 0 success; 1 failure or wrong usage; 2 with --standard, some inputs of a batch "
      "failed;\n"
      "128 and the number of the signal for a batch that a signal ended.\n",
      command, command, command, command, command, command);
}

int usage_error() {
  print_usage(stderr);
  return 1;
}

constexpr int kGoOn = -1;  // no exit status yet

// Applies one option. Returns the program's exit status, or kGoOn.
int take_option(int letter, Options& options) {
  switch (letter) {
    case 'b':
      options.conversion.binary = true;
      return kGoOn;
    case 'e':
      options.input.exe = optarg;
      return kGoOn;
    case 'h':
      print_usage(stdout);
      return 0;
    case kHelp:
      print_help();
      return 0;
    case 'i':
      do_inline = false;
      return kGoOn;
    case 'j':
      options.jobs = optarg;
      return kGoOn;
    case 'q':
      options.batch.quiet = true;
      return kGoOn;
    case kFilesFrom:
      options.files_from = optarg;
      return kGoOn;
    case kIfChanged:
      options.batch.if_changed = true;
      return kGoOn;
    case kMaxMemory:
      options.max_memory = optarg;
      return kGoOn;
    case 'r':
      options.batch.recursive = true;
      return kGoOn;
    case 's':
      options.conversion.tree = optarg;
      return kGoOn;
    case 'v':
      fputs(SYMFORGE_VERSION_STRING "\n", stdout);
      return 0;
    case kStandard:
      options.conversion.standard = true;
      return kGoOn;
    case kSync:
    case kNoSync:
      options.sync = letter == kSync;
      return kGoOn;
    case kNoSandbox:
      options.conversion.sandbox = false;
      return kGoOn;
    case kIdentify:
      options.identify = true;
      return kGoOn;
    case kCheck:
      options.check = true;
      return kGoOn;
    case kAgainst:
      options.against = optarg;
      return kGoOn;
    case kReport:
    case kReportOfBatch:
      options.conversion.report = optarg;
      options.conversion.in_batch = letter == kReportOfBatch;
      return kGoOn;
    default:
      return usage_error();
  }
}

// Applies the options in the order given. Returns the program's exit status, or kGoOn.
int take_options(int argc, char** argv, Options& options) {
  for (int letter;
       (letter = getopt_long(argc, argv, "be:hij:qrs:v", kLongOptions, nullptr)) != -1;) {
    if (const int status = take_option(letter, options); status != kGoOn) return status;
  }
  options.conversion.sync = options.sync.value_or(options.conversion.standard);
  return kGoOn;
}

int fail(const char* message) {
  report("%s", message);
  return 1;
}

bool is_folder(const char* path) {
  struct stat status;
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

// Reads the arguments after the options: inputs, or without -s an input and the tree. In default
// mode more than these two are ignored.
int take_arguments(int argc, char** argv, Options& options) {
  const char*& tree = options.conversion.tree;
  const bool only_inputs = tree != nullptr || options.files_from != nullptr;
  for (int i = optind; i < argc; ++i) {
    const bool first = i == optind;
    if (tree != nullptr && only_inputs && !first && is_folder(argv[i])) {
      report("output symbol path is already set in -s option: %s", printable(tree).c_str());
      return 1;
    }
    if (first || only_inputs) {
      options.inputs.emplace_back(argv[i]);
    } else if (i == optind + 1) {
      tree = argv[i];
    } else if (options.conversion.standard) {
      return fail("several inputs need a tree that is named with '-s'");
    }
  }
  if (optind < argc) options.input.pdb = argv[optind];
  return kGoOn;
}

// Reads the arguments of options that are numbers.
int read_numbers(Options& options) {
  if (!symforge_internal::parse_jobs(options.jobs, options.conversion.jobs)) {
    report("option '-j' needs a number from 0 to %u: %s", symforge_internal::kMostJobs,
           printable(options.jobs).c_str());
    return 1;
  }
  if (!symforge_internal::parse_size(options.max_memory, options.batch.min_free_memory)) {
    report("option '--max-memory' needs a size such as 500M or 2G: %s",
           printable(options.max_memory).c_str());
    return 1;
  }
  return kGoOn;
}

int check_tree(const char* tree) {
  if (access(tree, F_OK) != 0) {
    report("symbol path doesn't exist: %s", printable(tree).c_str());
    return 1;
  }
  if (is_folder(tree)) return kGoOn;
  report("symbol path is not a folder: %s (several inputs need a tree that is named with '-s')",
         printable(tree).c_str());
  return 1;
}

int run_batch(Options& options) {
  const char* tree = options.conversion.tree;
  const bool recursive = options.batch.recursive;
  if (options.input.exe != nullptr) {
    if (options.batch.if_changed)
      return fail("options '-e' and '--if-changed' are mutually exclusive");
    return fail(recursive ? "options '-e' and '-r' are mutually exclusive"
                          : "option '-e' needs a single input");
  }
  if (tree == nullptr) {
    return fail(recursive ? "option '-r' implies multiple pdb files and the output symbol path "
                            "must be set"
                          : "options '--files-from' and '--if-changed' need a symbol tree");
  }
  if (options.inputs.empty() && options.files_from == nullptr) return usage_error();
  if (const int status = check_tree(tree); status != kGoOn) return status;
  const auto& inputs = options.inputs;
  if (!recursive && std::find(inputs.begin(), inputs.end(), kStandardInput) != inputs.end()) {
    return fail(inputs.size() == 1 && options.files_from == nullptr
                    ? "option '--if-changed' needs files, not standard input"
                    : "standard input must be the only input");
  }
  if (options.files_from != nullptr && !read_input_list(options.files_from, options.inputs)) {
    return 1;
  }
  return symforge_internal::convert_batch(options.inputs, options.conversion, options.batch);
}

int run_single(const Options& options) {
  const char* tree = options.conversion.tree;
  if (options.input.name() == nullptr) return usage_error();
  if (options.input.pdb == nullptr && tree == nullptr) {
    return fail("output symbol path must be set with seperate exe/dll symbol");
  }
  if (tree != nullptr) {
    if (const int status = check_tree(tree); status != kGoOn) return status;
  }
  symforge_internal::set_message_input(options.input.name());
  return symforge_internal::convert(options.input, options.conversion) ? 0 : 1;
}

// Reads files without a conversion.
int run_on_files(const Options& options, const std::vector<std::string>& files) {
  symforge_internal::select_standard_messages(true);
  if (options.identify && options.check) {
    return fail("options '--identify' and '--check' are mutually exclusive");
  }
  if (options.batch.recursive || options.input.exe != nullptr ||
      options.conversion.tree != nullptr || options.conversion.report != nullptr) {
    return fail(
        "options '--identify' and '--check' take files alone, without '-e', '-r', '-s' and "
        "'--report'");
  }
  if (files.empty()) return usage_error();
  if (options.conversion.sandbox) {
    std::vector<std::string> readable = files;
    if (options.against != nullptr) readable.emplace_back(options.against);
    symforge_internal::enter_sandbox({.readable = std::move(readable), .writable = {}});
  }
  return options.identify ? symforge_internal::identify_files(files)
                          : symforge_internal::check_files(files, options.against);
}

bool is_batch(const Options& options) {
  return options.batch.recursive || options.batch.if_changed || options.inputs.size() > 1 ||
         options.files_from != nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  fill_standard_streams();
  bump_oom_adj();
  // Connect now: a sandboxed conversion cannot.
  openlog("symforge", LOG_PERROR | LOG_NDELAY, LOG_USER);
  command = argv[0];
  // With this, exceeding a file size limit is a failed write, which is reported and leaves no
  // partial file.
  signal(SIGXFSZ, SIG_IGN);
  // A parent that ignores SIGCHLD passes that on, and a batch could then not wait for its children.
  signal(SIGCHLD, SIG_DFL);

  symforge_internal::install_last_message();
  google_breakpad::SetLogInformation(true);
  symforge_internal::clean_up_on_end_signals();
  Options options;
  options.conversion.sandbox = true;
  if (const int status = take_options(argc, argv, options); status != kGoOn) return status;
  if (options.against != nullptr && !options.check) {
    return fail("option '--against' needs '--check'");
  }
  if (options.identify || options.check) return run_on_files(options, {argv + optind, argv + argc});
  if (options.conversion.standard) {
    symforge_internal::select_standard_messages(true);
    signal(SIGPIPE, SIG_IGN);  // a closed pipe is a failed write
  }
  if (const int status = read_numbers(options); status != kGoOn) return status;
  if (const int status = take_arguments(argc, argv, options); status != kGoOn) return status;
  return is_batch(options) ? run_batch(options) : run_single(options);
}
