#include "tools/view/view_options.h"

#include <errno.h>
#include <getopt.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "tools/view/wall_time.h"

namespace view {

const char kUsage[] =
    "usage: morvo-view [options] [TAG:PRIORITY ...] PATH...\n"
    "Prints the log files under each PATH (a pulled /data/log tree, a group's\n"
    "folder, a -f base path, or single files) as one timeline.\n"
    "  -o, --format FORMAT  threadtime (the default) or json\n"
    "  -s                   silence every tag not named by a TAG:PRIORITY rule\n"
    "  --pid PID            only the records of process PID\n"
    "  -e, --regex REGEX    only records whose message matches REGEX (POSIX ERE)\n"
    "  --since TIME         only records at or after TIME (YYYY-MM-DD HH:MM:SS)\n"
    "  --until TIME         only records at or before TIME\n"
    "  --list               list the file sets found instead of their records\n"
    "  -f, --file PATH      one more PATH\n"
    "  -h, --help           this text\n"
    "Priorities: V D I W E F S. Collector lines are priority I under their set's name.\n";

namespace {

enum LongOnly { kPid = 256, kSince, kUntil, kList };

bool LooksLikeRule(const char* arg) {
  const char* colon = strrchr(arg, ':');
  if (colon == nullptr || colon == arg || colon[2] != '\0') return false;
  struct stat st;
  return strchr("VDIWEFS", colon[1]) != nullptr && stat(arg, &st) != 0;
}

bool ParseTime(const char* text, bool until, int64_t* ms) {
  size_t length = strlen(text);
  std::string full = text;
  if (length == 10) full += until ? " 23:59:59" : " 00:00:00";  // a date alone
  if (!ParseIsoStamp(full.c_str(), full.size(), ms)) return false;
  if (until) *ms += 999;  // the whole last second
  return true;
}

bool ParsePid(const char* text, int32_t* pid) {
  char* end = nullptr;
  errno = 0;
  long value = strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < 0 || value > 0x7fffffff) return false;
  *pid = static_cast<int32_t>(value);
  return true;
}

}  // namespace

bool ParseViewOptions(int argc, char** argv, ViewOptions* options, std::string* error) {
  static const struct option kLong[] = {{"format", required_argument, nullptr, 'o'},
                                        {"regex", required_argument, nullptr, 'e'},
                                        {"file", required_argument, nullptr, 'f'},
                                        {"help", no_argument, nullptr, 'h'},
                                        {"pid", required_argument, nullptr, kPid},
                                        {"since", required_argument, nullptr, kSince},
                                        {"until", required_argument, nullptr, kUntil},
                                        {"list", no_argument, nullptr, kList},
                                        {nullptr, 0, nullptr, 0}};
  optind = 1;
  opterr = 0;
  FilterOptions& filter = options->filter;
  int c;
  while ((c = getopt_long(argc, argv, "o:e:f:sh", kLong, nullptr)) != -1) {
    switch (c) {
      case 'o':
        if (strcmp(optarg, "json") == 0) {
          options->format = OutputFormat::kJson;
        } else if (strcmp(optarg, "threadtime") == 0) {
          options->format = OutputFormat::kThreadTime;
        } else {
          *error = std::string("unknown output format: ") + optarg;
          return false;
        }
        break;
      case 'e':
        filter.hasRegex = true;
        filter.regex = optarg;
        break;
      case 'f':
        options->paths.push_back(optarg);
        break;
      case 's':
        filter.silent = true;
        break;
      case 'h':
        options->help = true;
        break;
      case kPid:
        filter.hasPid = ParsePid(optarg, &filter.pid);
        if (!filter.hasPid) {
          *error = std::string("invalid process id: ") + optarg;
          return false;
        }
        break;
      case kSince:
      case kUntil: {
        bool until = c == kUntil;
        if (!ParseTime(optarg, until, until ? &filter.until : &filter.since)) {
          *error = std::string("invalid time (want YYYY-MM-DD HH:MM:SS): ") + optarg;
          return false;
        }
        (until ? filter.hasUntil : filter.hasSince) = true;
        break;
      }
      case kList:
        options->list = true;
        break;
      default:
        *error = std::string("unknown option or missing argument: ") + argv[optind - 1];
        return false;
    }
  }
  for (int i = optind; i < argc; ++i) {
    if (LooksLikeRule(argv[i])) {
      filter.specs.push_back(argv[i]);
    } else {
      options->paths.push_back(argv[i]);
    }
  }
  if (!options->help && options->paths.empty()) {
    *error = "no folder or file to read";
    return false;
  }
  return true;
}

}  // namespace view
