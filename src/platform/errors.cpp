#include "platform/errors.h"

#include <algorithm>

#include "larkpost/text.h"

namespace larkpost {
namespace {

// what() is a C string, which ends at its first NUL: a NUL inside the description shows there
// as U+2400 (SYMBOL FOR NULL), so the text after it is not lost.
std::string WhatText(const std::u16string& description) {
    if (description.find(u'\0') == std::u16string::npos) return ToUtf8(description);
    std::u16string shown = description;
    std::replace(shown.begin(), shown.end(), u'\0', u'\u2400');
    return ToUtf8(shown);
}

}  // namespace

RaisedError::RaisedError(int32_t number, std::u16string description, std::u16string source)
    : m_number(number),
      m_description(std::move(description)),
      m_source(std::move(source)),
      m_what(WhatText(m_description)) {}

const char* RaisedError::what() const noexcept { return m_what.c_str(); }

namespace detail {

std::u16string RuntimeDescription(int32_t number) {
    switch (number) {
        case ERROR_INVALID_ARGUMENT: return u"Invalid procedure call or argument";
        case ERROR_OVERFLOW: return u"Overflow";
        case ERROR_TYPE_MISMATCH: return u"Type mismatch";
        case ERROR_KEY_IN_USE:
            return u"This key is already associated with an element of this collection";
        default: return u"Application-defined or object-defined error";
    }
}

void RaiseRuntime(int32_t number, std::u16string source) {
    throw RaisedError(number, RuntimeDescription(number), std::move(source));
}

void Raise(int32_t number, std::u16string description, std::u16string source) {
    throw RaisedError(number, std::move(description), std::move(source));
}

}  // namespace detail
}  // namespace larkpost
