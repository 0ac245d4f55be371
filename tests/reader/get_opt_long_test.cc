#include "reader/get_opt_long.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "support/reader_run.h"
#include "support/temp_root.h"

namespace {

using Words = std::vector<std::string>;

// Argv's vector the parser may reorder (argv[0] left out of words), messages to a memory stream.
class Args {
 public:
  explicit Args(Words words) : argv_(std::move(words)) {
    out_ = open_memstream(&buf_, &len_);
    InitGetOptContext(&ctx_, out_);
  }
  ~Args() {
    fclose(out_);
    free(buf_);
  }
  Args(const Args&) = delete;
  Args& operator=(const Args&) = delete;

  int Next(const char* letters, const option* longopts = nullptr, int* longindex = nullptr) {
    return getopt_long_r(argv_.argc(), argv_.argv(), letters, longopts, longindex, &ctx_);
  }
  Words Current() { return Words(argv_.argv() + 1, argv_.argv() + argv_.argc()); }
  std::string Messages() { return fflush(out_) == 0 ? std::string(buf_, len_) : "<unflushed>"; }
  std::string Optarg() const { return ctx_.optarg != nullptr ? ctx_.optarg : "<null>"; }
  GetOptContext& ctx() { return ctx_; }

 private:
  morvotest::Argv argv_;
  GetOptContext ctx_;
  char* buf_ = nullptr;
  size_t len_ = 0;
  FILE* out_ = nullptr;
};

// A context made without a stream is silent; opterr with no stream writes to stderr.
TEST(GetOptShortTest, MessagesNeedOpterrAndGoToStderrWithoutAStream) {
  Args quiet({"-x"}), loud({"-x"});
  InitGetOptContext(&quiet.ctx(), nullptr);
  loud.ctx().errorOut = nullptr;
  ::testing::internal::CaptureStderr();
  EXPECT_EQ('?', quiet.Next("b"));
  EXPECT_EQ('?', loud.Next("b"));
  EXPECT_EQ("invalid option -- x", ::testing::internal::GetCapturedStderr());
}

int gFlag = 0;

const option kLong[] = {
    {"buffer", required_argument, nullptr, 'b'},
    {"buffer-size", optional_argument, nullptr, 'g'},
    {"clear", no_argument, nullptr, 'c'},
    {"color", no_argument, nullptr, 'C'},
    {"debug", no_argument, &gFlag, 7},
    {"wrap", optional_argument, nullptr, 0},
    {"verbose", no_argument, nullptr, 'v'},
    {"version", no_argument, nullptr, 'v'},
    {nullptr, 0, nullptr, 0},
};

const option kWrapNames[] = {
    {"wrapper", required_argument, nullptr, 'w'},
    {"wrap-all", no_argument, nullptr, 'a'},
    {"wrap", no_argument, nullptr, 'W'},
    {nullptr, 0, nullptr, 0},
};

// One parse to its end, a token per call: "<letter|number>[=optarg][!optopt][#longindex]@optind".
std::string Trace(Args* args, const char* letters, const option* longopts, bool indexed) {
  std::string trace;
  for (int calls = 0; calls < 20; ++calls) {
    int index = -1;
    int c = args->Next(letters, longopts, indexed ? &index : nullptr);
    const GetOptContext& ctx = args->ctx();
    trace += trace.empty() ? "" : " ";
    trace += c > ' ' && c < 127 ? std::string(1, static_cast<char>(c)) : std::to_string(c);
    if (c != -1 && ctx.optarg != nullptr) trace += std::string("=") + ctx.optarg;
    if (c == '?' || c == ':') {
      trace += ctx.optopt > ' ' ? std::string("!") + static_cast<char>(ctx.optopt) : "!0";
    }
    if (c != -1 && indexed) trace += "#" + std::to_string(index);
    trace += "@" + std::to_string(ctx.optind);
    if (c == -1) break;
  }
  return trace;
}

// Words and arrays are written space-separated.
struct ParseCase {
  const char* words;
  const char* letters;
  const option* longopts;
  const char* trace;
  const char* after;  // the array at the end; "": as given
  const char* messages;
  int flag = 0;          // what --debug left in gFlag
  bool indexed = false;  // the index of the long option found is asked for
};

// clang-format off
const ParseCase kParses[] = {
    {"a -b c -d", "bd", nullptr, "b@3 d@5 -1@3", "-b -d a c", ""},
    {"x -b y -d -- -b z", "bd", nullptr, "b@3 d@5 -1@4", "-b -d -- x y -b z", ""},
    {"-b x - y", "bd", nullptr, "b@2 -1@2", "", ""},
    {"a b -b -d -b", "bd", nullptr, "b@4 d@5 b@6 -1@4", "-b -d -b a b", ""},
    {"a -b - c", "-bd", nullptr, "1=a@2 b@3 1=-@4 1=c@5 -1@5", "", ""},
    {"-b a -d", "+bd", nullptr, "b@2 -1@2", "", ""},
    {"-b", nullptr, nullptr, "-1@1", "", ""},
    {"-bd -fone -f two -bftail -o -oval x", "bdf:o::", nullptr, "b@1 d@2 f=one@3 f=two@5 b@5 f=tail@6 o@7 o=val@8 -1@8", "", ""},
    {"-f", "bf:", nullptr, "?!f@2 -1@2", "", "option requires an argument -- f"},
    {"-bf -x", ":bf:", nullptr, "b@1 f=-x@3 -1@3", "", ""},
    {"-x -f", "+:bf:", nullptr, "?!x@2 :!f@3 -1@3", "", ""},
    {"-xb -:", "b", nullptr, "?!x@1 b@2 ?!:@3 -1@3", "", "invalid option -- xinvalid option -- :"},
    {"--x -b- a", "b", nullptr, "?!-@1 ?!x@2 b@2 -1@2", "", "invalid option -- -invalid option -- x"},
    {"--buffer main --buffer=sys --buf x --clear --deb", "b:", kLong, "b=main#0@3 b=sys#0@4 ?!0#-1@5 c#2@7 0#4@8 -1@7", "--buffer main --buffer=sys --buf --clear --deb x", "option `--buf' is ambiguous", 7, true},
    {"--ver --c", "", kLong, "v#6@2 ?!0#-1@3 -1@3", "", "option `--c' is ambiguous", 0, true},
    {"--wrap", "", kWrapNames, "W#2@2 -1@2", "", "", 0, true},
    {"--clear=yes --debug=1 --nope=2 --buffer", "", kLong, "?!c@2 ?!0@3 ?!0@4 ?!b@5 -1@5", "", "option `--clear' doesn't allow an argument" "option `--debug' doesn't allow an argument" "unrecognized option `--nope=2'" "option `--buffer' requires an argument"},
    {"--buffer", ":", kLong, ":!b@2 -1@2", "", ""},
    {"--wrap=5 --buffer-size 9 --wrap=", "", kLong, "0=5#5@2 g#1@3 0=#5@5 -1@4", "--wrap=5 --buffer-size --wrap= 9", "", 0, true},
    {"-clear", "cl", kLong, "c@1 l@1 ?!e@1 ?!a@1 ?!r@2 -1@2", "", "invalid option -- einvalid option -- ainvalid option -- r"},
    {"-W clear -Wbuffer=main -Wnope -W", "W;", kLong, "c@3 b=main@4 ?!0@5 ?!W@6 -1@6", "", "unrecognized option `-W nope'option requires an argument -- W"},
    {"-Wx", "W;x", nullptr, "W@1 x@2 -1@2", "", ""},
};
// clang-format on

TEST(GetOptParseTest, EachParseReturnsReordersAndReportsAsExpected) {
  for (const ParseCase& c : kParses) {
    SCOPED_TRACE(c.words);
    Args args(morvotest::Words(c.words));
    gFlag = 0;
    EXPECT_EQ(c.trace, Trace(&args, c.letters, c.longopts, c.indexed));
    EXPECT_EQ(morvotest::Words(*c.after != '\0' ? c.after : c.words), args.Current());
    EXPECT_EQ(c.messages, args.Messages());
    EXPECT_EQ(c.flag, gFlag);
  }
}

TEST(GetOptRestartTest, OptindZeroAndOptresetStartOver) {
  Args args(morvotest::Words("x -bd y"));
  EXPECT_EQ('b', args.Next("bd"));
  args.ctx().optind = 0;
  EXPECT_EQ('b', args.Next("bd"));  // the cluster is scanned again from its start
  EXPECT_EQ('d', args.Next("bd"));
  EXPECT_EQ(-1, args.Next("bd"));
  EXPECT_EQ(morvotest::Words("-bd x y"), args.Current());
  EXPECT_EQ(2, args.ctx().optind);
  EXPECT_EQ("-1@2", Trace(&args, "bd", nullptr, false));  // the end stays the end
  args.ctx().optind = 1;
  args.ctx().optreset = 1;
  EXPECT_EQ("b@1 d@2 -1@2", Trace(&args, "bd", nullptr, false));
}

TEST(GetOptRestartTest, TwoContextsParseInterleaved) {
  Args first(morvotest::Words("a -bd -fone b"));
  Args second(morvotest::Words("-x p -f two q --clear"));
  EXPECT_EQ('b', first.Next("bdf:"));
  EXPECT_EQ('?', second.Next("bf:", kLong));
  EXPECT_EQ('d', first.Next("bdf:"));
  EXPECT_EQ('f', second.Next("bf:", kLong));
  EXPECT_EQ('f', first.Next("bdf:"));
  EXPECT_EQ('c', second.Next("bf:", kLong));
  EXPECT_EQ("one", first.Optarg());
  EXPECT_EQ(-1, first.Next("bdf:"));
  EXPECT_EQ(-1, second.Next("bf:", kLong));
  EXPECT_EQ(morvotest::Words("-bd -fone a b"), first.Current());
  EXPECT_EQ(morvotest::Words("-x -f two --clear p q"), second.Current());
  EXPECT_EQ(3, first.ctx().optind);
  EXPECT_EQ(5, second.ctx().optind);
  EXPECT_EQ("", first.Messages());
  EXPECT_EQ("invalid option -- x", second.Messages());
}

}  // namespace
