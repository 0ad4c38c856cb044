// Runs a command and measures it from outside, as a user would: wall time and peak memory.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Usage {
  double seconds = 0;       // from before the start to the end of the process
  double cpu_seconds = 0;   // of the process and of the system for it; steadier on a busy machine
  uint64_t peak_bytes = 0;  // largest resident set
};

// One command and the file that takes its standard output.
struct Command {
  std::vector<std::string> words;
  std::string output;
};

// Runs the command once; its output file is made anew. Its standard error goes to /dev/null. Throws
// std::runtime_error when the command cannot be started or does not end with status 0.
//
// The caller's own resident set at this moment is counted as the child's (the kernel keeps the peak
// of a process over its exec), so callers stay small.
Usage run_once(const Command& command);

// Runs the commands in turn, `runs` times, so that a slow spell of the machine meets all of them,
// and returns the median times and the largest memory of each. Output files are removed.
std::vector<Usage> run_interleaved(const std::vector<Command>& commands, int runs);

uint64_t file_size(const std::string& path);
