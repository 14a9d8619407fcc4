#include "host/printable.h"

#include <algorithm>

namespace tav_host {

namespace {

// U+061C, U+200E, U+200F; line ends and embeddings from U+2028 to U+202E; isolates from U+2066 to U+2069.
constexpr bool Turns_Lines(unsigned long character)
{
    return character == 0x61C || character == 0x200E || character == 0x200F ||
           (character >= 0x2028 && character <= 0x202E) || (character >= 0x2066 && character <= 0x2069);
}

// How many bytes the UTF-8 character has that `text` starts with; 0 if it is none, or one that is not to be shown.
std::size_t Get_ShownSize(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
    const std::size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < size) return 0;
    unsigned long character = first & (0x7FU >> size);
    for (std::size_t i = 1; i < size; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0U) != 0x80) return 0;
        character = character << 6 | (byte & 0x3FU);
    }
    constexpr unsigned long SMALLEST[] = {0, 0, 0xA0, 0x800, 0x10000};  // below U+A0 are control characters
    const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
    const bool isShown = character >= SMALLEST[size] && character <= 0x10FFFF && !isSurrogate;
    return isShown && !Turns_Lines(character) ? size : 0;
}

}  // namespace

std::string Printable(std::string_view text)
{
    constexpr const char* DIGITS = "0123456789ABCDEF";
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        const std::size_t size = Get_ShownSize(text);
        const auto byte = static_cast<unsigned char>(text[0]);
        if (size > 0)
            shown += text.substr(0, size);
        else
            shown.append("\\x").append(1, DIGITS[byte >> 4]).append(1, DIGITS[byte & 0x0F]);
        text.remove_prefix(std::max<std::size_t>(size, 1));
    }
    return shown;
}

}  // namespace tav_host
