// Runs a command and measures wall time, processor time and peak memory of its process.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Usage {
  double seconds = 0;       // wall time from start to end of the process
  double cpu_seconds = 0;   // user and system time; steadier on a busy machine
  uint64_t peak_bytes = 0;  // largest resident set
};

// A command and the file to which its standard output is redirected.
struct Command {
  std::vector<std::string> words;
  std::string output;
};

// Runs the command once. Replaces its output file; standard error goes to /dev/null. Throws
// std::runtime_error if the command cannot be started or its exit status is not 0.
//
// The kernel keeps a process's peak memory across exec, so the caller's resident set at this moment
// counts for the child: callers must stay small.
Usage run_once(const Command& command);

// Runs the commands alternately, `runs` times each, so that slow phases of the machine affect all
// of them. Returns the median times and the peak memory of each. Removes the output files.
std::vector<Usage> run_interleaved(const std::vector<Command>& commands, int runs);

uint64_t file_size(const std::string& path);
