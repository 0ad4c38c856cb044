#include "bench/process_runner.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace {

pid_t start(const Command& command) {
  std::vector<char*> words;
  for (const std::string& word : command.words) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, command.output.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&files, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  const int error = posix_spawnp(&child, words[0], &files, nullptr, words.data(), environ);
  posix_spawn_file_actions_destroy(&files);
  if (error != 0) throw std::runtime_error("cannot start " + command.words[0]);
  return child;
}

double seconds_of(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.at(values.size() / 2);
}

}  // namespace

Usage run_once(const Command& command) {
  unlink(command.output.c_str());
  const auto before = std::chrono::steady_clock::now();
  const pid_t child = start(command);
  int status = 0;
  rusage usage{};
  if (wait4(child, &status, 0, &usage) != child) throw std::runtime_error("wait4 failed");
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - before;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::string text;
    for (const std::string& word : command.words) text += word + " ";
    throw std::runtime_error("failed: " + text + "(status " + std::to_string(status) + ")");
  }
  return {time.count(), seconds_of(usage.ru_utime) + seconds_of(usage.ru_stime),
          static_cast<uint64_t>(usage.ru_maxrss) * 1024};
}

std::vector<Usage> run_interleaved(const std::vector<Command>& commands, int runs) {
  std::vector<Usage> result(commands.size());
  std::vector<std::vector<double>> seconds(commands.size());
  std::vector<std::vector<double>> cpu_seconds(commands.size());
  for (int run = 0; run < runs; ++run) {
    for (size_t i = 0; i < commands.size(); ++i) {
      const Usage usage = run_once(commands[i]);
      // A deleted file is not written back to disk while the next command runs.
      unlink(commands[i].output.c_str());
      seconds[i].push_back(usage.seconds);
      cpu_seconds[i].push_back(usage.cpu_seconds);
      result[i].peak_bytes = std::max(result[i].peak_bytes, usage.peak_bytes);
    }
  }
  for (size_t i = 0; i < commands.size(); ++i) {
    result[i].seconds = median(seconds[i]);
    result[i].cpu_seconds = median(cpu_seconds[i]);
  }
  return result;
}

uint64_t file_size(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) throw std::runtime_error("cannot read " + path);
  return static_cast<uint64_t>(status.st_size);
}
