#include "reader/get_opt_long.h"

#include <stdarg.h>
#include <string.h>

#include <utility>

namespace {

const char kEmpty[] = "";

enum class Mode { kPermute, kReturnInOrder, kStopAtNonOption };

// The letters with the mode character already skipped.
bool Silent(const char* letters) { return letters[0] == ':'; }

int MissingArgResult(const char* letters) { return Silent(letters) ? ':' : '?'; }

__attribute__((format(printf, 3, 4))) void Warn(const GetOptContext* ctx, const char* letters,
                                                const char* format, ...) {
  if (ctx->opterr == 0 || Silent(letters)) {
    return;
  }
  va_list args;
  va_start(args, format);
  vfprintf(ctx->errorOut != nullptr ? ctx->errorOut : stderr, format, args);
  va_end(args);
}

const char* Prefix(int prefixKind) {
  switch (prefixKind) {
    case 0:
      return "-";
    case 1:
      return "--";
    case 2:
      return "-W ";
    default:
      return "";
  }
}

int Gcd(int a, int b) {
  while (b != 0) {
    int rest = a % b;
    a = b;
    b = rest;
  }
  return a;
}

// Moves the skipped non-options [skipStart, skipEnd) behind the options
// [skipEnd, optind) that followed them, both blocks keeping their order,
// in place by following the cycles of the rotation.
void PermuteArgs(char* const* argv, const GetOptContext* ctx) {
  int nonOpts = ctx->skipEnd - ctx->skipStart;
  int opts = ctx->optind - ctx->skipEnd;
  if (nonOpts < 1 || opts < 1) {
    return;
  }
  int cycles = Gcd(nonOpts, opts);
  int cycleLen = (ctx->optind - ctx->skipStart) / cycles;
  // The caller's array is ours to reorder, as with the platform getopt.
  char** args = const_cast<char**>(argv);
  for (int i = 0; i < cycles; ++i) {
    int start = ctx->skipEnd + i;
    int pos = start;
    for (int j = 0; j < cycleLen; ++j) {
      pos += (pos >= ctx->skipEnd) ? -nonOpts : opts;
      std::swap(args[pos], args[start]);
    }
  }
}

int LongOptionError(const option& opt) { return opt.flag == nullptr ? opt.val : 0; }

// Finds the record for the typed name: an exact match wins at once; an
// abbreviation is ambiguous only when its candidates would act differently.
int MatchLongOption(const char* name, size_t nameLen, const option* longopts, bool* ambiguous) {
  int match = -1;
  *ambiguous = false;
  for (int i = 0; longopts[i].name != nullptr; ++i) {
    const option& opt = longopts[i];
    if (strncmp(opt.name, name, nameLen) != 0) {
      continue;
    }
    if (strlen(opt.name) == nameLen) {
      *ambiguous = false;
      return i;
    }
    if (match == -1) {
      match = i;
    } else if (opt.has_arg != longopts[match].has_arg || opt.flag != longopts[match].flag ||
               opt.val != longopts[match].val) {
      *ambiguous = true;
    }
  }
  return match;
}

// Matches the long option at nextChar. The bool would allow a fall back to
// short options for single-dash long options, which the reader never asks.
int ParseLongOptions(int argc, char* const* argv, const char* letters, const option* longopts,
                     int* longindex, bool /*shortTooAllowed*/, GetOptContext* ctx) {
  const char* text = ctx->nextChar;
  const char* prefix = Prefix(ctx->prefixKind);
  ++ctx->optind;
  const char* equals = strchr(text, '=');
  size_t nameLen = equals != nullptr ? static_cast<size_t>(equals - text) : strlen(text);
  const char* value = equals != nullptr ? equals + 1 : nullptr;

  bool ambiguous = false;
  int match = MatchLongOption(text, nameLen, longopts, &ambiguous);
  if (ambiguous) {
    Warn(ctx, letters, "option `%s%.*s' is ambiguous", prefix, static_cast<int>(nameLen), text);
    ctx->optopt = 0;
    return '?';
  }
  if (match == -1) {
    Warn(ctx, letters, "unrecognized option `%s%s'", prefix, text);
    ctx->optopt = 0;
    return '?';
  }
  const option& opt = longopts[match];
  if (value != nullptr && opt.has_arg == no_argument) {
    Warn(ctx, letters, "option `%s%.*s' doesn't allow an argument", prefix,
         static_cast<int>(nameLen), text);
    ctx->optopt = LongOptionError(opt);
    return '?';
  }
  if (opt.has_arg == required_argument || opt.has_arg == optional_argument) {
    ctx->optarg = value;
    if (value == nullptr && opt.has_arg == required_argument) {
      ctx->optarg = ctx->optind < argc ? argv[ctx->optind] : nullptr;
      ++ctx->optind;
    }
  }
  if (opt.has_arg == required_argument && ctx->optarg == nullptr) {
    Warn(ctx, letters, "option `%s%s' requires an argument", prefix, text);
    ctx->optopt = LongOptionError(opt);
    --ctx->optind;
    return MissingArgResult(letters);
  }
  if (longindex != nullptr) {
    *longindex = match;
  }
  if (opt.flag != nullptr) {
    *opt.flag = opt.val;
    return 0;
  }
  return opt.val;
}

// Ends the scan: the skipped non-options go behind the options and optind
// points at the first of them.
int EndOfScan(char* const* argv, GetOptContext* ctx) {
  ctx->nextChar = kEmpty;
  if (ctx->skipEnd != -1) {
    PermuteArgs(argv, ctx);
    ctx->optind -= ctx->skipEnd - ctx->skipStart;
  } else if (ctx->skipStart != -1) {
    ctx->optind = ctx->skipStart;
  }
  ctx->skipStart = -1;
  ctx->skipEnd = -1;
  return -1;
}

// Remembers a non-option to move later; once options have followed the
// skipped block, moves it up to here so the skipped ones stay contiguous.
void SkipNonOption(char* const* argv, GetOptContext* ctx) {
  if (ctx->skipStart == -1) {
    ctx->skipStart = ctx->optind;
  } else if (ctx->skipEnd != -1) {
    PermuteArgs(argv, ctx);
    ctx->skipStart = ctx->optind - (ctx->skipEnd - ctx->skipStart);
    ctx->skipEnd = -1;
  }
  ++ctx->optind;
}

bool IsOption(const char* arg) { return arg[0] == '-' && arg[1] != '\0'; }

// Finds the next option argument and leaves nextChar past its dash.
// Returns 0 when one was found, else the value GetOptLong returns
// (1 in "-" mode, -1 at the end of the options).
int NextArgument(int argc, char* const* argv, Mode mode, GetOptContext* ctx) {
  ctx->optreset = 0;
  while (true) {
    if (ctx->optind >= argc) {
      return EndOfScan(argv, ctx);
    }
    const char* arg = argv[ctx->optind];
    if (IsOption(arg)) {
      ctx->nextChar = arg;
      break;
    }
    ctx->nextChar = kEmpty;
    if (mode == Mode::kReturnInOrder) {
      ctx->optarg = arg;
      ++ctx->optind;
      return 1;
    }
    if (mode == Mode::kStopAtNonOption) {
      return -1;
    }
    SkipNonOption(argv, ctx);
  }
  if (ctx->skipStart != -1 && ctx->skipEnd == -1) {
    ctx->skipEnd = ctx->optind;
  }
  ++ctx->nextChar;
  if (strcmp(ctx->nextChar, "-") == 0) {
    ++ctx->optind;
    ctx->nextChar = kEmpty;
    return EndOfScan(argv, ctx);
  }
  return 0;
}

// "-W name" or "-Wname" with "W;" in the letters: a long option.
int ParseWOption(int argc, char* const* argv, const char* letters, const option* longopts,
                 int* longindex, GetOptContext* ctx) {
  if (*ctx->nextChar == '\0') {
    if (++ctx->optind >= argc) {
      Warn(ctx, letters, "option requires an argument -- %c", 'W');
      ctx->optopt = 'W';
      ctx->nextChar = kEmpty;
      return MissingArgResult(letters);
    }
    ctx->nextChar = argv[ctx->optind];
  }
  ctx->prefixKind = 2;
  int result = ParseLongOptions(argc, argv, letters, longopts, longindex, false, ctx);
  ctx->nextChar = kEmpty;
  return result;
}

// The letter's entry points into the letters; the argument's rest, or the next
// argument, becomes optarg.
int TakeArgument(int argc, char* const* argv, const char* letters, const char* entry,
                 GetOptContext* ctx) {
  int letter = entry[0];
  if (*ctx->nextChar != '\0') {
    ctx->optarg = ctx->nextChar;
  } else if (entry[2] != ':') {
    if (++ctx->optind >= argc) {
      Warn(ctx, letters, "option requires an argument -- %c", letter);
      ctx->optopt = letter;
      ctx->nextChar = kEmpty;
      return MissingArgResult(letters);
    }
    ctx->optarg = argv[ctx->optind];
  }
  ctx->nextChar = kEmpty;
  ++ctx->optind;
  return letter;
}

int ParseShortOption(int argc, char* const* argv, const char* letters, const option* longopts,
                     int* longindex, GetOptContext* ctx) {
  int letter = static_cast<unsigned char>(*ctx->nextChar++);
  bool atEnd = *ctx->nextChar == '\0';
  const char* entry = strchr(letters, letter);
  if (letter == ':' || (letter == '-' && !atEnd) || entry == nullptr) {
    if (letter == '-' && atEnd) {
      return -1;
    }
    if (atEnd) {
      ++ctx->optind;
    }
    Warn(ctx, letters, "invalid option -- %c", letter);
    ctx->optopt = letter;
    return '?';
  }
  if (longopts != nullptr && letter == 'W' && entry[1] == ';') {
    return ParseWOption(argc, argv, letters, longopts, longindex, ctx);
  }
  if (entry[1] != ':') {
    if (atEnd) {
      ++ctx->optind;
    }
    return letter;
  }
  return TakeArgument(argc, argv, letters, entry, ctx);
}

}  // namespace

void InitGetOptContext(GetOptContext* ctx, FILE* errorOut) {
  ctx->opterr = errorOut != nullptr ? 1 : 0;
  ctx->optind = 1;
  ctx->optopt = '?';
  ctx->optreset = 0;
  ctx->optarg = nullptr;
  ctx->errorOut = errorOut;
  ctx->nextChar = kEmpty;
  ctx->skipStart = -1;
  ctx->skipEnd = -1;
  ctx->prefixKind = -1;
}

int GetOptLong(int argc, char* const* argv, const char* optstring, const option* longopts,
               int* longindex, GetOptContext* ctx) {
  if (optstring == nullptr) {
    return -1;
  }
  if (ctx->optind == 0) {
    ctx->optind = 1;
    ctx->optreset = 1;
  }
  Mode mode = Mode::kPermute;
  if (optstring[0] == '-') {
    mode = Mode::kReturnInOrder;
  } else if (optstring[0] == '+') {
    mode = Mode::kStopAtNonOption;
  }
  const char* letters = mode == Mode::kPermute ? optstring : optstring + 1;
  ctx->optarg = nullptr;
  if (ctx->optreset != 0) {
    ctx->skipStart = -1;
    ctx->skipEnd = -1;
  }
  if (ctx->optreset != 0 || *ctx->nextChar == '\0') {
    int result = NextArgument(argc, argv, mode, ctx);
    if (result != 0) {
      return result;
    }
  }
  if (longopts != nullptr && ctx->nextChar != argv[ctx->optind] && *ctx->nextChar == '-') {
    ++ctx->nextChar;
    ctx->prefixKind = 1;
    int result = ParseLongOptions(argc, argv, letters, longopts, longindex, false, ctx);
    ctx->nextChar = kEmpty;
    return result;
  }
  return ParseShortOption(argc, argv, letters, longopts, longindex, ctx);
}

int getopt_long_r(int argc, char* const* argv, const char* optstring, const option* longopts,
                  int* longindex, GetOptContext* ctx) {
  return GetOptLong(argc, argv, optstring, longopts, longindex, ctx);
}
