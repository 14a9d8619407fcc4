// Fields of a binary file, read byte by byte from a stdio stream.
#pragma once

#include <cstdio>
#include <string>

namespace tav_c_api_impl {

// Reads a text up to its terminating 0, which is consumed and not stored. False when the stream is null or in
// error, or when the file ends first; the characters read so far then stay in `text`.
// `maxSize` is accepted and not used, on purpose: a text is read to its terminator however long it is.
template <typename CHAR>
bool File_Read_String(FILE* file, [[maybe_unused]] unsigned int maxSize, std::basic_string<CHAR>& text)
{
    text.clear();
    if (file == nullptr || ferror(file) != 0) return false;
    CHAR read{};
    while (fread(&read, sizeof(CHAR), 1, file) == 1) {
        if (read == CHAR{}) return true;
        text += read;
    }
    return false;
}

// Reads one character. False, and the character unchanged, on a null stream, a stream in error, the end of the
// file or a read error.
template <typename CHAR>
bool File_Read_Character(FILE* file, CHAR& character)
{
    if (file == nullptr || ferror(file) != 0) return false;
    CHAR read{};
    if (fread(&read, sizeof(CHAR), 1, file) != 1) return false;
    character = read;
    return true;
}

}  // namespace tav_c_api_impl
