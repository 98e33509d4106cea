// StringBuilder: accumulates text; line ends are always CR LF.
#ifndef LARKPOST_STRING_BUILDER_H
#define LARKPOST_STRING_BUILDER_H

#include <cstddef>
#include <string>
#include <string_view>

#include "larkpost/export.h"

namespace larkpost {

class MailMessage;

class LARKPOST_API StringBuilder {
public:
    // A copy of the text accumulated so far.
    std::u16string Contents() const;
    void Clear();
    // The append operations return this same object, so calls can be chained.
    StringBuilder& Append(std::u16string_view StringToAppend);
    StringBuilder& AppendLine(std::u16string_view StringToAppend);
    StringBuilder& AppendCRLF();

private:
    friend class MailMessage;
    // For the message assembly, which knows its final size and hands the text on without a copy.
    void Reserve(std::size_t characters);
    std::u16string& Buffer() { return m_contents; }
    std::u16string TakeContents();

    std::u16string m_contents;
};

}  // namespace larkpost

#endif
