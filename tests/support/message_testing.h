// Helpers for the tests of MailMessage: fixed boundaries, captured errors, open descriptors.
#ifndef LARKPOST_TESTS_MESSAGE_TESTING_H
#define LARKPOST_TESTS_MESSAGE_TESTING_H

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "encoding/common.h"
#include "larkpost/error.h"
#include "larkpost/text.h"
#include "platform/clock.h"

namespace larkpost::test {

// Boundaries as in a known moment: the timer stands at 36000.5 s (text "360005") and the
// counter at 0, so the first two boundaries are --=-MessageBoundary_1_360005 and _2_.
class FixedBoundaries {
public:
    FixedBoundaries() {
        detail::SetSystemTimerForTesting([] { return 36000.5f; });
        detail::SetBoundaryCounterForTesting(0);
    }
    ~FixedBoundaries() { detail::SetSystemTimerForTesting({}); }
    FixedBoundaries(const FixedBoundaries&) = delete;
    FixedBoundaries& operator=(const FixedBoundaries&) = delete;
};

// With FixedBoundaries, what every text holds between its To (or Bcc) line and the first part of
// the alternative entity: the outer header, its two blank lines, the inner entity's header and its
// first blank line.
inline const std::u16string kFixedEntityHead =
    u"Content-Type: multipart/mixed;boundary=\"--=-MessageBoundary_1_360005\"\r\n"
    u"MIME-Version: 1.0\r\n"
    u"\r\n"
    u"\r\n"
    u"----=-MessageBoundary_1_360005\r\n"
    u"Content-Type: multipart/alternative;boundary=\"--=-MessageBoundary_2_360005\"\r\n"
    u"MIME-Version: 1.0\r\n"
    u"\r\n";
// The close of the alternative entity, then of the mixed one, when no file is attached.
inline const std::u16string kFixedAlternativeClose = u"\r\n\r\n----=-MessageBoundary_2_360005--\r\n";
inline const std::u16string kFixedMixedClose = u"\r\n\r\n----=-MessageBoundary_1_360005--\r\n";

// The RaisedError that call throws; a test failure when it throws nothing.
inline std::optional<RaisedError> CaptureError(const std::function<void()>& call) {
    try {
        call();
    } catch (const RaisedError& error) {
        return error;
    }
    ADD_FAILURE() << "expected a RaisedError";
    return std::nullopt;
}

// Expects call to raise exactly this number and description.
#define EXPECT_RAISES(call, number, description)                                   \
    do {                                                                           \
        auto raised_ = ::larkpost::test::CaptureError([&] { call; });              \
        if (raised_) {                                                             \
            EXPECT_EQ(raised_->Number(), (number));                                \
            EXPECT_EQ(::larkpost::ToUtf8(raised_->Description()), (description));  \
        }                                                                          \
    } while (0)

// Descriptors this process has open now.
inline int OpenDescriptorCount() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

inline std::string Utf8(const std::u16string& text) { return ToUtf8(text); }

}  // namespace larkpost::test

#endif
