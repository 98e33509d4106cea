#include "encoding/file_extension.h"

namespace larkpost::detail {

std::optional<std::u16string> GetFileExtension(std::u16string_view fileName) {
    const std::size_t dot = fileName.rfind(u'.');
    if (dot == std::u16string_view::npos) return std::nullopt;
    return std::u16string(fileName.substr(dot + 1));
}

}  // namespace larkpost::detail
