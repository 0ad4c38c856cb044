// Splits a writable, NUL-terminated line in place: the separator behind each token becomes a NUL,
// and the tokens are pointers into the line.

#pragma once

#include <string>
#include <vector>

namespace google_breakpad {

// Splits `line` at runs of `separators` into `num_tokens` tokens, the last of them being the rest
// of the line up to a carriage return or line feed, blanks included. Returns how many were found.
int TokenizeTry(char* line, const char* separators, int num_tokens, std::vector<char*>* tokens);

// The same; true if exactly `max_tokens` tokens were found.
bool Tokenize(char* line, const char* separators, int max_tokens, std::vector<char*>* tokens);

// Makes `vec` a writable copy of `str`, with a NUL behind it.
void StringToVector(const std::string& str, std::vector<char>& vec);

}  // namespace google_breakpad
