#include "reader/logcat_options.h"

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <string>

#include "reader/get_opt_long.h"

namespace qdlogging {
namespace {

constexpr char kOptionLetters[] = ":cdDhLt:T:gG:sQf:r:z:n:v:b:BSpP:m:e:x:";
constexpr int kWrapSeconds = 7200;
constexpr char kBufferSeparators[] = ",:; \t\n\r\f";

// Options that the parser reports with a val of 0, told apart by index.
enum LongIndex { kDebug = 3, kId = 5, kPid = 6, kPrint = 7, kWrap = 12, kTavo = 13 };

const option kLongOptions[] = {
    {"buffer", required_argument, nullptr, 'b'},
    {"buffer-size", optional_argument, nullptr, 'g'},
    {"clear", no_argument, nullptr, 'c'},
    {"debug", no_argument, nullptr, 0},
    {"file", required_argument, nullptr, 'f'},
    {"id", required_argument, nullptr, 0},
    {"pid", required_argument, nullptr, 0},
    {"print", no_argument, nullptr, 0},
    {"compress-files", required_argument, nullptr, 'z'},
    {"rotate-count", required_argument, nullptr, 'n'},
    {"rotate-kbytes", required_argument, nullptr, 'r'},
    {"statistics", no_argument, nullptr, 'S'},
    {"wrap", optional_argument, nullptr, 0},
    {"tavo", required_argument, nullptr, 0},
    {nullptr, 0, nullptr, 0},
};

// strtoll in base 0 that consumed the whole text without an error.
bool ParseWhole(const char* text, long long* value) {
  if (text == nullptr) return false;
  char* end = nullptr;
  errno = 0;
  *value = strtoll(text, &end, 0);
  return errno == 0 && end != text && *end == '\0';
}

bool ParseBufferSize(const char* text, int64_t* size) {
  char* end = nullptr;
  errno = 0;
  long long value = strtoll(text, &end, 0);
  if (errno != 0 || end == text) return false;
  if (value < 0) value = 0;
  if ((*end == 'k' || *end == 'K') && end[1] == '\0') {
    if (value > INT64_MAX / 1024) return false;
    value *= 1024;
  } else if (*end != '\0') {
    return false;
  }
  *size = value;
  return value != 0;
}

bool KnownRoundTrip(log_id_t id) {
  return qdlogging_name_to_log_id(qdlogging_log_id_to_name(id)) == id;
}

bool HasDevice(const android_logcat_context_internal* ctx, const char* name) {
  for (const LogDevice* d = ctx->devices; d != nullptr; d = d->next) {
    if (strcmp(d->name, name) == 0) return true;
  }
  return false;
}

void AppendDevice(android_logcat_context_internal* ctx, const char* name) {
  if (HasDevice(ctx, name)) return;
  LogDevice* device = new (std::nothrow) LogDevice;
  if (device == nullptr) return;
  device->name = name;
  LogDevice** tail = &ctx->devices;
  while (*tail != nullptr) tail = &(*tail)->next;
  *tail = device;
  ctx->deviceCount++;
}

// -b: names split at separators; the list comes out in log-id order.
bool SelectBuffers(android_logcat_context_internal* ctx, const char* arg) {
  std::string copy(arg);
  uint32_t mask = 0;
  char* save = nullptr;
  for (char* name = strtok_r(&copy[0], kBufferSeparators, &save); name != nullptr;
       name = strtok_r(nullptr, kBufferSeparators, &save)) {
    log_id_t id = qdlogging_name_to_log_id(name);
    if (id >= LOG_ID_MAX || strcmp(qdlogging_log_id_to_name(id), name) != 0) {
      LogcatPanic(ctx, HELP_USAGE, "unknown buffer %s\n", name);
      return false;
    }
    mask |= 1u << id;
  }
  for (int id = LOG_ID_MIN; id < LOG_ID_MAX; ++id) {
    log_id_t logId = static_cast<log_id_t>(id);
    if (KnownRoundTrip(logId) && (mask & (1u << id)) != 0) {
      AppendDevice(ctx, qdlogging_log_id_to_name(logId));
    }
  }
  return true;
}

bool RangeError(android_logcat_context_internal* ctx, const char* what, const char* arg) {
  LogcatPanic(ctx, HELP_USAGE, "%s %s out of range\n", what, arg);
  return false;
}

bool ApplyWrap(android_logcat_context_internal* ctx, RunOptions* opts, const char* arg) {
  if (arg != nullptr) {
    long long seconds = 0;
    if (!ParseWhole(arg, &seconds) || seconds == 0) return RangeError(ctx, "wrap", arg);
    if (seconds != kWrapSeconds) {
      PrintError(ctx, "WARNING: %s %u seconds, ignoring %zu\n", "wrap", kWrapSeconds,
                 static_cast<size_t>(seconds));
    }
  }
  opts->readMode |= QD_LOGGER_MODE_WRAP | QD_LOGGER_MODE_NONBLOCK;
  return true;
}

// The long options that the parser returns as 0.
bool ApplyIndexedOption(android_logcat_context_internal* ctx, RunOptions* opts, int index,
                        const char* arg) {
  long long value = 0;
  switch (index) {
    case kPid:
      if (!ParseWhole(arg, &value) || value == 0) return RangeError(ctx, "pid", arg);
      opts->pid = static_cast<int>(value);
      return true;
    case kWrap:
      return ApplyWrap(ctx, opts, arg);
    case kTavo:
      if (!ParseWhole(arg, &value) || value < 0 || value > 3) return RangeError(ctx, "tavo", arg);
      opts->collectorKind = static_cast<uint64_t>(value);
      return true;
    default:  // --debug, --id, --print: accepted, no effect
      return true;
  }
}

bool InvalidParameter(android_logcat_context_internal* ctx, char letter, const char* arg) {
  LogcatPanic(ctx, HELP_USAGE, "Invalid parameter \"%s\" to -%c\n", arg, letter);
  return false;
}

// -r and -n: a whole, positive number (a negative one would wrap to a huge
// unsigned size or count).
bool ParseCount(android_logcat_context_internal* ctx, char letter, const char* arg, uint64_t* out) {
  long long value = 0;
  if (!ParseWhole(arg, &value) || value <= 0) return InvalidParameter(ctx, letter, arg);
  *out = static_cast<uint64_t>(value);
  return true;
}

bool ApplyLetter(android_logcat_context_internal* ctx, RunOptions* opts, int letter,
                 const char* arg, int optopt) {
  // Parse errors name the parser's culprit; letters we do not support name
  // themselves.
  if (letter != '?' && letter != ':') optopt = letter;
  long long value = 0;
  switch (letter) {
    case 'c':
      opts->clearRequest = true;
      opts->readMode |= 0x1;
      return true;
    case 'd':
      opts->readMode |= QD_LOGGER_MODE_NONBLOCK;
      return true;
    case 't':
      if (!ParseWhole(arg, &value)) return InvalidParameter(ctx, 't', arg);
      opts->tailLines = static_cast<int>(value);
      opts->readMode |= QD_LOGGER_MODE_NONBLOCK;
      return true;
    case 'g':
      if (arg == nullptr) {
        opts->sizeReport = true;
        return true;
      }
      [[fallthrough]];
    case 'G':
      if (!ParseBufferSize(arg, &opts->newSize)) {
        LogcatPanic(ctx, HELP_NONE, "ERROR: -G <num><multiplier>\n");
        return false;
      }
      return true;
    case 'b':
      opts->buffersGiven = true;
      return SelectBuffers(ctx, arg);
    case 's':
      qdlogging_log_addFilterRule(ctx->logFormat, "*:s");
      return true;
    case 'f':
      ctx->outputFileName = arg;
      return true;
    case 'r':
      return ParseCount(ctx, 'r', arg, &ctx->rotateKBytes);
    case 'n':
      return ParseCount(ctx, 'n', arg, &ctx->rotateCount);
    case 'z':
      if (!isdigit(static_cast<unsigned char>(arg[0]))) {
        LogcatPanic(ctx, HELP_NONE, "Invalid parameter to -z\n");
        return false;
      }
      ctx->compressCount = strtoull(arg, nullptr, 10);
      return true;
    case 'x':
      opts->collectorName = arg[0] != '\0' ? arg : nullptr;
      return true;
    default:
      LogcatPanic(ctx, HELP_USAGE, "Unrecognized Option %c\n", optopt);
      return false;
  }
}

}  // namespace

bool ParseOptions(android_logcat_context_internal* ctx, RunOptions* opts) {
  GetOptContext parser;
  InitGetOptContext(&parser, ctx->errorStream);
  for (;;) {
    int index = 0;
    int ret =
        getopt_long_r(ctx->argCount, ctx->argVector, kOptionLetters, kLongOptions, &index, &parser);
    if (ret < 0) break;
    // An unknown long option leaves no letter to name: the word itself is
    // named rather than a NUL byte.
    if (ret == '?' && parser.optopt == 0 && parser.optind > 0) {
      LogcatPanic(ctx, HELP_USAGE, "Unrecognized Option %s\n", ctx->argVector[parser.optind - 1]);
      return false;
    }
    bool ok = ret == 0 ? ApplyIndexedOption(ctx, opts, index, parser.optarg)
                       : ApplyLetter(ctx, opts, ret, parser.optarg, parser.optopt);
    if (!ok) return false;
  }
  opts->firstFilterArg = parser.optind;
  return true;
}

void AddDefaultBuffers(android_logcat_context_internal* ctx, const RunOptions& opts) {
  AppendDevice(ctx, "morvo_main");
  struct Default {
    const char* name;
    log_id_t id;
    bool onlyForOperations;
  };
  static const Default kDefaults[] = {
      {"morvo_system", LOG_ID_SYSTEM, false},
      {"morvo_events", LOG_ID_EVENTS, true},
      {"morvo_radio", LOG_ID_RADIO, true},
      {"morvo_crash", LOG_ID_CRASH, false},
  };
  for (const Default& d : kDefaults) {
    if (d.onlyForOperations && !IsBufferOperation(opts)) continue;
    if (qdlogging_name_to_log_id(d.name) == d.id) AppendDevice(ctx, qdlogging_log_id_to_name(d.id));
  }
}

}  // namespace qdlogging
