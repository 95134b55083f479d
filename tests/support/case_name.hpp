// Names the instances of a parameterised test after the `name` member of their rows, so that
// a failing row says which case it is.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace ipt {

struct CaseName {
    template <class Row>
    std::string operator()(const ::testing::TestParamInfo<Row>& row) const {
        return row.param.name;
    }
};

}  // namespace ipt
