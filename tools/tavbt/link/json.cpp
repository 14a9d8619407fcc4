#include "tools/tavbt/link/json.h"

#include "tools/tavbt/base/text.h"

#include <algorithm>
#include <iterator>

namespace tavbt {

using nlohmann::json;

namespace {

constexpr const char* HEX = "_hex";

bool Is_Utf8(const std::string& text)
{
    try {
        (void)json(text).dump();
        return true;
    } catch (const json::type_error&) {
        return false;
    }
}

void Add_Text(nlohmann::ordered_json& object, const std::string& name, const std::string& text)
{
    object[name] = text;
    if (!Is_Utf8(text)) object[name + HEX] = To_Hex(text);
}

// The fields of a line, and where they stand in it.
class C_Fields
{
public:
    explicit C_Fields(const std::string& line) : m_Line(line)
    {
        try {
            m_Object = json::parse(line);
        } catch (const json::parse_error& error) {
            throw S_Flaw{std::max<std::size_t>(error.byte, 1), "no JSON from here on"};
        } catch (const json::exception& error) {
            throw S_Flaw{1, "no JSON: a number is too large"};
        }
        if (!m_Object.is_object())
            throw S_Flaw{1, R"(no message: {"kind":"text","id":"greeting","value":"Hello!"} is one)"};
    }

    void Check_Names() const
    {
        constexpr const char* NAMES[] = {"kind",   "id",     "value",      "to",   "id_hex", "value_hex",
                                         "to_hex", "sender", "sender_hex", "time", "address"};
        for (const auto& [name, value] : m_Object.items())
            if (std::find(std::begin(NAMES), std::end(NAMES), name) == std::end(NAMES))
                throw Get_Flaw(name, "there is no field " + Quoted(name));
    }

    bool Has(const std::string& name) const { return m_Object.contains(name); }

    S_Flaw Get_Flaw(const std::string& name, const std::string& what) const
    {
        const std::size_t at = m_Line.find('"' + name + '"');
        return {at == std::string::npos ? 1 : at + 1, what};
    }

    const json& Get(const std::string& name) const
    {
        if (!Has(name)) throw S_Flaw{1, "the field " + Quoted(name) + " is missing"};
        return m_Object[name];
    }

    // Any bytes: in hexadecimal under the longer name, else as they stand.
    std::string Get_Bytes(const std::string& name) const
    {
        return Has(name + HEX) ? Get_Data(name + HEX) : Get_String(name);
    }

    std::string Get_Data(const std::string& name) const
    {
        const std::optional<std::string> bytes = Parse_Hex(Get_String(name));
        if (!bytes) throw Get_Flaw(name, Quoted(name) + " is not pairs of hexadecimal digits");
        return *bytes;
    }

    std::string Get_String(const std::string& name) const
    {
        const json& value = Get(name);
        if (!value.is_string()) throw Get_Flaw(name, Quoted(name) + " is no text in quotes");
        return value.get<std::string>();
    }

    bool Get_Bool(const std::string& name) const
    {
        const json& value = Get(name);
        if (!value.is_boolean()) throw Get_Flaw(name, Quoted(name) + " is neither true nor false");
        return value.get<bool>();
    }

private:
    const std::string& m_Line;
    json m_Object;
};

S_Value Get_Value(const C_Fields& fields)
{
    const std::string kind = fields.Get_String("kind");
    if (kind == Get_Word(E_Kind::BOOL)) return {E_Kind::BOOL, fields.Get_Bool("value"), ""};
    if (kind == Get_Word(E_Kind::TEXT)) return {E_Kind::TEXT, false, fields.Get_Bytes("value")};
    if (kind == Get_Word(E_Kind::DATA)) return {E_Kind::DATA, false, fields.Get_Data("value")};
    throw fields.Get_Flaw("kind", "the kind is bool, text or data, not " + Quoted(kind));
}

}  // namespace

nlohmann::ordered_json To_Json(const S_Message& message)
{
    const S_Value& value = message.Value;
    nlohmann::ordered_json object = {{"kind", Get_Word(value.Kind)}};
    if (!message.Sender.empty()) Add_Text(object, "sender", message.Sender);
    Add_Text(object, "id", message.Id);
    if (value.Kind == E_Kind::BOOL)
        object["value"] = value.Bool;
    else if (value.Kind == E_Kind::TEXT)
        Add_Text(object, "value", value.Bytes);
    else
        object["value"] = To_Hex(value.Bytes);
    return object;
}

S_Outgoing From_Json(const std::string& line)
{
    const C_Fields fields(line);
    fields.Check_Names();
    const bool isForAll = !fields.Has("to") && !fields.Has("to_hex");
    return {{"", fields.Get_Bytes("id"), Get_Value(fields)}, isForAll ? "" : fields.Get_Bytes("to")};
}

}  // namespace tavbt
