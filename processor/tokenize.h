// Splits a writable, NUL-terminated line in place: the separator after each token becomes a NUL,
// and the tokens are pointers into the line.

#pragma once

#include <string>
#include <vector>

namespace google_breakpad {

// Splits `line` at runs of `separators` into at most `num_tokens` tokens. The last one is the rest
// of the line up to a carriage return or line feed, including separators. Returns the number of
// tokens found.
int TokenizeTry(char* line, const char* separators, int num_tokens, std::vector<char*>* tokens);

// As TokenizeTry(); returns true if exactly `max_tokens` tokens were found.
bool Tokenize(char* line, const char* separators, int max_tokens, std::vector<char*>* tokens);

// Copies `str` to `vec` and appends a NUL.
void StringToVector(const std::string& str, std::vector<char>& vec);

}  // namespace google_breakpad
