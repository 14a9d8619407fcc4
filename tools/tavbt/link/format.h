// Takes messages apart, byte by byte, and says what is wrong with them and what the module's readers make of it.
// docs/formats.md has both formats.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavbt {

enum class E_Format
{
    NAMED,
    CLASSIC
};

enum class E_Kind
{
    BOOL,
    TEXT,
    DATA,
    UNKNOWN
};

struct S_Value
{
    E_Kind Kind = E_Kind::UNKNOWN;
    bool Bool = false;
    std::string Bytes;  // text or data
};

struct S_Message
{
    std::string Sender;  // named format only
    std::string Id;
    S_Value Value;
};

struct S_Field
{
    std::size_t Offset;
    std::size_t Size;
    std::string Name;
    std::string Value;  // in words
};

struct S_Decoded
{
    E_Format Format = E_Format::NAMED;
    S_Message Message;     // as far as it can be told
    std::size_t Size = 0;  // bytes that belong to it
    std::vector<S_Field> Fields;
    std::vector<std::string> Damage;  // bytes are missing, or no reader takes it
    std::vector<std::string> Odd;     // readers take it, but the module sends no such message
};

const char* Get_Word(E_Kind kind);
const char* Get_Word(E_Format format);

// The format that the bytes look like; none if neither.
std::optional<E_Format> Guess_Format(std::string_view bytes);

// The first message in `bytes`, which are not empty. What stands behind it, from Size on, is not looked at.
S_Decoded Decode(E_Format format, std::string_view bytes);

}  // namespace tavbt
