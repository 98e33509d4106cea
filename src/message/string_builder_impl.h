// StringBuilderImpl: the text of a StringBuilder. The message assembly writes into it directly,
// knowing its final size, and takes the text over without a copy.
#ifndef LARKPOST_MESSAGE_STRING_BUILDER_IMPL_H
#define LARKPOST_MESSAGE_STRING_BUILDER_IMPL_H

#include <string>

namespace larkpost::detail {

struct StringBuilderImpl {
    std::u16string contents;
};

}  // namespace larkpost::detail

#endif
