#include "tools/view/record_filter.h"

namespace view {

namespace {

qd_LogPriority PriorityOf(char letter) {
  switch (letter) {
    case 'V':
      return QD_LOG_VERBOSE;
    case 'D':
      return QD_LOG_DEBUG;
    case 'I':
      return QD_LOG_INFO;
    case 'W':
      return QD_LOG_WARN;
    case 'E':
      return QD_LOG_ERROR;
    case 'F':
      return QD_LOG_FATAL;
    case 'S':
      return QD_LOG_SILENT;
    default:
      return QD_LOG_UNKNOWN;
  }
}

const char* BaseName(const std::string& path) {
  size_t slash = path.rfind('/');
  return path.c_str() + (slash == std::string::npos ? 0 : slash + 1);
}

}  // namespace

RecordFilter::~RecordFilter() {
  if (regexReady_) regfree(&regex_);
}

bool RecordFilter::Init(const FilterOptions& options, std::string* error) {
  options_ = options;
  if (options.silent && tags_.Add("*:S", true) != 0) {
    *error = "cannot apply -s";
    return false;
  }
  for (const std::string& rule : options.specs) {
    if (tags_.Add(rule.c_str(), false) != 0) {
      *error = "invalid filter rule: " + rule;
      return false;
    }
  }
  tagRules_ = options.silent || !options.specs.empty();
  if (options.hasRegex) {
    int rc = regcomp(&regex_, options.regex.c_str(), REG_EXTENDED | REG_NOSUB);
    if (rc != 0) {
      char text[256];
      regerror(rc, &regex_, text, sizeof(text));
      *error = "invalid regular expression: " + std::string(text);
      return false;
    }
    regexReady_ = true;
  }
  any_ = tagRules_ || options.hasPid || options.hasRegex || options.hasSince || options.hasUntil;
  return true;
}

bool RecordFilter::PassTag(const Record& record) {
  const ParsedLine& p = record.parsed;
  if (p.kind == LineKind::kThreadTime) {
    scratch_.assign(p.tag, p.tagLength);
    return PriorityOf(p.priority) >= tags_.LevelFor(scratch_.c_str());
  }
  return QD_LOG_INFO >= tags_.LevelFor(BaseName(record.set->name));
}

bool RecordFilter::Pass(const Record& record) {
  if (!any_) return true;
  if (options_.hasSince && record.ms < options_.since) return false;
  if (options_.hasUntil && record.ms > options_.until) return false;
  const ParsedLine& p = record.parsed;
  if (options_.hasPid && (p.kind != LineKind::kThreadTime || p.pid != options_.pid)) return false;
  if (tagRules_ && !PassTag(record)) return false;
  if (regexReady_) {
    scratch_.assign(p.message, p.messageLength);
    if (regexec(&regex_, scratch_.c_str(), 0, nullptr, 0) != 0) return false;
  }
  return true;
}

}  // namespace view
