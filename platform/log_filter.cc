#include "platform/log_filter.h"

#include <string.h>

#include <new>

namespace platform {

struct LogFilter::Rule {
  Rule* next;
  char* tag;  // NUL-terminated, "*" for the default level
  size_t tagLen;
  qd_LogPriority level;
};

namespace {

bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

// QD_LOG_UNKNOWN for anything but one of the letters V D I W E F S, in
// either case.
qd_LogPriority LevelFromLetter(char c) {
  static const char kLetters[] = "vdiwefs";
  const char* hit = strchr(kLetters, c | 0x20);
  if (hit == nullptr) return QD_LOG_UNKNOWN;
  return static_cast<qd_LogPriority>(QD_LOG_VERBOSE + (hit - kLetters));
}

// Parses the rule [begin, end): "tag" or "tag:P". Sets the tag length and
// the level; false when malformed.
bool ParseRule(const char* begin, const char* end, size_t* tagLen, qd_LogPriority* level) {
  const char* colon = static_cast<const char*>(memchr(begin, ':', end - begin));
  if (colon == begin || begin == end) return false;
  if (colon == nullptr) {
    *tagLen = end - begin;
    *level = QD_LOG_VERBOSE;
    return true;
  }
  if (end - colon != 2) return false;
  *tagLen = colon - begin;
  *level = LevelFromLetter(colon[1]);
  return *level != QD_LOG_UNKNOWN;
}

}  // namespace

LogFilter::~LogFilter() { FreeRules(rules_); }

void LogFilter::FreeRules(Rule* rule) {
  while (rule != nullptr) {
    Rule* next = rule->next;
    delete[] rule->tag;
    delete rule;
    rule = next;
  }
}

int LogFilter::Add(const char* text, bool single) {
  if (text == nullptr) return -1;
  // Parsed rules are collected first, in order, so that nothing changes
  // until the whole text is known to be good.
  Rule* pending = nullptr;
  Rule** tail = &pending;
  int count = 0;
  const char* p = text;
  for (;;) {
    while (IsSpace(*p)) ++p;
    if (*p == '\0') break;
    const char* begin = p;
    while (*p != '\0' && !IsSpace(*p)) ++p;
    size_t tagLen = 0;
    qd_LogPriority level = QD_LOG_UNKNOWN;
    Rule* rule = nullptr;
    if (ParseRule(begin, p, &tagLen, &level)) {
      rule = new (std::nothrow) Rule{nullptr, nullptr, tagLen, level};
    }
    if (rule != nullptr) rule->tag = new (std::nothrow) char[tagLen + 1];
    if (rule == nullptr || rule->tag == nullptr) {
      delete rule;
      FreeRules(pending);
      return -1;
    }
    memcpy(rule->tag, begin, tagLen);
    rule->tag[tagLen] = '\0';
    *tail = rule;
    tail = &rule->next;
    ++count;
  }
  if (single && count != 1) {
    FreeRules(pending);
    return -1;
  }
  Merge(pending);
  return 0;
}

// Takes over the pending rules: a later rule for a tag replaces the level of
// an earlier one. Allocates nothing, so it cannot fail half way.
void LogFilter::Merge(Rule* pending) {
  while (pending != nullptr) {
    Rule* rule = pending;
    pending = rule->next;
    rule->next = nullptr;
    if (rule->tagLen == 1 && rule->tag[0] == '*') {
      defaultLevel_ = rule->level;
      FreeRules(rule);
      continue;
    }
    Rule* same = rules_;
    while (same != nullptr && strcmp(same->tag, rule->tag) != 0) same = same->next;
    if (same != nullptr) {
      same->level = rule->level;
      FreeRules(rule);
    } else {
      rule->next = rules_;
      rules_ = rule;
    }
  }
}

qd_LogPriority LogFilter::LevelFor(const char* tag) const {
  for (const Rule* rule = rules_; rule != nullptr; rule = rule->next) {
    if (strcmp(rule->tag, tag) == 0) return rule->level;
  }
  return defaultLevel_;
}

}  // namespace platform
