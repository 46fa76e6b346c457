#include "services/JsonItems.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace NuboSd {

using nlohmann::json;

namespace {

/// Iterates over a text and counts the characters that the parser has consumed.
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

/// Collects what the parser finds, with positions. The parser reports each token as soon as it has read it,
/// and a number one character later.
class ItemReader : public json::json_sax_t
{
public:
    explicit ItemReader(const std::string& text) : m_text(text) {}

    JsonItems read()
    {
        const char* begin = m_text.data();
        json::sax_parse(Reading(begin, m_consumed), Reading(begin + m_text.size(), m_consumed), this);
        return std::move(m_result);
    }

    bool null() override { return take(nullptr); }
    bool boolean(bool value) override { return take(value); }
    bool number_integer(number_integer_t value) override { return take(value); }
    bool number_unsigned(number_unsigned_t value) override { return take(value); }
    bool number_float(number_float_t value, const string_t&) override { return take(value); }
    bool string(string_t& value) override { return take(value); }
    bool binary(binary_t&) override { return false; }  // cannot occur in a text
    bool start_object(std::size_t) override { return open(json::object()); }
    bool start_array(std::size_t) override { return open(json::array()); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool key(string_t& name) override
    {
        const Position position = tokenPosition();
        if (m_depth == fieldDepth && isInObject())
            m_result.items.back().fields.push_back({name, position, position, nullptr, {}});
        return true;
    }

    bool parse_error(std::size_t count, const std::string&, const json::exception& error) override
    {
        const std::string text = error.what();  // "[json.exception.…] parse error at line 1, column 2: …"
        const bool hasPosition = text.find("] parse error at ") != std::string::npos;
        m_result.syntaxError = {positionOf(std::max<std::size_t>(count, 1) - 1),
                                text.substr(text.find(hasPosition ? ": " : "] ") + 2)};
        return false;
    }

private:
    static constexpr int itemDepth = 1;
    static constexpr int fieldDepth = 2;
    static constexpr int elementDepth = 3;

    bool isInObject() const { return !m_result.items.empty() && m_result.items.back().isObject; }

    bool take(json value)
    {
        const Position position = tokenPosition();
        if (m_depth == 0) {
            m_result.isList = value.is_array();
            m_result.position = position;
        }
        else if (!m_result.isList) {
            return true;
        }
        else if (m_depth == itemDepth) {
            m_result.items.push_back({position, value.is_object(), {}});
        }
        else if (m_depth == fieldDepth && isInObject()) {
            m_result.items.back().fields.back().position = position;
            m_result.items.back().fields.back().value = std::move(value);
        }
        else if (m_depth == elementDepth && isInObject()) {
            Field& field = m_result.items.back().fields.back();
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

    /// The first character of the token that the parser has just read.
    Position tokenPosition()
    {
        const std::size_t begin = m_text.find_first_not_of(" \t\r\n,:", m_lastToken);
        m_lastToken = m_consumed;
        return positionOf(begin);
    }

    /// The position of a byte, which must not precede that of the previous call.
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
    std::size_t m_lastToken = 0;  // where it ended
    std::size_t m_counted = 0;    // the byte at m_position
    Position m_position;

    int m_depth = 0;
    JsonItems m_result;
};

}  // namespace

JsonItems readJsonItems(const std::string& text)
{
    return ItemReader(text).read();
}

}  // namespace NuboSd
