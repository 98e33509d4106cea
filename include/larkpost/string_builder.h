// StringBuilder: accumulates text; line ends are always CR LF.
#ifndef LARKPOST_STRING_BUILDER_H
#define LARKPOST_STRING_BUILDER_H

#include <memory>
#include <string>
#include <string_view>

#include "larkpost/export.h"

namespace larkpost {

namespace detail {
struct StringBuilderImpl;
struct ImplAccess;
}  // namespace detail

class LARKPOST_API StringBuilder {
public:
    StringBuilder();
    ~StringBuilder();
    StringBuilder(const StringBuilder& other);
    StringBuilder& operator=(const StringBuilder& other);

    // A copy of the text accumulated so far.
    std::u16string Contents() const;
    void Clear();
    // The append operations return this same object, so calls can be chained.
    StringBuilder& Append(std::u16string_view StringToAppend);
    StringBuilder& AppendLine(std::u16string_view StringToAppend);
    StringBuilder& AppendCRLF();

private:
    friend struct detail::ImplAccess;
    std::unique_ptr<detail::StringBuilderImpl> m_impl;
};

}  // namespace larkpost

#endif
