// A command line as `main` gets it.
#pragma once

#include <string>
#include <utility>
#include <vector>

/// The program's name and the arguments after it.
class CommandLine {
 public:
  explicit CommandLine(std::vector<std::string> arguments) : texts(std::move(arguments)) {
    texts.insert(texts.begin(), "bonjour");
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
  }
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  int Count() const { return static_cast<int>(texts.size()); }
  /// Ends with a null pointer. Lives as long as this object.
  char* const* Values() const { return pointers.data(); }

 private:
  std::vector<std::string> texts;
  std::vector<char*> pointers;
};
