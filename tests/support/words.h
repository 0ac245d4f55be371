#ifndef MORVOCAT_TESTS_SUPPORT_WORDS_H_
#define MORVOCAT_TESTS_SUPPORT_WORDS_H_

// Case tables write argument vectors and lists of names as one
// space-separated string a row.

#include <sstream>
#include <string>
#include <vector>

namespace morvotest {

inline std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream in(text);
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_WORDS_H_
