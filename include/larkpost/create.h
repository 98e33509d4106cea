// Creation by name: a host that knows a class only by its name, such as a script binding or a
// configuration, creates "Larkpost.MailClient", "Larkpost.TcpStream", "Larkpost.MailMessage" or
// "Larkpost.StringBuilder" here. Names compare without regard to ASCII case.
//
//   larkpost::Object object = larkpost::CreateObject("Larkpost.MailMessage");
//   std::shared_ptr<larkpost::MailMessage> message = object.As<larkpost::MailMessage>();
#ifndef LARKPOST_CREATE_H
#define LARKPOST_CREATE_H

#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>
#include <variant>

#include "larkpost/export.h"

namespace larkpost {

class MailClient;
class MailMessage;
class StringBuilder;
class TcpStream;

// The runtime's number for a class name that names no creatable class.
inline constexpr int32_t ERROR_CANNOT_CREATE_OBJECT = 429;

// One new object of one of the four classes, held by a counted reference. Copies of an Object
// share the same instance.
class LARKPOST_API Object {
public:
    using Instance = std::variant<std::shared_ptr<MailClient>, std::shared_ptr<TcpStream>,
                                  std::shared_ptr<MailMessage>, std::shared_ptr<StringBuilder>>;

    explicit Object(Instance instance);

    // The full class name, such as "Larkpost.MailClient", in its canonical case.
    std::string_view ClassName() const;
    const Instance& Get() const { return m_instance; }

    template <class T>
    bool Is() const {
        return std::holds_alternative<std::shared_ptr<T>>(m_instance);
    }

    // The instance as T; raises RaisedError 13 (type mismatch) when it is of another class.
    template <class T>
    std::shared_ptr<T> As() const {
        if (const auto* instance = std::get_if<std::shared_ptr<T>>(&m_instance)) return *instance;
        RaiseTypeMismatch(TypeIndex<T>());
    }

private:
    template <class T>
    static std::size_t TypeIndex() {
        return Instance(std::in_place_type<std::shared_ptr<T>>).index();
    }
    [[noreturn]] void RaiseTypeMismatch(std::size_t wanted) const;

    Instance m_instance;
};

// Creates a new, independent instance of the class with that name (UTF-8 or UTF-16).
// Raises RaisedError 429 (ERROR_CANNOT_CREATE_OBJECT) for a name that is no class of the library.
LARKPOST_API Object CreateObject(std::string_view className);
LARKPOST_API Object CreateObject(std::u16string_view className);

}  // namespace larkpost

#endif
