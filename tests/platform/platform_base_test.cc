#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "platform/properties.h"
#include "platform/root_path.h"
#include "platform/safe_string.h"
#include "platform/sched_policy.h"
#include "platform/string_printf.h"
#include "support/temp_root.h"

namespace {

// A root that leaves room for exactly `left` more characters in PATH_MAX.
std::string RootLeaving(size_t left) { return "/tmp/" + std::string(PATH_MAX - 1 - 5 - left, 'r'); }

TEST(RootPathTest, ResolvesEveryDevicePathUnderTheRootOrNotAtAll) {
  const std::string kLong = RootLeaving(strlen("/data/log/x") - 1);
  const std::string kFits = RootLeaving(strlen("/data/log/x"));
  enum Resolver { kDevice, kNode, kOverridable };
  const struct {
    const char* root;  // null: unset
    Resolver resolver;
    const char* path;
    const char* override;  // MORVOCAT_PROPERTIES for kOverridable
    std::string expected;
    int error;
  } kCases[] = {
      {nullptr, kDevice, "/data/log/x", nullptr, "/data/log/x", 0},
      {"", kDevice, "/data/log/x", nullptr, "/data/log/x", 0},
      {"/tmp/r", kDevice, "/data/log/x", nullptr, "/tmp/r/data/log/x", 0},
      {"/tmp/r//", kDevice, "/data/log/x", nullptr, "/tmp/r/data/log/x", 0},
      {"/", kDevice, "/proc/kmsg", nullptr, "/proc/kmsg", 0},
      // A relative path is appended to the root as it stands.
      {"/tmp/r", kDevice, "data/x", nullptr, "/tmp/rdata/x", 0},
      {kFits.c_str(), kDevice, "/data/log/x", nullptr, kFits + "/data/log/x", 0},
      {kLong.c_str(), kDevice, "/data/log/x", nullptr, "", -ENAMETOOLONG},
      {"/tmp/r", kDevice, nullptr, nullptr, "", -EINVAL},
      // Configured paths: absolute ones under the root, relative ones as written.
      {"/tmp/r", kNode, "/dev/input", nullptr, "/tmp/r/dev/input", 0},
      {"/tmp/r", kNode, "logs/out", nullptr, "logs/out", 0},
      {kLong.c_str(), kNode, "/data/log/x", nullptr, "", -ENAMETOOLONG},
      {kLong.c_str(), kNode, "data/log/x", nullptr, "data/log/x", 0},
      {"/tmp/r", kNode, nullptr, nullptr, "", -EINVAL},
      {"/tmp/r", kOverridable, "/data/p", nullptr, "/tmp/r/data/p", 0},
      {"/tmp/r", kOverridable, "/data/p", "", "/tmp/r/data/p", 0},
      {"/tmp/r", kOverridable, "/data/p", "/tmp/q/props", "/tmp/q/props", 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.root != nullptr ? c.root : "(unset)").substr(0, 16) + " " +
                 (c.path != nullptr ? c.path : "(null)"));
    if (c.root != nullptr) {
      setenv(platform::kRootEnv, c.root, 1);
    } else {
      unsetenv(platform::kRootEnv);
    }
    if (c.override != nullptr) setenv(MORVO_PROPERTY_FILE_ENV, c.override, 1);
    platform::DevicePath path = c.resolver == kDevice ? platform::ResolvePath(c.path)
                                : c.resolver == kNode
                                    ? platform::ResolveNodePath(c.path)
                                    : platform::ResolveOverridable(MORVO_PROPERTY_FILE_ENV, c.path);
    unsetenv(MORVO_PROPERTY_FILE_ENV);
    EXPECT_EQ(c.error, path.error());
    EXPECT_EQ(c.error == 0, path.ok());
    EXPECT_EQ(c.expected, path.c_str());
  }
  unsetenv(platform::kRootEnv);
}

TEST(SafeStringTest, FormattingFailsInsteadOfCutting) {
  char buf[8];
  EXPECT_EQ(7, snprintf_s(buf, sizeof(buf), sizeof(buf) - 1, "%s", "1234567"));
  EXPECT_STREQ("1234567", buf);
  EXPECT_EQ(-1, snprintf_s(buf, sizeof(buf), sizeof(buf) - 1, "%s", "12345678"));
  EXPECT_STREQ("", buf);
  EXPECT_EQ(-1, snprintf_s(buf, sizeof(buf), 3, "%d", 1234));
  EXPECT_EQ(-1, snprintf_s(buf, sizeof(buf), sizeof(buf), "%d", 1));
  EXPECT_EQ(3, sprintf_s(buf, sizeof(buf), "%03d", 7));
  EXPECT_STREQ("007", buf);
  EXPECT_EQ(-1, snprintf_s(nullptr, 8, 7, "x"));
}

TEST(SafeStringTest, CopiesFailInsteadOfCutting) {
  char buf[6];
  EXPECT_EQ(0, strcpy_s(buf, sizeof(buf), "abcde"));
  EXPECT_STREQ("abcde", buf);
  EXPECT_NE(0, strcpy_s(buf, sizeof(buf), "abcdef"));
  EXPECT_STREQ("", buf);
  EXPECT_EQ(0, strncpy_s(buf, sizeof(buf), "abcdefgh", 3));
  EXPECT_STREQ("abc", buf);
  EXPECT_EQ(0, strncat_s(buf, sizeof(buf), "xyz", 2));
  EXPECT_STREQ("abcxy", buf);
  EXPECT_NE(0, strncat_s(buf, sizeof(buf), "z", 1));
  EXPECT_STREQ("", buf);
  EXPECT_NE(0, strcpy_s(buf, sizeof(buf), nullptr));
}

TEST(SafeStringTest, MemsetNeverWritesPastTheBuffer) {
  char buf[8] = {0};
  EXPECT_EQ(0, memset_s(buf, 4, 'a', 4));
  EXPECT_EQ('a', buf[3]);
  EXPECT_EQ(0, buf[4]);
  EXPECT_NE(0, memset_s(buf, 4, 'b', 100));
  EXPECT_EQ('b', buf[3]);
  EXPECT_EQ(0, buf[4]);
}

TEST(PropertiesTest, SetGetReplaceAndDefaults) {
  morvotest::TempRoot root;
  char value[PROPERTY_VALUE_MAX];
  EXPECT_EQ(3, property_get("ro.build.type", value, "eng"));
  EXPECT_STREQ("eng", value);
  ASSERT_EQ(0, property_set("ro.build.type", "user"));
  ASSERT_EQ(0, property_set("ro.boot.mode", "normal"));
  ASSERT_EQ(0, property_set("ro.build.type", "userdebug"));
  EXPECT_EQ(9, property_get("ro.build.type", value, ""));
  EXPECT_STREQ("userdebug", value);
  EXPECT_EQ(6, property_get("ro.boot.mode", value, ""));
  // A key that is a prefix of another is not confused with it.
  EXPECT_EQ(0, property_get("ro.build", value, ""));
  EXPECT_STREQ("", value);
  std::string longValue(PROPERTY_VALUE_MAX, 'v');
  EXPECT_EQ(-1, property_set("k", longValue.c_str()));
  EXPECT_EQ(-1, property_set("a=b", "c"));
  EXPECT_EQ(-1, property_set("k", "two\nlines"));
  EXPECT_TRUE(morvotest::Exists(root.Under(MORVO_PROPERTY_FILE)));
}

TEST(PropertiesTest, ConcurrentWritersFromSeveralProcessesLoseNothing) {
  morvotest::TempRoot root;
  constexpr int kProcs = 4, kKeys = 25;
  for (int p = 0; p < kProcs; ++p) {
    if (fork() == 0) {
      for (int k = 0; k < kKeys; ++k) {
        std::string key = "p" + std::to_string(p) + ".k" + std::to_string(k);
        if (property_set(key.c_str(), std::to_string(k).c_str()) != 0) _exit(1);
      }
      _exit(0);
    }
  }
  for (int p = 0; p < kProcs; ++p) {
    int status = 0;
    wait(&status);
    EXPECT_EQ(0, WEXITSTATUS(status));
  }
  char value[PROPERTY_VALUE_MAX];
  for (int p = 0; p < kProcs; ++p) {
    for (int k = 0; k < kKeys; ++k) {
      std::string key = "p" + std::to_string(p) + ".k" + std::to_string(k);
      property_get(key.c_str(), value, "missing");
      EXPECT_EQ(std::to_string(k), value) << key;
    }
  }
}

TEST(SchedPolicyTest, RejectsUnknownPoliciesAndAcceptsTheTwoGroups) {
  EXPECT_EQ(-EINVAL, set_sched_policy(0, static_cast<SchedPolicy>(9)));
  EXPECT_EQ(-EINVAL, set_sched_policy(-1, SP_BACKGROUND));
  // The best-effort I/O class, lowest level for the background, a middle one for the front.
  auto ioPriority = [] {
    return syscall(SYS_ioprio_get, 1, static_cast<int>(syscall(SYS_gettid)));
  };
  EXPECT_EQ(0, set_sched_policy(0, SP_BACKGROUND));
  EXPECT_EQ((2 << 13) | 7, ioPriority());
  EXPECT_EQ(0, set_sched_policy(0, SP_FOREGROUND));
  EXPECT_EQ((2 << 13) | 4, ioPriority());
}

TEST(StringPrintfTest, FormatsLongTexts) {
  std::string big(5000, 'x');
  EXPECT_EQ(big + "-7", android::base::StringPrintf("%s-%d", big.c_str(), 7));
  EXPECT_EQ("", android::base::StringPrintf("%s", ""));
}

}  // namespace
