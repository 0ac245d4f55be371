// Filter expressions: rule strings and single rules as a user types them,
// then the verdict for tags and priorities.
//
// Input: NUL-separated pieces. The first is added as a rule string, the
// others alternately as single rules and as tags to look up; the first byte
// of a tag piece also picks the priority.

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "platform/log_format.h"

using morvofuzz::Check;

namespace {

constexpr size_t kMaxPieces = 64;

// The lowest priority that prints for tag: 9 when none does.
int LowestPrinted(QdLogFormat* format, const std::string& tag) {
  for (int p = QD_LOG_UNKNOWN; p <= QD_LOG_SILENT; ++p) {
    if (qdlogging_log_shouldPrintLine(format, tag.c_str(), static_cast<qd_LogPriority>(p))) {
      return p;
    }
  }
  return QD_LOG_SILENT + 1;
}

std::vector<int> Levels(QdLogFormat* format, const std::vector<std::string>& tags) {
  std::vector<int> levels;
  for (const std::string& tag : tags) levels.push_back(LowestPrinted(format, tag));
  return levels;
}

// The level a well-formed single rule "tag:X" sets, for a tag other than
// "*" without blanks; -1 for any other text.
int SimpleRuleLevel(const std::string& rule, std::string* tag) {
  size_t colon = rule.find(':');
  if (colon == std::string::npos || colon == 0 || colon + 2 != rule.size()) return -1;
  *tag = rule.substr(0, colon);
  if (*tag == "*" || tag->find_first_of(" \t\n\r\f\v") != std::string::npos) return -1;
  const char* letters = "vdiwefs";
  const char* hit = strchr(letters, rule[colon + 1] | 0x20);
  if (hit == nullptr) return -1;
  return QD_LOG_VERBOSE + static_cast<int>(hit - letters);
}

// Adds text; a rejected text must leave every verdict as it was.
void AddAndCheck(QdLogFormat* format, const std::string& text, bool single,
                 const std::vector<std::string>& probes) {
  std::vector<int> before = Levels(format, probes);
  int rc = single ? qdlogging_log_addFilterRule(format, text.c_str())
                  : qdlogging_log_addFilterString(format, text.c_str());
  if (rc != 0) {
    Check(Levels(format, probes) == before, "a rejected rule changed the filter");
    return;
  }
  std::string tag;
  int level = single ? SimpleRuleLevel(text, &tag) : -1;
  if (level >= 0) Check(LowestPrinted(format, tag) == level, "a rule did not set its level");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  std::vector<std::string> pieces = morvofuzz::SplitAtNul(data, size);
  // Every rule is checked against every tag: a few dozen of each keep a
  // run fast.
  if (pieces.size() > kMaxPieces) return 0;
  std::vector<std::string> rules, tags;
  for (size_t i = 1; i < pieces.size(); ++i) (i % 2 == 1 ? rules : tags).push_back(pieces[i]);
  QdLogFormat* format = qdlogging_log_format_new();
  if (format == nullptr) return 0;
  AddAndCheck(format, pieces[0], false, tags);
  for (const std::string& rule : rules) AddAndCheck(format, rule, true, tags);
  for (const std::string& tag : tags) {
    qd_LogPriority priority =
        static_cast<qd_LogPriority>(tag.empty() ? 0 : static_cast<uint8_t>(tag[0]) % 9);
    qdlogging_log_shouldPrintLine(format, tag.c_str(), priority);
  }
  qdlogging_log_format_free(format);
  return 0;
}
