#include "tools/tavbt/link/format.h"

#include "bluetooth/constants.h"
#include "tools/tavbt/base/text.h"

#include <algorithm>

namespace tavbt {

using namespace tav_c_api_impl::bluetooth_constants;

namespace {

constexpr std::size_t BOOL_READER_SIZE = 32;

// Moves through the bytes of one message and collects its fields.
class C_Dissection
{
public:
    C_Dissection(E_Format format, std::string_view bytes) : m_Bytes(bytes) { m_Decoded.Format = format; }
    C_Dissection(const C_Dissection&) = delete;
    C_Dissection& operator=(const C_Dissection&) = delete;

    S_Message& Get_Message() { return m_Decoded.Message; }
    const std::vector<std::string>& Get_Damage() const { return m_Decoded.Damage; }

    std::size_t Get_Pos() const { return m_Pos; }
    std::size_t Get_Left() const { return m_Bytes.size() - m_Pos; }
    char Get_Byte(std::size_t ahead) const { return m_Bytes[m_Pos + ahead]; }
    std::string Get_Bytes(std::size_t size) const { return std::string(m_Bytes.substr(m_Pos, size)); }

    void Damaged(const std::string& what) { m_Decoded.Damage.push_back(what); }
    void Odd(const std::string& what) { m_Decoded.Odd.push_back(what); }

    void Take(const char* name, std::size_t size, const std::string& value)
    {
        if (size > 0) m_Decoded.Fields.push_back({m_Pos, size, name, value});
        m_Pos += size;
    }

    // Other words for the field that was taken last.
    void Name_Last(const std::string& value) { m_Decoded.Fields.back().Value = value; }

    void Take_Rest(const char* name)
    {
        if (Get_Left() > 0) Take(name, Get_Left(), "");
    }

    // A little-endian number; false, and the rest taken, when it is cut.
    bool Take_Number(const char* name, std::size_t size, std::size_t& value)
    {
        if (Get_Left() < size) {
            Take_Rest("");
            Damaged(std::string("ends before the end of its ") + name);
            return false;
        }
        value = 0;
        for (std::size_t i = size; i-- > 0;)
            value = value * 256 + static_cast<unsigned char>(Get_Byte(i));
        Take(name, size, std::to_string(value));
        return true;
    }

    // A text up to its NUL; false, and the rest taken, without one.
    bool Take_Text(const char* name, std::string& text)
    {
        const std::size_t end = m_Bytes.find('\0', m_Pos);
        const bool ended = end != std::string_view::npos;
        text = m_Bytes.substr(m_Pos, ended ? end - m_Pos : Get_Left());
        Take(name, ended ? text.size() + 1 : Get_Left(), Quoted(text));
        return ended;
    }

    void Take_Bool()
    {
        S_Value& value = Get_Message().Value;
        value.Kind = E_Kind::BOOL;
        if (Get_Left() == 0) return Damaged("ends before its value");
        const unsigned int byte = static_cast<unsigned char>(Get_Byte(0));
        if (byte > 1) Odd("its value is " + std::to_string(byte) + ", which readers take for true");
        value.Bool = byte != 0;
        Take("bool", 1, value.Bool ? "true" : "false");
    }

    S_Decoded Finish()
    {
        m_Decoded.Size = m_Pos;
        return std::move(m_Decoded);
    }

private:
    const std::string_view m_Bytes;
    std::size_t m_Pos = 0;
    S_Decoded m_Decoded;
};

// ---- Named format ---------------------------------------------------------------------------------------------------

void Take_NamedData(C_Dissection& in)
{
    std::size_t size = 0;
    if (!in.Take_Number("size", 4, size)) return;
    const std::size_t here = std::min(size, in.Get_Left());
    const std::size_t behind = in.Get_Left() - here;
    in.Get_Message().Value.Bytes = in.Get_Bytes(here);
    in.Take("data", here, Count_Of(here, "byte"));
    if (size == 0 && behind == 0)
        in.Damaged("has no data: readers fail, as they want a byte behind the size");
    else if (here == 0 && size > 0)
        in.Damaged("has none of its " + Count_Of(size, "byte") + " of data: readers fail");
    else if (here < size)
        in.Damaged("has " + std::to_string(here) + " of its " + Count_Of(size, "byte") +
                   " of data: readers take them for all");
}

S_Decoded Decode_Named(std::string_view bytes)
{
    C_Dissection in(E_Format::NAMED, bytes);
    const unsigned int type = static_cast<unsigned char>(in.Get_Byte(0));
    const E_Kind kind = type == TYPE_TEXT   ? E_Kind::TEXT
                        : type == TYPE_BOOL ? E_Kind::BOOL
                        : type == TYPE_DATA ? E_Kind::DATA
                                            : E_Kind::UNKNOWN;
    if (kind == E_Kind::UNKNOWN) {
        in.Take_Rest("");
        in.Damaged("its type is " + std::to_string(type) + ", which is none of 1 (text), 3 (bool) and 4 (data)");
        return in.Finish();
    }
    S_Message& message = in.Get_Message();
    message.Value.Kind = kind;
    in.Take("type", 1, std::to_string(type) + ", " + Get_Word(kind));
    if (!in.Take_Text("sender", message.Sender)) {
        in.Damaged("no NUL ends its sender: readers fail");
    } else if (!in.Take_Text("id", message.Id)) {
        in.Damaged("no NUL ends its id: readers fail");
    } else if (kind == E_Kind::BOOL) {
        in.Take_Bool();
    } else if (kind == E_Kind::DATA) {
        Take_NamedData(in);
    } else if (in.Get_Left() == 0) {
        in.Damaged("ends before its text: readers take an empty one");
    } else if (!in.Take_Text("text", message.Value.Bytes)) {
        in.Damaged("no NUL ends its text: readers drop its last byte");
    }
    return in.Finish();
}

// ---- Classic format -------------------------------------------------------------------------------------------------

bool Is_Command(std::string_view bytes, std::size_t at)
{
    return bytes.size() >= at && bytes.substr(at, 2) == WRITE_MAILBOX;
}

// Id length and id. False when nothing can be told of what follows.
bool Take_ClassicId(C_Dissection& in)
{
    std::size_t size = 0;
    if (!in.Take_Number("id length", 1, size)) return false;
    if (size == 0 || size > in.Get_Left()) {
        in.Damaged(size == 0 ? "its id length is 0: readers take all that follows for the id"
                             : "has " + std::to_string(in.Get_Left()) + " of the " + Count_Of(size, "byte") +
                                   " of its id: readers fail");
        in.Take_Rest("id");
        return false;
    }
    if (in.Get_Byte(size - 1) != '\0') in.Odd("the last byte of its id is not NUL; readers drop it all the same");
    in.Get_Message().Id = in.Get_Bytes(size - 1);
    in.Take("id", size, Quoted(in.Get_Message().Id));
    return true;
}

void Take_ClassicPayload(C_Dissection& in)
{
    std::size_t size = 0;
    if (!in.Take_Number("payload length", 2, size)) return;
    if (size == 1) return in.Take_Bool();
    S_Value& value = in.Get_Message().Value;
    value.Kind = E_Kind::TEXT;
    if (size == 0 || size > in.Get_Left()) {
        in.Damaged(size == 0 ? "its payload length is 0: a text reader takes all that follows"
                             : "has " + std::to_string(in.Get_Left()) + " of the " + Count_Of(size, "byte") +
                                   " of its payload: a text reader fails");
        in.Take_Rest("text");
        return;
    }
    if (in.Get_Byte(size - 1) != '\0') in.Odd("the last byte of its text is not NUL; readers drop it all the same");
    value.Bytes = in.Get_Bytes(size - 1);
    in.Take("text", size, Quoted(value.Bytes));
}

S_Decoded Decode_Classic(std::string_view bytes)
{
    C_Dissection in(E_Format::CLASSIC, bytes);
    if (bytes[0] == '\0' && Is_Command(bytes, 5))
        in.Take("", 1, "a zero byte, which readers skip");
    else if (bytes[0] == '\0')
        in.Damaged("its first byte is 0: readers skip it, and misread the rest");
    const std::size_t start = in.Get_Pos();
    std::size_t length = 0;
    std::size_t counter = 0;
    std::size_t command = 0;
    if (!in.Take_Number("length", 2, length) || !in.Take_Number("counter", 2, counter) ||
        !in.Take_Number("command", 2, command))
        return in.Finish();
    if (counter != 1) in.Odd("its counter is " + std::to_string(counter) + ", not 1; readers do not look at it");
    const bool isMailbox = Is_Command(bytes, start + 4);
    in.Name_Last(isMailbox ? "write mailbox, no reply" : "not 81 9E, write mailbox");
    if (!isMailbox) in.Odd("its command is not 81 9E; readers do not look at it");
    if (!Take_ClassicId(in)) return in.Finish();
    Take_ClassicPayload(in);
    const std::size_t rest = in.Get_Pos() - start - 2;
    if (in.Get_Damage().empty() && length != rest)
        in.Odd("its length is " + std::to_string(length) + ", not " + std::to_string(rest) +
               "; readers do not compare");
    if (in.Get_Message().Value.Kind == E_Kind::BOOL && in.Get_Pos() > BOOL_READER_SIZE)
        in.Odd("a bool reader receives 32 bytes of it, without the value");
    return in.Finish();
}

}  // namespace

const char* Get_Word(E_Kind kind)
{
    constexpr const char* WORDS[] = {"bool", "text", "data", "unknown"};
    return WORDS[static_cast<int>(kind)];
}

const char* Get_Word(E_Format format)
{
    return format == E_Format::NAMED ? "named" : "classic";
}

std::optional<E_Format> Guess_Format(std::string_view bytes)
{
    if (Is_Command(bytes, 4) || (bytes[0] == '\0' && Is_Command(bytes, 5))) return E_Format::CLASSIC;
    if (bytes[0] == TYPE_TEXT || bytes[0] == TYPE_BOOL || bytes[0] == TYPE_DATA) return E_Format::NAMED;
    return std::nullopt;
}

S_Decoded Decode(E_Format format, std::string_view bytes)
{
    return format == E_Format::NAMED ? Decode_Named(bytes) : Decode_Classic(bytes);
}

}  // namespace tavbt
