// The symforge program: options, their checks, and the choice between one conversion and a batch.

#include <fcntl.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>

#include "symforge/src/driver/batch.h"
#include "symforge/src/driver/convert.h"
#include "version.h"

namespace {

struct Options {
  bool recursive = false;
  bool binary_output = false;
  const char* exe_path = nullptr;
  const char* sym_path = nullptr;  // root of the symbol tree
  const char* pdb_path = nullptr;  // the input, with -r a folder as a rule
};

// Fills standard streams that the parent has closed, so that no file opened later takes the place
// of one and gets what is meant for it. What cannot be written stays reported: the streams are
// filled the wrong way round, so that each read from or write to them fails.
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

int usage_error() {
  print_usage(stderr);
  return 1;
}

// `format` takes `argument` when it has a place for one.
__attribute__((format(printf, 1, 0))) int refuse(const char* format, const char* argument = "") {
  syslog(LOG_USER | LOG_ERR, format, argument);
  return 1;
}

constexpr int kGoOn = -1;  // no exit status yet

// Takes the options in the order given. The program's exit status, or kGoOn.
int take_options(int argc, char** argv, Options& options) {
  for (int letter; (letter = getopt(argc, argv, "be:hrs:vi")) != -1;) {
    switch (letter) {
      case 'b':
        options.binary_output = true;
        break;
      case 'e':
        options.exe_path = optarg;
        break;
      case 'h':
        print_usage(stdout);
        return 0;
      case 'i':
        do_inline = false;
        break;
      case 'r':
        options.recursive = true;
        break;
      case 's':
        options.sym_path = optarg;
        break;
      case 'v':
        fputs(SYMFORGE_VERSION "\n", stdout);
        return 0;
      default:
        return usage_error();
    }
  }
  return kGoOn;
}

// Takes the one or two arguments behind the options; more are ignored.
int take_arguments(int argc, char** argv, Options& options) {
  if (optind < argc) options.pdb_path = argv[optind];
  if (optind + 1 >= argc) return kGoOn;
  if (options.sym_path != nullptr) {
    return refuse("output symbol path is already set in -s option: %s\n", options.sym_path);
  }
  options.sym_path = argv[optind + 1];
  return kGoOn;
}

int check_tree(const char* sym_path) {
  if (access(sym_path, F_OK) == 0) return kGoOn;
  return refuse("symbol path doesn't exist: %s\n", sym_path);
}

int run_batch(const Options& options) {
  if (options.exe_path != nullptr) return refuse("options '-e' and '-r' are mutually exclusive\n");
  if (options.sym_path == nullptr) {
    return refuse(
        "option '-r' implies multiple pdb files and the output symbol path must be set\n");
  }
  if (options.pdb_path == nullptr) return usage_error();
  if (const int status = check_tree(options.sym_path); status != kGoOn) return status;
  return convert_batch(options.pdb_path, options.sym_path, options.binary_output) ? 0 : 1;
}

int run_single(const Options& options) {
  if (options.pdb_path == nullptr && options.exe_path == nullptr) return usage_error();
  if (options.pdb_path == nullptr && options.sym_path == nullptr) {
    return refuse("output symbol path must be set with seperate exe/dll symbol\n");
  }
  if (options.sym_path != nullptr) {
    if (const int status = check_tree(options.sym_path); status != kGoOn) return status;
  }
  return symforge(options.pdb_path, options.exe_path, options.sym_path, options.binary_output) ? 0
                                                                                               : 1;
}

}  // namespace

int main(int argc, char** argv) {
  fill_standard_streams();
  bump_oom_adj();
  openlog("symforge", LOG_PERROR, LOG_USER);
  command = argv[0];
  // A file size limit then shows as a failed write, which is reported and leaves no partial file.
  signal(SIGXFSZ, SIG_IGN);
  // A parent that ignores the ends of its children hands that on, and a batch could wait for none.
  signal(SIGCHLD, SIG_DFL);

  Options options;
  if (const int status = take_options(argc, argv, options); status != kGoOn) return status;
  if (const int status = take_arguments(argc, argv, options); status != kGoOn) return status;
  return options.recursive ? run_batch(options) : run_single(options);
}
