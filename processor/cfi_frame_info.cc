#include "processor/cfi_frame_info.h"

#include <cstring>
#include <vector>

#include "processor/tokenize.h"

namespace google_breakpad {

bool CFIRuleParser::Parse(const std::string& rule_set) {
  std::vector<char> work;
  StringToVector(rule_set, work);
  name_.clear();
  expression_.clear();

  char* position = nullptr;
  for (char* token = strtok_r(work.data(), " \t\r\n", &position); token != nullptr;
       token = strtok_r(nullptr, " \t\r\n", &position)) {
    const size_t length = strlen(token);
    if (token[length - 1] == ':') {
      if (length == 1) return false;
      if ((!name_.empty() || !expression_.empty()) && !Report()) return false;
      name_.assign(token, length - 1);
      expression_.clear();
    } else {
      if (!expression_.empty()) expression_ += ' ';
      expression_ += token;
    }
  }
  return Report();
}

bool CFIRuleParser::Report() {
  if (name_.empty() || expression_.empty()) return false;
  if (name_ == ".cfa") {
    handler_->CFARule(expression_);
  } else if (name_ == ".ra") {
    handler_->RARule(expression_);
  } else {
    handler_->RegisterRule(name_, expression_);
  }
  return true;
}

void CFIFrameInfoParseHandler::CFARule(const std::string& expression) {
  frame_info_->SetCFARule(expression);
}

void CFIFrameInfoParseHandler::RARule(const std::string& expression) {
  frame_info_->SetRARule(expression);
}

void CFIFrameInfoParseHandler::RegisterRule(const std::string& name,
                                            const std::string& expression) {
  frame_info_->SetRegisterRule(name, expression);
}

}  // namespace google_breakpad
