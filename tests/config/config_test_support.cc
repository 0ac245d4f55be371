#include "config/config_test_support.h"

#include "config/config_parser.h"

namespace configtest {

int ConfigTest::Parse(const char* name) {
  testing::internal::CaptureStderr();
  int result = TavoConfig::ParseConfigFile(name, &info_);
  err_ = testing::internal::GetCapturedStderr();
  return result;
}

TavocatGroupT* ConfigTest::GroupAt(size_t index) const {
  TavocatGroupT* group = info_.groups;
  for (size_t i = 0; i < index && group != nullptr; ++i) group = group->next;
  EXPECT_NE(nullptr, group) << "no group " << index;
  return group;
}

size_t ConfigTest::GroupCount() const {
  size_t count = 0;
  for (TavocatGroupT* group = info_.groups; group != nullptr; group = group->next) ++count;
  return count;
}

std::string Join(const TavocatStrListT* list) {
  std::string out;
  for (; list != nullptr; list = list->next) {
    if (!out.empty()) out += ",";
    out += list->str != nullptr ? list->str : "(null)";
  }
  return out;
}

}  // namespace configtest
