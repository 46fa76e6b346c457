#include "services/ServicesFile.h"

#include "Errors.h"
#include "services/JsonItems.h"
#include "services/ServiceCheck.h"
#include "services/ServiceJson.h"
#include "text/Text.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <system_error>
#include <tuple>
#include <utility>

namespace NuboSd {

namespace {

/// Reads one service and reports its mistakes.
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

    /// Reports a fault, unless a mistake of its value was reported already.
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
        bool isKnown = field.key == "event";  // output of `browse --json` can be announced
        const bool isFirst = m_keys.insert(field.key).second;
        visitService(m_entry, [&](const char* key, auto& value) {
            if (field.key != key)
                return;
            isKnown = true;
            if (isFirst)
                take(field, value);
        });
        if (!isKnown)
            report(field.keyPosition, "unknown key \"" + printable(field.key) + "\"");
        else if (!isFirst)
            report(field.keyPosition, "the key \"" + field.key + "\" is there twice");
    }

    void take(const Field& field, std::string& text)
    {
        if (field.value.is_string())
            text = field.value.get<std::string>();
        else
            reportKind(field, field.position);
    }

    void take(const Field& field, std::vector<std::string>& list)
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

    void take(const Field& field, int& port)
    {
        if (!field.value.is_number_integer()) {
            report(field.position, "\"" + field.key + "\" is not a whole number");
            m_faulty.insert(field.key);
            return;
        }
        const bool isPort =
            field.value.is_number_unsigned() && field.value.get<std::uint64_t>() <= highestPort;
        port = isPort ? field.value.get<int>() : -1;
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
    if (!file || (text.fail() && errno != 0))  // a folder can be opened but not read
        throw UsageError(printable(path) + ": " + std::generic_category().message(errno));
    std::string result = text.str();
    const std::string byteOrderMark = "\xef\xbb\xbf";
    if (result.compare(0, byteOrderMark.size(), byteOrderMark) == 0)
        result.erase(0, byteOrderMark.size());
    return result;
}

/// Returns the services, and appends their mistakes.
std::vector<ServiceEntry> checkItems(const std::vector<Item>& items, const std::string& path,
                                     std::vector<Mistake>& mistakes)
{
    ServiceCheck library;
    std::vector<ServiceEntry> services;
    std::set<std::string> uuids;
    for (const Item& item : items) {
        const std::string service = "service " + std::to_string(services.size() + 1) + ": ";
        ItemCheck check(item, service, mistakes);
        services.push_back(check.entry());
        ServiceEntry& entry = services.back();
        entry.where = prefixOf(path, item.position) + service;
        if (!item.isObject)
            continue;
        if (!entry.uuid.empty() && !uuids.insert(entry.uuid).second)
            check.report({ServiceKey::uuid, {}, "the uuid \"" + printable(entry.uuid) + "\" is used twice"});
        for (const Fault& fault : library.check(entry))
            check.report(fault);
    }
    return services;
}

}  // namespace

ServicesFile readServicesFile(const std::string& path)
{
    const JsonItems json = readJsonItems(readText(path));
    std::vector<Mistake> mistakes;
    ServicesFile result;
    if (json.syntaxError)
        mistakes.push_back(*json.syntaxError);
    else if (!json.isList || json.items.empty())
        mistakes.push_back({json.position, "a list of at least one service is expected"});
    else
        result.services = checkItems(json.items, path, mistakes);

    std::stable_sort(mistakes.begin(), mistakes.end(), [](const Mistake& one, const Mistake& other) {
        return std::tie(one.position.line, one.position.column) <
               std::tie(other.position.line, other.position.column);
    });
    for (const Mistake& mistake : mistakes)
        result.mistakes.push_back(prefixOf(path, mistake.position) + printable(mistake.text));
    return result;
}

}  // namespace NuboSd
