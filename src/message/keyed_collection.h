// KeyedCollection: an ordered list of strings with optional keys that compare ignoring case.
#ifndef LARKPOST_MESSAGE_KEYED_COLLECTION_H
#define LARKPOST_MESSAGE_KEYED_COLLECTION_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace larkpost::detail {

class KeyedCollection {
public:
    // Appends at the end. A key already present (ignoring case) raises 457 and changes nothing.
    void Add(std::u16string item, std::optional<std::u16string> key = std::nullopt);
    // Removes the element with that key. An unknown key raises 5 and changes nothing.
    void Remove(std::u16string_view key);
    int32_t Count() const;

    using const_iterator = std::vector<std::u16string>::const_iterator;
    const_iterator begin() const { return m_items.begin(); }
    const_iterator end() const { return m_items.end(); }
    const std::u16string& operator[](std::size_t index) const { return m_items[index]; }

private:
    std::vector<std::u16string> m_items;
    std::vector<std::optional<std::u16string>> m_foldedKeys;
    // The folded keys present, so the duplicate test of Add stays O(1) for long recipient lists.
    std::unordered_set<std::u16string> m_keyIndex;
};

// Case folding for keys, one character to one: the letters of ASCII, Latin-1 and Latin
// Extended-A (all letters of the code page among them), of basic Greek and of basic Cyrillic
// fold to lower case; every other character stays as it is.
std::u16string FoldKeyCase(std::u16string_view key);

}  // namespace larkpost::detail

#endif
