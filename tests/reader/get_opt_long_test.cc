#include "reader/get_opt_long.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// An argument vector the parser may reorder, a context reporting to a
// memory stream, and the messages written so far.
class Args {
 public:
  explicit Args(std::vector<std::string> words) : words_(std::move(words)) {
    for (std::string& word : words_) {
      argv_.push_back(&word[0]);
    }
    argv_.push_back(nullptr);
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
    return getopt_long_r(Argc(), argv_.data(), letters, longopts, longindex, &ctx_);
  }
  int Argc() const { return static_cast<int>(argv_.size()) - 1; }
  std::vector<std::string> Current() const {
    return std::vector<std::string>(argv_.begin(), argv_.end() - 1);
  }
  std::string Messages() {
    fflush(out_);
    return std::string(buf_, len_);
  }
  std::string Optarg() const { return ctx_.optarg != nullptr ? ctx_.optarg : "<null>"; }
  GetOptContext& ctx() { return ctx_; }

 private:
  std::vector<std::string> words_;
  std::vector<char*> argv_;
  GetOptContext ctx_;
  char* buf_ = nullptr;
  size_t len_ = 0;
  FILE* out_ = nullptr;
};

using Words = std::vector<std::string>;

TEST(GetOptContextTest, StartsWithTheReadersValues) {
  GetOptContext ctx;
  memset(&ctx, 0x5a, sizeof(ctx));
  InitGetOptContext(&ctx, stdout);
  EXPECT_EQ(1, ctx.opterr);
  EXPECT_EQ(1, ctx.optind);
  EXPECT_EQ('?', ctx.optopt);
  EXPECT_EQ(0, ctx.optreset);
  EXPECT_EQ(nullptr, ctx.optarg);
  EXPECT_EQ(stdout, ctx.errorOut);
  ASSERT_NE(nullptr, ctx.nextChar);
  EXPECT_STREQ("", ctx.nextChar);
  EXPECT_EQ(-1, ctx.skipStart);
  EXPECT_EQ(-1, ctx.skipEnd);
  EXPECT_EQ(-1, ctx.prefixKind);
  InitGetOptContext(&ctx, nullptr);
  EXPECT_EQ(0, ctx.opterr);
  EXPECT_EQ(nullptr, ctx.errorOut);
}

// --- Modes and permutation -------------------------------------------------

TEST(GetOptPermuteTest, MovesNonOptionsBehindTheOptions) {
  Args args({"cmd", "a", "-b", "c", "-d"});
  EXPECT_EQ('b', args.Next("bd"));
  EXPECT_EQ('d', args.Next("bd"));
  EXPECT_EQ(-1, args.Next("bd"));
  EXPECT_EQ(Words({"cmd", "-b", "-d", "a", "c"}), args.Current());
  EXPECT_EQ(3, args.ctx().optind);
  EXPECT_EQ(-1, args.Next("bd"));
  EXPECT_EQ("", args.Messages());
}

TEST(GetOptPermuteTest, DoubleDashEndsOptionsAfterMovingSkippedOnes) {
  Args args({"cmd", "x", "-b", "y", "-d", "--", "-b", "z"});
  EXPECT_EQ('b', args.Next("bd"));
  EXPECT_EQ('d', args.Next("bd"));
  EXPECT_EQ(-1, args.Next("bd"));
  EXPECT_EQ(Words({"cmd", "-b", "-d", "--", "x", "y", "-b", "z"}), args.Current());
  EXPECT_EQ(4, args.ctx().optind);
}

TEST(GetOptPermuteTest, TrailingNonOptionsStayAndOptindPointsAtThem) {
  Args args({"cmd", "-b", "x", "-", "y"});
  EXPECT_EQ('b', args.Next("bd"));
  EXPECT_EQ(-1, args.Next("bd"));
  EXPECT_EQ(Words({"cmd", "-b", "x", "-", "y"}), args.Current());
  EXPECT_EQ(2, args.ctx().optind);
}

TEST(GetOptModeTest, DashModeReturnsNonOptionsInOrderAsOptionOne) {
  Args args({"cmd", "a", "-b", "-", "c"});
  EXPECT_EQ(1, args.Next("-bd"));
  EXPECT_EQ("a", args.Optarg());
  EXPECT_EQ('b', args.Next("-bd"));
  EXPECT_EQ("<null>", args.Optarg());
  EXPECT_EQ(1, args.Next("-bd"));
  EXPECT_EQ("-", args.Optarg());
  EXPECT_EQ(1, args.Next("-bd"));
  EXPECT_EQ("c", args.Optarg());
  EXPECT_EQ(-1, args.Next("-bd"));
  EXPECT_EQ(Words({"cmd", "a", "-b", "-", "c"}), args.Current());
  EXPECT_EQ(5, args.ctx().optind);
}

TEST(GetOptModeTest, PlusModeStopsAtTheFirstNonOption) {
  Args args({"cmd", "-b", "a", "-d"});
  EXPECT_EQ('b', args.Next("+bd"));
  EXPECT_EQ(-1, args.Next("+bd"));
  EXPECT_EQ(2, args.ctx().optind);
  EXPECT_EQ(Words({"cmd", "-b", "a", "-d"}), args.Current());
}

TEST(GetOptModeTest, NullLettersEndAtOnce) {
  Args args({"cmd", "-b"});
  EXPECT_EQ(-1, args.Next(nullptr));
  EXPECT_EQ(1, args.ctx().optind);
}

// Reference: options (with their separate values) first, then the non-options
// in order; after "--" everything is left as it was.
struct Expected {
  Words array;
  int optind;
  std::string letters;
  Words values;
};

Expected Reorder(const Words& words) {
  Expected want;
  Words opts;
  Words nonOpts;
  size_t i = 1;
  for (; i < words.size(); ++i) {
    const std::string& w = words[i];
    if (w == "--") {
      opts.push_back(w);
      ++i;
      break;
    }
    if (w.size() < 2 || w[0] != '-') {
      nonOpts.push_back(w);
      continue;
    }
    opts.push_back(w);
    for (size_t k = 1; k < w.size(); ++k) {
      want.letters += w[k];
      if (w[k] == 'f') {
        bool attached = k + 1 < w.size();
        want.values.push_back(attached ? w.substr(k + 1) : words[i + 1]);
        if (!attached) {
          opts.push_back(words[++i]);
        }
        break;
      }
    }
  }
  want.array.push_back(words[0]);
  want.array.insert(want.array.end(), opts.begin(), opts.end());
  want.optind = static_cast<int>(want.array.size());
  want.array.insert(want.array.end(), nonOpts.begin(), nonOpts.end());
  want.array.insert(want.array.end(), words.begin() + i, words.end());
  return want;
}

Words RandomWords(std::mt19937* rng) {
  static const char* const kUnits[] = {"n", "-", "-b", "-d", "-bd", "-fv", "-f", "-bf"};
  Words words = {"cmd"};
  int count = std::uniform_int_distribution<int>(0, 14)(*rng);
  bool dashed = false;
  for (int i = 0; i < count; ++i) {
    int pick = std::uniform_int_distribution<int>(0, 8)(*rng);
    std::string tag = std::to_string(i);
    if (pick == 8) {
      if (!dashed) {
        words.push_back("--");
        dashed = true;
      }
      continue;
    }
    std::string unit = kUnits[pick];
    if (unit == "n" || unit == "-fv") {
      unit += tag;
    }
    words.push_back(unit);
    if (unit == "-f" || unit == "-bf") {
      // The value may itself look like an option.
      words.push_back(pick % 2 == 0 ? "val" + tag : "-d");
    }
  }
  return words;
}

TEST(GetOptPermuteTest, MatchesAReferenceReorderingOverRandomVectors) {
  std::mt19937 rng(20261123);
  for (int round = 0; round < 2000; ++round) {
    Words words = RandomWords(&rng);
    Expected want = Reorder(words);
    Args args(words);
    std::string letters;
    Words values;
    int c;
    while ((c = args.Next("bdf:")) != -1) {
      ASSERT_NE('?', c);
      letters += static_cast<char>(c);
      if (c == 'f') {
        values.push_back(args.Optarg());
      }
    }
    SCOPED_TRACE(::testing::PrintToString(words));
    ASSERT_EQ(want.letters, letters);
    ASSERT_EQ(want.values, values);
    ASSERT_EQ(want.array, args.Current());
    ASSERT_EQ(want.optind, args.ctx().optind);
  }
}

// --- Short options -----------------------------------------------------------

TEST(GetOptShortTest, ClustersAndArguments) {
  Args args({"cmd", "-bd", "-fone", "-f", "two", "-bftail", "-o", "-oval", "x"});
  EXPECT_EQ('b', args.Next("bdf:o::"));
  EXPECT_EQ(1, args.ctx().optind);
  EXPECT_EQ('d', args.Next("bdf:o::"));
  EXPECT_EQ(2, args.ctx().optind);
  EXPECT_EQ('f', args.Next("bdf:o::"));
  EXPECT_EQ("one", args.Optarg());
  EXPECT_EQ('f', args.Next("bdf:o::"));
  EXPECT_EQ("two", args.Optarg());
  EXPECT_EQ('b', args.Next("bdf:o::"));
  EXPECT_EQ('f', args.Next("bdf:o::"));
  EXPECT_EQ("tail", args.Optarg());
  EXPECT_EQ('o', args.Next("bdf:o::"));
  EXPECT_EQ("<null>", args.Optarg());
  EXPECT_EQ('o', args.Next("bdf:o::"));
  EXPECT_EQ("val", args.Optarg());
  EXPECT_EQ(-1, args.Next("bdf:o::"));
  EXPECT_EQ(8, args.ctx().optind);
  EXPECT_EQ("", args.Messages());
}

TEST(GetOptShortTest, MissingArgumentIsQuestionMarkAndReported) {
  Args args({"cmd", "-f"});
  EXPECT_EQ('?', args.Next("bf:"));
  EXPECT_EQ('f', args.ctx().optopt);
  EXPECT_EQ("option requires an argument -- f", args.Messages());
  EXPECT_EQ(-1, args.Next("bf:"));
}

TEST(GetOptShortTest, LeadingColonSilencesAndReturnsColon) {
  Args args({"cmd", "-bf", "-x"});
  EXPECT_EQ('b', args.Next(":bf:"));
  EXPECT_EQ('f', args.Next(":bf:"));
  EXPECT_EQ("-x", args.Optarg());
  Args missing({"cmd", "-x", "-f"});
  EXPECT_EQ('?', missing.Next("+:bf:"));
  EXPECT_EQ('x', missing.ctx().optopt);
  EXPECT_EQ(':', missing.Next("+:bf:"));
  EXPECT_EQ('f', missing.ctx().optopt);
  EXPECT_EQ("", missing.Messages());
}

TEST(GetOptShortTest, InvalidOptionsAreReported) {
  Args args({"cmd", "-xb", "-:"});
  EXPECT_EQ('?', args.Next("b"));
  EXPECT_EQ('x', args.ctx().optopt);
  EXPECT_EQ(1, args.ctx().optind);  // the cluster goes on
  EXPECT_EQ('b', args.Next("b"));
  EXPECT_EQ(2, args.ctx().optind);
  EXPECT_EQ('?', args.Next("b"));
  EXPECT_EQ(':', args.ctx().optopt);
  EXPECT_EQ(3, args.ctx().optind);
  EXPECT_EQ("invalid option -- xinvalid option -- :", args.Messages());
}

TEST(GetOptShortTest, DashInsideAClusterWithoutLongOptions) {
  Args args({"cmd", "--x", "-b-", "a"});
  EXPECT_EQ('?', args.Next("b"));
  EXPECT_EQ('-', args.ctx().optopt);
  EXPECT_EQ("invalid option -- -", args.Messages());
  EXPECT_EQ('?', args.Next("b"));
  EXPECT_EQ('x', args.ctx().optopt);
  EXPECT_EQ('b', args.Next("b"));
  EXPECT_EQ(-1, args.Next("b"));  // a trailing dash ends the options
}

TEST(GetOptShortTest, MessagesNeedOpterrAndGoToStderrWithoutAStream) {
  Args quiet({"cmd", "-x"});
  quiet.ctx().opterr = 0;
  EXPECT_EQ('?', quiet.Next("b"));
  EXPECT_EQ("", quiet.Messages());
  Args loud({"cmd", "-x"});
  loud.ctx().errorOut = nullptr;
  ::testing::internal::CaptureStderr();
  EXPECT_EQ('?', loud.Next("b"));
  EXPECT_EQ("invalid option -- x", ::testing::internal::GetCapturedStderr());
}

// --- Long options --------------------------------------------------------------

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

TEST(GetOptLongTest, ExactAbbreviatedAndIndexed) {
  Args args({"cmd", "--buffer", "main", "--buffer=sys", "--buf", "x", "--clear", "--deb"});
  int index = -1;
  EXPECT_EQ('b', args.Next("b:", kLong, &index));
  EXPECT_EQ(0, index);
  EXPECT_EQ("main", args.Optarg());
  EXPECT_EQ('b', args.Next("b:", kLong, &index));
  EXPECT_EQ("sys", args.Optarg());
  // "buf" is a prefix of "buffer" and "buffer-size", which act differently.
  EXPECT_EQ('?', args.Next("b:", kLong, &index));
  EXPECT_EQ("option `--buf' is ambiguous", args.Messages());
  EXPECT_EQ(0, args.ctx().optopt);
  EXPECT_EQ('c', args.Next("b:", kLong, &index));
  EXPECT_EQ(2, index);
  gFlag = 0;
  EXPECT_EQ(0, args.Next("b:", kLong, &index));
  EXPECT_EQ(7, gFlag);
  EXPECT_EQ(4, index);
  EXPECT_EQ(-1, args.Next("b:", kLong, &index));
  EXPECT_EQ(Words({"cmd", "--buffer", "main", "--buffer=sys", "--buf", "--clear", "--deb", "x"}),
            args.Current());
}

TEST(GetOptLongTest, AbbreviationOfEquivalentRecordsTakesTheFirst) {
  Args args({"cmd", "--ver", "--c"});
  int index = -1;
  EXPECT_EQ('v', args.Next("", kLong, &index));
  EXPECT_EQ(6, index);
  EXPECT_EQ('?', args.Next("", kLong, &index));
  EXPECT_EQ("option `--c' is ambiguous", args.Messages());
  EXPECT_EQ(6, index);
}

TEST(GetOptLongTest, ExactNameWinsOverEarlierLongerCandidates) {
  const option opts[] = {
      {"wrapper", required_argument, nullptr, 'w'},
      {"wrap-all", no_argument, nullptr, 'a'},
      {"wrap", no_argument, nullptr, 'W'},
      {nullptr, 0, nullptr, 0},
  };
  Args args({"cmd", "--wrap"});
  int index = -1;
  EXPECT_EQ('W', args.Next("", opts, &index));
  EXPECT_EQ(2, index);
  EXPECT_EQ("", args.Messages());
}

TEST(GetOptLongTest, ArgumentErrors) {
  Args args({"cmd", "--clear=yes", "--debug=1", "--nope=2", "--buffer"});
  EXPECT_EQ('?', args.Next("", kLong));
  EXPECT_EQ('c', args.ctx().optopt);
  EXPECT_EQ("option `--clear' doesn't allow an argument", args.Messages());
  EXPECT_EQ('?', args.Next("", kLong));
  EXPECT_EQ(0, args.ctx().optopt);  // a flag option has no character
  EXPECT_EQ('?', args.Next("", kLong));
  EXPECT_EQ(0, args.ctx().optopt);
  EXPECT_EQ('?', args.Next("", kLong));
  EXPECT_EQ('b', args.ctx().optopt);
  EXPECT_EQ(5, args.ctx().optind);  // the taken end of the array is given back
  EXPECT_EQ(
      "option `--clear' doesn't allow an argument"
      "option `--debug' doesn't allow an argument"
      "unrecognized option `--nope=2'"
      "option `--buffer' requires an argument",
      args.Messages());
  Args silent({"cmd", "--buffer"});
  EXPECT_EQ(':', silent.Next(":", kLong));
  EXPECT_EQ("", silent.Messages());
}

TEST(GetOptLongTest, OptionalArgumentOnlyAfterEquals) {
  Args args({"cmd", "--wrap=5", "--buffer-size", "9", "--wrap="});
  int index = -1;
  EXPECT_EQ(0, args.Next("", kLong, &index));
  EXPECT_EQ(5, index);
  EXPECT_EQ("5", args.Optarg());
  EXPECT_EQ('g', args.Next("", kLong, &index));
  EXPECT_EQ("<null>", args.Optarg());
  EXPECT_EQ(0, args.Next("", kLong, &index));
  EXPECT_EQ("", args.Optarg());
  EXPECT_EQ(-1, args.Next("", kLong, &index));
  EXPECT_EQ(Words({"cmd", "--wrap=5", "--buffer-size", "--wrap=", "9"}), args.Current());
  EXPECT_EQ(4, args.ctx().optind);
}

TEST(GetOptLongTest, SingleDashIsAShortCluster) {
  Args args({"cmd", "-clear"});
  EXPECT_EQ('c', args.Next("cl", kLong));
  EXPECT_EQ('l', args.Next("cl", kLong));
  EXPECT_EQ('?', args.Next("cl", kLong));
  EXPECT_EQ("invalid option -- e", args.Messages());
}

TEST(GetOptLongTest, WSemicolonIntroducesALongOption) {
  Args args({"cmd", "-W", "clear", "-Wbuffer=main", "-Wnope", "-W"});
  EXPECT_EQ('c', args.Next("W;", kLong));
  EXPECT_EQ(3, args.ctx().optind);
  EXPECT_EQ('b', args.Next("W;", kLong));
  EXPECT_EQ("main", args.Optarg());
  EXPECT_EQ('?', args.Next("W;", kLong));
  EXPECT_EQ('?', args.Next("W;", kLong));
  EXPECT_EQ('W', args.ctx().optopt);
  EXPECT_EQ("unrecognized option `-W nope'option requires an argument -- W", args.Messages());
  EXPECT_EQ(-1, args.Next("W;", kLong));
  // Without long options "W;" is a plain letter.
  Args plain({"cmd", "-Wx"});
  EXPECT_EQ('W', plain.Next("W;x"));
  EXPECT_EQ('x', plain.Next("W;x"));
}

// --- Restarts and reentrancy -----------------------------------------------------

TEST(GetOptRestartTest, OptindZeroAndOptresetStartOver) {
  Args args({"cmd", "x", "-bd", "y"});
  EXPECT_EQ('b', args.Next("bd"));
  args.ctx().optind = 0;
  EXPECT_EQ('b', args.Next("bd"));  // the cluster is scanned again from its start
  EXPECT_EQ('d', args.Next("bd"));
  EXPECT_EQ(-1, args.Next("bd"));
  EXPECT_EQ(Words({"cmd", "-bd", "x", "y"}), args.Current());
  EXPECT_EQ(2, args.ctx().optind);
  args.ctx().optind = 1;
  args.ctx().optreset = 1;
  EXPECT_EQ('b', args.Next("bd"));
  EXPECT_EQ('d', args.Next("bd"));
  EXPECT_EQ(-1, args.Next("bd"));
  EXPECT_EQ(2, args.ctx().optind);
}

TEST(GetOptRestartTest, TwoContextsParseInterleaved) {
  Args first({"cmd", "a", "-bd", "-fone", "b"});
  Args second({"cmd", "-x", "p", "-f", "two", "q", "--clear"});
  EXPECT_EQ('b', first.Next("bdf:"));
  EXPECT_EQ('?', second.Next("bf:", kLong));
  EXPECT_EQ('d', first.Next("bdf:"));
  EXPECT_EQ('f', second.Next("bf:", kLong));
  EXPECT_EQ('f', first.Next("bdf:"));
  EXPECT_EQ('c', second.Next("bf:", kLong));
  EXPECT_EQ("one", first.Optarg());
  EXPECT_EQ(-1, first.Next("bdf:"));
  EXPECT_EQ(-1, second.Next("bf:", kLong));
  EXPECT_EQ(Words({"cmd", "-bd", "-fone", "a", "b"}), first.Current());
  EXPECT_EQ(Words({"cmd", "-x", "-f", "two", "--clear", "p", "q"}), second.Current());
  EXPECT_EQ(3, first.ctx().optind);
  EXPECT_EQ(5, second.ctx().optind);
  EXPECT_EQ("", first.Messages());
  EXPECT_EQ("invalid option -- x", second.Messages());
}

}  // namespace
