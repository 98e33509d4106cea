// Raised: the RaisedError a call throws; a test failure (and error 0) when it throws none.
#ifndef LARKPOST_TESTS_RAISED_H
#define LARKPOST_TESTS_RAISED_H

#include <gtest/gtest.h>

#include "larkpost/error.h"

namespace larkpost::test {

template <typename Call>
RaisedError Raised(Call&& call) {
    try {
        call();
    } catch (const RaisedError& error) {
        return error;
    }
    ADD_FAILURE() << "nothing was raised";
    return RaisedError(0, u"(nothing raised)");
}

}  // namespace larkpost::test

#endif
