#include "services/ServicesFile.h"

#include "Errors.h"
#include "services/ServiceCheck.h"
#include "text/Text.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <system_error>
#include <tuple>

#include <nlohmann/json.hpp>

namespace NuboSd {

using nlohmann::json;

namespace {

struct Mistake
{
    Position position;
    std::string text;
};

/// A key of an object and its value, of which the elements of a list are kept, but nothing below those.
struct Field
{
    std::string key;
    Position keyPosition;
    Position position;
    json value;
    std::vector<Position> elements;
};

/// An element of the list of services.
struct Item
{
    Position position;
    bool isObject = false;
    std::vector<Field> fields;
};

/// Walks over a text and lets it be known how far the parser has come.
class Reading
{
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    Reading(const char* at, std::size_t& count) : m_at(at), m_count(&count) {}

    reference operator*() const { return *m_at; }
    Reading& operator++()
    {
        ++m_at;
        ++*m_count;
        return *this;
    }
    friend bool operator==(const Reading& one, const Reading& other) { return one.m_at == other.m_at; }
    friend bool operator!=(const Reading& one, const Reading& other) { return one.m_at != other.m_at; }

private:
    const char* m_at;
    std::size_t* m_count;
};

/// Takes what the parser finds, with positions. The parser tells of each token as soon as it has read it,
/// and of a number one character later.
class ItemReader : public json::json_sax_t
{
public:
    explicit ItemReader(const std::string& text) : m_text(text) {}

    bool parse()
    {
        const char* begin = m_text.data();
        return json::sax_parse(Reading(begin, m_consumed), Reading(begin + m_text.size(), m_consumed), this);
    }

    bool isList() const { return m_isList; }
    Position listPosition() const { return m_listPosition; }
    std::vector<Item>& items() { return m_items; }
    const Mistake& syntaxError() const { return m_syntaxError; }

    bool null() override { return take(nullptr); }
    bool boolean(bool value) override { return take(value); }
    bool number_integer(number_integer_t value) override { return take(value); }
    bool number_unsigned(number_unsigned_t value) override { return take(value); }
    bool number_float(number_float_t value, const string_t&) override { return take(value); }
    bool string(string_t& value) override { return take(value); }
    bool binary(binary_t&) override { return false; }  // there is none in a text
    bool start_object(std::size_t) override { return open(json::object()); }
    bool start_array(std::size_t) override { return open(json::array()); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool key(string_t& name) override
    {
        const Position position = tokenPosition();
        if (m_depth == fieldDepth && isInObject())
            m_items.back().fields.push_back({name, position, position, nullptr, {}});
        return true;
    }

    bool parse_error(std::size_t count, const std::string&, const json::exception& error) override
    {
        const std::string text = error.what();  // "[json.exception.…] parse error at line 1, column 2: …"
        const bool hasPosition = text.find("] parse error at ") != std::string::npos;
        m_syntaxError.position = positionOf(std::max<std::size_t>(count, 1) - 1);
        m_syntaxError.text = text.substr(text.find(hasPosition ? ": " : "] ") + 2);
        return false;
    }

private:
    static constexpr int itemDepth = 1;
    static constexpr int fieldDepth = 2;
    static constexpr int elementDepth = 3;

    bool isInObject() const { return !m_items.empty() && m_items.back().isObject; }

    bool take(json value)
    {
        const Position position = tokenPosition();
        if (m_depth == 0) {
            m_isList = value.is_array();
            m_listPosition = position;
        }
        else if (!m_isList) {
            return true;
        }
        else if (m_depth == itemDepth) {
            m_items.push_back({position, value.is_object(), {}});
        }
        else if (m_depth == fieldDepth && isInObject()) {
            m_items.back().fields.back().position = position;
            m_items.back().fields.back().value = std::move(value);
        }
        else if (m_depth == elementDepth && isInObject()) {
            Field& field = m_items.back().fields.back();
            if (field.value.is_array()) {
                field.value.push_back(std::move(value));
                field.elements.push_back(position);
            }
        }
        return true;
    }

    bool open(json value)
    {
        take(std::move(value));
        ++m_depth;
        return true;
    }

    bool close()
    {
        tokenPosition();
        --m_depth;
        return true;
    }

    /// Where the token begins that the parser has just read.
    Position tokenPosition()
    {
        const std::size_t begin = m_text.find_first_not_of(" \t\r\n,:", m_lastToken);
        m_lastToken = m_consumed;
        return positionOf(begin);
    }

    /// The position of a byte that is not before the last one asked for.
    Position positionOf(std::size_t byte)
    {
        for (; m_counted < std::min(byte, m_text.size()); ++m_counted) {
            ++m_position.column;
            if (m_text[m_counted] == '\n')
                m_position = {m_position.line + 1, 1};
        }
        return m_position;
    }

    const std::string& m_text;
    std::size_t m_consumed = 0;
    std::size_t m_lastToken = 0;  // its end
    std::size_t m_counted = 0;    // the position is that of this byte
    Position m_position;

    int m_depth = 0;
    bool m_isList = false;
    Position m_listPosition;
    std::vector<Item> m_items;
    Mistake m_syntaxError;
};

/// What was read of one service.
class ItemCheck
{
public:
    ItemCheck(const Item& item, std::string prefix, std::vector<Mistake>& mistakes)
        : m_item(item)
        , m_prefix(std::move(prefix))
        , m_mistakes(mistakes)
    {
        if (item.isObject) {
            for (const Field& field : item.fields)
                read(field);
        }
        else {
            report(item.position, "is not an object");
        }
    }

    const ServiceEntry& entry() const { return m_entry; }

    /// Reports a fault, unless its value was found wrong already.
    void report(const Fault& fault)
    {
        const auto elements = m_elements.find(fault.key);
        if (fault.element && elements != m_elements.end())
            report(elements->second.at(*fault.element), fault.text);
        else if (m_faulty.count(fault.key) == 0)
            report(positionOf(fault.key), fault.text);
    }

    Position positionOf(const std::string& key) const
    {
        const auto field = std::find_if(m_item.fields.begin(), m_item.fields.end(),
                                        [&](const Field& one) { return one.key == key; });
        return field == m_item.fields.end() ? m_item.position : field->position;
    }

private:
    void report(Position position, const std::string& text)
    {
        m_mistakes.push_back({position, m_prefix + text});
    }

    void read(const Field& field)
    {
        const std::map<std::string, std::string*> texts{{"uuid", &m_entry.uuid},
                                                        {"name", &m_entry.name},
                                                        {"address", &m_entry.address},
                                                        {"protocol", &m_entry.protocol},
                                                        {"uri", &m_entry.uri}};
        const std::map<std::string, std::vector<std::string>*> lists{{"versions", &m_entry.versions},
                                                                     {"categories", &m_entry.categories}};
        const auto text = texts.find(field.key);
        const auto list = lists.find(field.key);
        const bool isKnown = text != texts.end() || list != lists.end() || field.key == "port" ||
                             field.key == "event";  // what `browse --json` printed can be announced
        if (!isKnown)
            report(field.keyPosition, "unknown key \"" + printable(field.key) + "\"");
        else if (!m_keys.insert(field.key).second)
            report(field.keyPosition, "the key \"" + field.key + "\" is there twice");
        else if (text != texts.end())
            readText(field, *text->second);
        else if (list != lists.end())
            readList(field, *list->second);
        else if (field.key == "port")
            readPort(field);
    }

    void readText(const Field& field, std::string& text)
    {
        if (field.value.is_string())
            text = field.value.get<std::string>();
        else
            reportKind(field, field.position);
    }

    void readList(const Field& field, std::vector<std::string>& list)
    {
        if (!field.value.is_array()) {
            reportKind(field, field.position);
            return;
        }
        std::vector<Position>& positions = m_elements[field.key];
        for (std::size_t i = 0; i < field.elements.size(); ++i) {
            if (field.value[i].is_string()) {
                list.push_back(field.value[i].get<std::string>());
                positions.push_back(field.elements[i]);
            }
            else {
                reportKind(field, field.elements[i]);
            }
        }
    }

    void readPort(const Field& field)
    {
        if (!field.value.is_number_integer()) {
            report(field.position, "\"port\" is not a whole number");
            m_faulty.insert(field.key);
            return;
        }
        const bool isPort =
            field.value.is_number_unsigned() && field.value.get<std::uint64_t>() <= highestPort;
        m_entry.port = isPort ? field.value.get<int>() : -1;
    }

    void reportKind(const Field& field, Position position)
    {
        report(position, "\"" + field.key + "\" has a value of the wrong kind");
        m_faulty.insert(field.key);
    }

    const Item& m_item;
    const std::string m_prefix;
    std::vector<Mistake>& m_mistakes;
    ServiceEntry m_entry;
    std::set<std::string> m_keys;
    std::set<std::string> m_faulty;
    std::map<std::string, std::vector<Position>> m_elements;
};

/// "services.json:3:14: "
std::string prefixOf(const std::string& path, Position position)
{
    return printable(path) + ':' + std::to_string(position.line) + ':' + std::to_string(position.column) +
           ": ";
}

std::string readText(const std::string& path)
{
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (file)
        text << file.rdbuf();
    if (!file || (text.fail() && errno != 0))  // a folder can be opened, but not read
        throw UsageError(printable(path) + ": " + std::generic_category().message(errno));
    std::string result = text.str();
    const std::string byteOrderMark = "\xef\xbb\xbf";
    if (result.compare(0, byteOrderMark.size(), byteOrderMark) == 0)
        result.erase(0, byteOrderMark.size());
    return result;
}

}  // namespace

ServicesFile readServicesFile(const std::string& path)
{
    const std::string text = readText(path);
    ItemReader reader(text);
    std::vector<Mistake> mistakes;
    ServicesFile result;
    if (!reader.parse())
        mistakes.push_back(reader.syntaxError());
    else if (!reader.isList() || reader.items().empty())
        mistakes.push_back({reader.listPosition(), "a list of at least one service is expected"});

    if (mistakes.empty()) {
        ServiceCheck library;
        std::set<std::string> uuids;
        for (const Item& item : reader.items()) {
            const std::string service = "service " + std::to_string(result.services.size() + 1) + ": ";
            ItemCheck check(item, service, mistakes);
            result.services.push_back(check.entry());
            ServiceEntry& entry = result.services.back();
            entry.where = prefixOf(path, item.position) + service;
            if (!item.isObject)
                continue;
            if (!entry.uuid.empty() && !uuids.insert(entry.uuid).second)
                check.report({"uuid", {}, "the uuid \"" + printable(entry.uuid) + "\" is used twice"});
            for (const Fault& fault : library.check(entry))
                check.report(fault);
        }
    }

    std::stable_sort(mistakes.begin(), mistakes.end(), [](const Mistake& one, const Mistake& other) {
        return std::tie(one.position.line, one.position.column) <
               std::tie(other.position.line, other.position.column);
    });
    for (const Mistake& mistake : mistakes)
        result.mistakes.push_back(prefixOf(path, mistake.position) + printable(mistake.text));
    return result;
}

}  // namespace NuboSd
