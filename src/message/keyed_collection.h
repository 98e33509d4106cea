// KeyedCollection: an ordered list of strings with optional keys that compare ignoring case.
#ifndef LARKPOST_MESSAGE_KEYED_COLLECTION_H
#define LARKPOST_MESSAGE_KEYED_COLLECTION_H

#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace larkpost::detail {

class KeyedCollection {
public:
    // Appends at the end. A key already present (ignoring case) raises 457 and changes nothing.
    void Add(std::u16string item, std::optional<std::u16string> key = std::nullopt);
    // Removes the element with that key. An unknown key raises 5 and changes nothing.
    void Remove(std::u16string_view key);
    int32_t Count() const;

    using const_iterator = std::list<std::u16string>::const_iterator;
    const_iterator begin() const { return m_items.begin(); }
    const_iterator end() const { return m_items.end(); }

private:
    std::list<std::u16string> m_items;
    // The folded keys present and the element of each: the duplicate test of Add and Remove
    // stay O(1) on long recipient lists, and the list keeps the order of Add.
    std::unordered_map<std::u16string, const_iterator> m_keyIndex;
};

// Case folding for keys, one character to one: the letters of ASCII, Latin-1 and Latin
// Extended-A (all letters of the code page among them), of basic Greek and of basic Cyrillic
// fold to lower case; every other character stays as it is.
std::u16string FoldKeyCase(std::u16string_view key);

}  // namespace larkpost::detail

#endif
