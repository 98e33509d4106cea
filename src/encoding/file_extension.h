// The extension of a file name, which chooses an attachment's content type.
#ifndef LARKPOST_ENCODING_FILE_EXTENSION_H
#define LARKPOST_ENCODING_FILE_EXTENSION_H

#include <optional>
#include <string>
#include <string_view>

namespace larkpost::detail {

// All that follows the last "." of a name, or nothing when it has none.
std::optional<std::u16string> GetFileExtension(std::u16string_view fileName);

}  // namespace larkpost::detail

#endif
