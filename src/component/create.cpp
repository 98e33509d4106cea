#include "larkpost/create.h"

#include <string>

#include "component/class_names.h"
#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "larkpost/mail_message.h"
#include "larkpost/string_builder.h"
#include "larkpost/tcp_stream.h"
#include "larkpost/text.h"

namespace larkpost {
namespace {

constexpr char16_t kLibrarySource[] = u"Larkpost";

bool EqualIgnoringAsciiCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
        if (lower(a[i]) != lower(b[i])) return false;
    }
    return true;
}

Object::Instance NewInstance(std::size_t index) {
    switch (index) {
        case 0: return std::make_shared<MailClient>();
        case 1: return std::make_shared<TcpStream>();
        case 2: return std::make_shared<MailMessage>();
        default: return std::make_shared<StringBuilder>();
    }
}

[[noreturn]] void RaiseUnknownClass(std::string_view className) {
    std::string text = "Cannot create an object of class '" + std::string(className) +
                       "': Larkpost has no such class. Its classes are ";
    for (std::size_t i = 0; i < detail::kClassNames.size(); ++i) {
        if (i > 0) text += i + 1 == detail::kClassNames.size() ? " and " : ", ";
        text += detail::kClassNames[i];
    }
    text += ".";
    std::u16string description;
    TryFromUtf8(text, description);  // the name came in as valid UTF-8 or from UTF-16
    throw RaisedError(ERROR_CANNOT_CREATE_OBJECT, std::move(description), kLibrarySource);
}

}  // namespace

Object::Object(Instance instance) : m_instance(std::move(instance)) {}

std::string_view Object::ClassName() const { return detail::kClassNames[m_instance.index()]; }

void Object::RaiseTypeMismatch(std::size_t wanted) const {
    std::string text = "Type mismatch: the object is a " + std::string(ClassName()) + ", not a " +
                       std::string(detail::kClassNames[wanted]) + ".";
    throw RaisedError(ERROR_TYPE_MISMATCH, std::u16string(text.begin(), text.end()),
                      kLibrarySource);
}

Object CreateObject(std::string_view className) {
    for (std::size_t i = 0; i < detail::kClassNames.size(); ++i) {
        if (EqualIgnoringAsciiCase(className, detail::kClassNames[i]))
            return Object(NewInstance(i));
    }
    std::u16string checked;
    if (!TryFromUtf8(className, checked)) {
        throw RaisedError(ERROR_INVALID_ARGUMENT, u"The class name is not valid UTF-8 text.",
                          kLibrarySource);
    }
    RaiseUnknownClass(className);
}

Object CreateObject(std::u16string_view className) { return CreateObject(ToUtf8(className)); }

}  // namespace larkpost
