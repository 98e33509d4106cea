#include "larkpost/string_builder.h"

#include <utility>

#include "message/string_builder_impl.h"

namespace larkpost {
namespace {

constexpr char16_t kCRLF[] = u"\r\n";

}  // namespace

StringBuilder::StringBuilder() : m_impl(std::make_unique<detail::StringBuilderImpl>()) {}
StringBuilder::~StringBuilder() = default;
StringBuilder::StringBuilder(const StringBuilder& other)
    : m_impl(std::make_unique<detail::StringBuilderImpl>(*other.m_impl)) {}
StringBuilder& StringBuilder::operator=(const StringBuilder& other) {
    if (this != &other) m_impl->contents = other.m_impl->contents;
    return *this;
}

std::u16string StringBuilder::Contents() const { return m_impl->contents; }

// Frees the buffer too: a builder that once held a large text does not keep its memory.
void StringBuilder::Clear() { std::u16string().swap(m_impl->contents); }

StringBuilder& StringBuilder::Append(std::u16string_view StringToAppend) {
    // Geometric growth (amortised O(1)); the source is copied before an old buffer is freed, so
    // a view into the builder's own text is safe, and on failure the text stays as it was.
    m_impl->contents.append(StringToAppend);
    return *this;
}

StringBuilder& StringBuilder::AppendLine(std::u16string_view StringToAppend) {
    // The text and its line end go in together or not at all.
    const std::size_t before = m_impl->contents.size();
    Append(StringToAppend);
    try {
        AppendCRLF();
    } catch (...) {
        m_impl->contents.resize(before);
        throw;
    }
    return *this;
}

StringBuilder& StringBuilder::AppendCRLF() { return Append(kCRLF); }

}  // namespace larkpost
