#include "message/keyed_collection.h"

#include <array>
#include <iterator>
#include <utility>

#include "larkpost/error.h"
#include "platform/errors.h"

namespace larkpost::detail {
namespace {

// Lower case for every 16-bit character, built once: folding is one lookup a character.
struct FoldTable {
    std::array<char16_t, 65536> lower{};

    FoldTable() {
        for (unsigned c = 0; c < lower.size(); ++c) lower[c] = static_cast<char16_t>(c);
        Shift(u'A', u'Z', 0x20);
        Shift(0x00C0, 0x00D6, 0x20);  // À-Ö
        Shift(0x00D8, 0x00DE, 0x20);  // Ø-Þ (× stays)
        // Latin Extended-A: pairs of upper and lower case side by side. İ, ı, ĸ, ŉ and ſ have
        // no one-character partner and stay.
        Pairs(0x0100, 0x012F);
        Pairs(0x0132, 0x0137);
        Pairs(0x0139, 0x0148);
        Pairs(0x014A, 0x0177);
        lower[0x0178] = 0x00FF;  // Ÿ
        Pairs(0x0179, 0x017E);
        // Greek: capitals, capitals with tonos, and final sigma as sigma.
        Shift(0x0391, 0x03A1, 0x20);
        Shift(0x03A3, 0x03AB, 0x20);
        lower[0x0386] = 0x03AC;
        Shift(0x0388, 0x038A, 0x25);
        lower[0x038C] = 0x03CC;
        Shift(0x038E, 0x038F, 0x3F);
        lower[0x03C2] = 0x03C3;
        // Cyrillic.
        Shift(0x0400, 0x040F, 0x50);
        Shift(0x0410, 0x042F, 0x20);
    }

    void Shift(unsigned first, unsigned last, unsigned by) {
        for (unsigned c = first; c <= last; ++c) lower[c] = static_cast<char16_t>(c + by);
    }
    // Upper case at first, lower case right after it, and so on to last.
    void Pairs(unsigned first, unsigned last) {
        for (unsigned c = first; c < last; c += 2) lower[c] = static_cast<char16_t>(c + 1);
    }
};

const FoldTable& Folds() {
    static const FoldTable table;
    return table;
}

}  // namespace

std::u16string FoldKeyCase(std::u16string_view key) {
    const auto& lower = Folds().lower;
    std::u16string folded(key.size(), u'\0');
    for (std::size_t i = 0; i < key.size(); ++i) folded[i] = lower[key[i]];
    return folded;
}

void KeyedCollection::Add(std::u16string item, std::optional<std::u16string> key) {
    std::optional<std::u16string> folded;
    if (key) {
        folded = FoldKeyCase(*key);
        if (m_keyIndex.contains(*folded)) RaiseRuntime(ERROR_KEY_IN_USE, kSourceMailMessage);
    }
    m_items.push_back(std::move(item));
    if (!folded) return;
    try {
        m_keyIndex.emplace(std::move(*folded), std::prev(m_items.cend()));
    } catch (...) {
        m_items.pop_back();  // a failed Add changes nothing
        throw;
    }
}

void KeyedCollection::Remove(std::u16string_view key) {
    const auto indexed = m_keyIndex.find(FoldKeyCase(key));
    if (indexed == m_keyIndex.end()) RaiseRuntime(ERROR_INVALID_ARGUMENT, kSourceMailMessage);
    m_items.erase(indexed->second);
    m_keyIndex.erase(indexed);
}

int32_t KeyedCollection::Count() const { return static_cast<int32_t>(m_items.size()); }

}  // namespace larkpost::detail
