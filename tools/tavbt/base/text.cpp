#include "tools/tavbt/base/text.h"

#include <algorithm>
#include <cctype>
#include <clocale>
#include <cstdio>
#include <cwchar>

namespace tavbt {

std::string Quoted(std::string_view text)
{
    return '"' + Printable(text) + '"';
}

std::string To_Hex(std::string_view bytes, const char* between)
{
    std::string text;
    for (const char byte : bytes) {
        char digits[3] = {};
        snprintf(digits, sizeof(digits), "%02X", static_cast<unsigned>(static_cast<unsigned char>(byte)));
        text += (text.empty() ? "" : between) + std::string(digits);
    }
    return text;
}

std::optional<std::string> Parse_Hex(std::string_view text)
{
    std::string bytes;
    std::string digits;  // of the byte that is being read
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isxdigit(static_cast<unsigned char>(text[i]))) {
            if (digits.empty() && text[i] == '0' && i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
                ++i;
                continue;
            }
            digits += text[i];
            if (digits.size() < 2) continue;
            bytes += static_cast<char>(std::stoi(digits, nullptr, 16));
            digits.clear();
        } else if (!digits.empty() || std::string_view(" \t\r\n|:,").find(text[i]) == std::string_view::npos) {
            return std::nullopt;
        }
    }
    if (!digits.empty()) return std::nullopt;
    return bytes;
}

std::string Count_Of(std::size_t count, const std::string& thing)
{
    return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

std::string Format_Number(double number)
{
    char text[32] = {};
    snprintf(text, sizeof(text), "%.15g", number);
    return text;
}

std::string Format_Number(double number, int digits)
{
    char text[330] = {};  // the largest double has 309 digits
    snprintf(text, sizeof(text), "%.*f", digits, number);
    return text;
}

std::size_t Get_Width(const std::string& text)
{
    static const bool isKnown = setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
    std::size_t width = 0;
    mbstate_t state{};
    wchar_t character = 0;
    for (std::size_t at = 0, size = 0; at < text.size(); at += size) {
        size = isKnown ? mbrtowc(&character, text.data() + at, text.size() - at, &state) : 1;
        if (size == 0 || size > text.size()) return text.size();  // no UTF-8
        width += static_cast<std::size_t>(std::max(isKnown ? wcwidth(character) : 1, 0));
    }
    return width;
}

std::string Wrap(std::string_view text, std::size_t width, std::size_t indent)
{
    std::string wrapped;
    while (text.size() > width) {
        const std::size_t end = std::min(text.rfind(' ', width), text.find(' ', width));  // a long word stays whole
        if (end == std::string_view::npos) break;
        wrapped += std::string(text.substr(0, end)) + "\n" + std::string(indent, ' ');
        text.remove_prefix(end + 1);
    }
    return wrapped + std::string(text);
}

}  // namespace tavbt
