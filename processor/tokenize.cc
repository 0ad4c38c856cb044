#include "processor/tokenize.h"

#include <cstring>

namespace google_breakpad {

int TokenizeTry(char* line, const char* separators, int num_tokens, std::vector<char*>* tokens) {
  tokens->clear();
  tokens->reserve(static_cast<size_t>(num_tokens));

  int remaining = num_tokens;
  char* position = nullptr;
  char* token = strtok_r(line, separators, &position);
  while (token != nullptr && --remaining > 0) {
    tokens->push_back(token);
    if (remaining > 1) token = strtok_r(nullptr, separators, &position);
  }
  // The rest of the line, including separators, is the last token.
  if (remaining == 0) {
    token = strtok_r(nullptr, "\r\n", &position);
    if (token != nullptr) tokens->push_back(token);
  }
  return static_cast<int>(tokens->size());
}

bool Tokenize(char* line, const char* separators, int max_tokens, std::vector<char*>* tokens) {
  return TokenizeTry(line, separators, max_tokens, tokens) == max_tokens;
}

void StringToVector(const std::string& str, std::vector<char>& vec) {
  vec.resize(str.length() + 1);
  if (!str.empty()) std::memcpy(vec.data(), str.data(), str.length());
  vec[str.length()] = '\0';
}

}  // namespace google_breakpad
