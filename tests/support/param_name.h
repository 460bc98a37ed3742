// Names the cases of a parameterised test after their `name` member.
#ifndef QVNLIB_TESTS_SUPPORT_PARAM_NAME_H
#define QVNLIB_TESTS_SUPPORT_PARAM_NAME_H

#include <string>

#include <gtest/gtest.h>

namespace qvn_test {

struct ByName {
  template <class T>
  std::string operator()(const ::testing::TestParamInfo<T> &info) const {
    return info.param.name;
  }
};

}  // namespace qvn_test

#endif  // QVNLIB_TESTS_SUPPORT_PARAM_NAME_H
