#ifndef MORVOCAT_BENCH_BENCH_LINES_H_
#define MORVOCAT_BENCH_BENCH_LINES_H_

// Generated log text for the benchmarks that compress it.

#include <stdio.h>

#include <random>
#include <string>
#include <vector>

namespace morvobench {

// Threadtime lines with the mix of tags, levels and numbers a phone logs.
inline std::vector<std::string> MakeLines(size_t bytes, unsigned seed) {
  static const char* kTags[] = {"ActivityManager", "WindowManager", "PowerManagerService",
                                "wpa_supplicant",  "chatty",        "BatteryService",
                                "InputReader",     "audio_hw"};
  static const char* kTexts[] = {
      "Start proc %u:com.example.app/u0a%u for service",
      "Setting wakelock timeout %u ms, uid=%u",
      "onScreenTurnedOn: state=%u seq=%u",
      "level=%u voltage=%u temp=310 health=2 status=charging",
      "Received packet len=%u from port %u",
      "uid=%u identical %u lines",
  };
  std::mt19937 rng(seed);
  std::vector<std::string> lines;
  size_t total = 0;
  unsigned long ms = 0;
  char buf[512];
  while (total < bytes) {
    ms += rng() % 40;
    unsigned pid = 1000 + static_cast<unsigned>(rng() % 3000);
    int n = snprintf(buf, sizeof(buf),
                     "11-23 %02lu:%02lu:%02lu.%03lu %5u %5u %c %s: ", (ms / 3600000) % 24,
                     (ms / 60000) % 60, (ms / 1000) % 60, ms % 1000, pid,
                     static_cast<unsigned>(pid + rng() % 40), "VDIWE"[rng() % 5], kTags[rng() % 8]);
    n += snprintf(buf + n, sizeof(buf) - n, kTexts[rng() % 6],
                  static_cast<unsigned>(rng() % 100000), static_cast<unsigned>(rng() % 10000));
    buf[n++] = '\n';
    lines.emplace_back(buf, static_cast<size_t>(n));
    total += static_cast<size_t>(n);
  }
  return lines;
}

}  // namespace morvobench

#endif  // MORVOCAT_BENCH_BENCH_LINES_H_
