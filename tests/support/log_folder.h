#ifndef MORVOCAT_TESTS_SUPPORT_LOG_FOLDER_H_
#define MORVOCAT_TESTS_SUPPORT_LOG_FOLDER_H_

// A log folder under a fresh root with a base path in it, as the file set,
// group sink and archive tests start. The diagnostic folder ksv_log, which a
// group's directory monitor also watches, is made too: without it the
// monitor reports on standard error while tests capture it.

#include <gtest/gtest.h>

#include <string>

#include "support/temp_root.h"

namespace morvotest {

class LogFolderTest : public ::testing::Test {
 protected:
  // folder is a device path; the base path is folder/name.
  explicit LogFolderTest(const std::string& folder = "/data/log",
                         const std::string& name = "applog") {
    root_.MakeDirs("/data/log/ksv_log");
    root_.MakeDirs(folder);
    dir_ = root_.Under(folder);
    base_ = dir_ + "/" + name;
  }

  TempRoot root_;
  std::string dir_;
  std::string base_;
};

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_LOG_FOLDER_H_
