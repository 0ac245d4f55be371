// Arbitrary argument vectors through the option parser: the reader's own
// command line, and any letters, scan mode and long options.
//
// Input: one control byte, then NUL-separated pieces. With control bit 0
// clear the pieces are the reader's arguments; with it set the first piece
// is the letters and the rest are the arguments.

#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "platform/log_format.h"
#include "reader/get_opt_long.h"
#include "reader/logcat_context.h"
#include "reader/logcat_options.h"

using morvofuzz::Check;

namespace {

FILE* gNull = nullptr;
int gFlag = 0;

// Prefixes that share a stem with different actions ("al", "fl") make
// abbreviations ambiguous; the flag entries return 0.
const option kLongOptions[] = {
    {"alpha", no_argument, nullptr, 'a'},
    {"alps", required_argument, nullptr, 'b'},
    {"beta", optional_argument, nullptr, 0},
    {"flag", no_argument, &gFlag, 7},
    {"flagged", required_argument, &gFlag, 8},
    {"w", no_argument, nullptr, 'w'},
    {nullptr, 0, nullptr, 0},
};

struct Args {
  std::vector<std::string> text;
  std::vector<char*> argv;  // ends with null, as main's does

  explicit Args(std::vector<std::string> pieces) : text(std::move(pieces)) {
    text.insert(text.begin(), "morvocat");
    for (std::string& t : text) argv.push_back(&t[0]);
    argv.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(text.size()); }
  bool Owns(const char* p) const {
    for (const std::string& t : text) {
      if (p >= t.data() && p <= t.data() + t.size()) return true;
    }
    return false;
  }
  // The parser may only reorder the vector, never lose or invent an entry.
  void CheckPermutation() const {
    std::vector<const char*> now(argv.begin(), argv.end() - 1);
    std::vector<const char*> was;
    for (const std::string& t : text) was.push_back(t.data());
    std::sort(now.begin(), now.end());
    std::sort(was.begin(), was.end());
    Check(now == was, "argument vector is not a permutation of the input");
    Check(argv.back() == nullptr, "argument vector lost its terminator");
  }
};

void RunReaderOptions(std::vector<std::string> pieces) {
  Args args(std::move(pieces));
  android_logcat_context_internal ctx;
  ctx.argCount = args.argc();
  ctx.argVector = args.argv.data();
  ctx.errorStream = gNull;
  ctx.logFormat = qdlogging_log_format_new();
  if (ctx.logFormat == nullptr) return;
  qdlogging::RunOptions opts;
  if (qdlogging::ParseOptions(&ctx, &opts)) {
    Check(opts.firstFilterArg >= 1 && opts.firstFilterArg <= args.argc(),
          "first filter argument out of range");
    qdlogging::AddDefaultBuffers(&ctx, opts);
  }
  args.CheckPermutation();
  qdlogging::FreeDevices(&ctx);
  qdlogging_log_format_free(ctx.logFormat);
}

void RunAnyLetters(uint8_t control, std::vector<std::string> pieces) {
  std::string letters = pieces.front();
  pieces.erase(pieces.begin());
  Args args(std::move(pieces));
  GetOptContext ctx;
  InitGetOptContext(&ctx, (control & 2) != 0 ? gNull : nullptr);
  const option* longopts = (control & 4) != 0 ? kLongOptions : nullptr;
  // Every call consumes at least one letter or one argument.
  size_t budget = letters.size() + 4;
  for (const std::string& t : args.text) budget += t.size() + 2;
  for (;;) {
    Check(budget-- > 0, "parser does not come to an end");
    int index = -1;
    int ret = getopt_long_r(args.argc(), args.argv.data(), letters.c_str(), longopts, &index, &ctx);
    Check(ctx.optind >= 1 && ctx.optind <= args.argc(), "optind out of range");
    Check(ctx.optarg == nullptr || args.Owns(ctx.optarg), "optarg outside the arguments");
    Check(index == -1 || (longopts != nullptr && index >= 0 && index < 6),
          "long index out of range");
    if (ret == -1) break;
  }
  args.CheckPermutation();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gNull = fopen("/dev/null", "w");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 4096) return 0;
  std::vector<std::string> pieces = morvofuzz::SplitAtNul(data + 1, size - 1);
  if ((data[0] & 1) == 0) {
    RunReaderOptions(std::move(pieces));
  } else {
    RunAnyLetters(data[0], std::move(pieces));
  }
  return 0;
}
