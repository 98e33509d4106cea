#include "larkpost/string_builder.h"

#include <utility>

namespace larkpost {
namespace {

constexpr char16_t kCRLF[] = u"\r\n";

}  // namespace

std::u16string StringBuilder::Contents() const { return m_contents; }

// Frees the buffer too: a builder that once held a large text does not keep its memory.
void StringBuilder::Clear() { std::u16string().swap(m_contents); }

StringBuilder& StringBuilder::Append(std::u16string_view StringToAppend) {
    // Geometric growth (amortised O(1)); the source is copied before an old buffer is freed, so
    // a view into the builder's own text is safe, and on failure the text stays as it was.
    m_contents.append(StringToAppend);
    return *this;
}

StringBuilder& StringBuilder::AppendLine(std::u16string_view StringToAppend) {
    // The text and its line end go in together or not at all.
    const std::size_t before = m_contents.size();
    Append(StringToAppend);
    try {
        AppendCRLF();
    } catch (...) {
        m_contents.resize(before);
        throw;
    }
    return *this;
}

StringBuilder& StringBuilder::AppendCRLF() { return Append(kCRLF); }

void StringBuilder::Reserve(std::size_t characters) { m_contents.reserve(characters); }

std::u16string StringBuilder::TakeContents() {
    std::u16string taken = std::move(m_contents);
    m_contents.clear();  // a moved-from string is only "valid"; make it empty for certain
    return taken;
}

}  // namespace larkpost
