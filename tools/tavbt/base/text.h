// Texts for people: what others sent made harmless, hexadecimal, lines that fit.
#pragma once

#include "host/printable.h"

#include <optional>
#include <string>
#include <string_view>

namespace tavbt {

using tav_host::Printable;

std::string Quoted(std::string_view text);  // printable, in quotes

std::string To_Hex(std::string_view bytes, const char* between = "");

// Bytes from hexadecimal digits, between which may stand blanks, line breaks, "|", ":", "," and "0x" before a byte.
// None, if something else stands there, or half a byte.
std::optional<std::string> Parse_Hex(std::string_view text);

std::string Count_Of(std::size_t count, const std::string& thing);  // "1 byte", "2 bytes"

std::string Format_Number(double number);              // as short as it can be
std::string Format_Number(double number, int digits);  // with so many behind the point

// Columns that a printable text takes on a terminal: some characters take two, some none.
std::size_t Get_Width(const std::string& text);

// Breaks a text at blanks into lines of at most `width`, all but the first indented.
std::string Wrap(std::string_view text, std::size_t width, std::size_t indent = 0);

}  // namespace tavbt
