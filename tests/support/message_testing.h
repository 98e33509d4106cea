// Error checks of the message, SMTP and component tests.
#ifndef LARKPOST_TESTS_MESSAGE_TESTING_H
#define LARKPOST_TESTS_MESSAGE_TESTING_H

#include <optional>

#include "larkpost/text.h"
#include "support/raised.h"

namespace larkpost::test {
// The RaisedError that call throws; a test failure and none when it throws nothing.
template <typename Call>
std::optional<RaisedError> CaptureError(Call&& call) {
    const RaisedError error = Raised(call);
    return error.Number() == 0 ? std::nullopt : std::optional(error);
}
}  // namespace larkpost::test

// Expects call to raise exactly this number and description (UTF-8).
#define EXPECT_RAISES(call, number, description)                                  \
    do {                                                                          \
        const auto raised_ = ::larkpost::test::Raised([&] { call; });             \
        EXPECT_EQ(raised_.Number(), (number));                                    \
        EXPECT_EQ(::larkpost::ToUtf8(raised_.Description()), (description));     \
    } while (0)

#endif
