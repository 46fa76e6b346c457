#include "ServiceEntry.h"

#include "CommandLine.h"
#include "Errors.h"
#include "EventPrinter.h"

#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <system_error>

#include <nlohmann/json.hpp>

namespace NuboSd {

using nlohmann::json;
using Nubo::ServiceDiscovery::NuboServiceDescription;
using Nubo::ServiceDiscovery::OptionL4Protocol;

namespace {

constexpr int highestPort = 65535;

/// Reads a value of the JSON type that `Value` has.
template <class Value>
std::function<void(const json&)> into(Value& target)
{
    return [&target](const json& value) { target = value.get<Value>(); };
}

ServiceEntry readEntry(const json& object, const std::string& where)
{
    if (!object.is_object())
        throw UsageError(where + "is not an object");
    ServiceEntry entry;
    entry.where = where;
    const std::map<std::string, std::function<void(const json&)>> keys{
        {"event", [](const json&) {}},  // what `browse --json` printed can be announced
        {"uuid", into(entry.uuid)},
        {"name", into(entry.name)},
        {"versions", into(entry.versions)},
        {"categories", into(entry.categories)},
        {"address", into(entry.address)},
        {"port",
         [&](const json& value) {
             if (!value.is_number_integer())
                 throw UsageError(where + "\"port\" is not a whole number");
             const auto port = value.get<long long>();
             entry.port = port < 0 || port > highestPort ? -1 : static_cast<int>(port);
         }},
        {"protocol", into(entry.protocol)},
        {"uri", into(entry.uri)}};
    for (const auto& [key, value] : object.items()) {
        const auto known = keys.find(key);
        if (known == keys.end())
            throw UsageError(where + "unknown key \"" + printable(key) + "\"");
        try {
            known->second(value);
        }
        catch (const json::exception&) {
            throw UsageError(where + "\"" + key + "\" has a value of the wrong kind");
        }
    }
    return entry;
}

}  // namespace

NuboServiceDescription ServiceEntry::describe(const Poco::Net::IPAddress& unitAddress) const
{
    if (name.empty())
        throw UsageError(where + "the name is missing");
    if (port < 1 || port > highestPort)
        throw UsageError(where + "the port is missing or not within 1 to 65535");
    if (protocol != "tcp" && protocol != "udp")
        throw UsageError(where + "the protocol \"" + printable(protocol) + "\" is neither tcp nor udp");

    NuboServiceDescription description;
    description.setName(name);
    for (const std::string& version : versions)
        description.addVersion(version);
    for (const std::string& category : categories)
        description.addCategory(category);
    description.setIpAddress(address.empty() ? unitAddress
                                             : parseUnicastAddress(address, where + "the address"));
    description.setPort(static_cast<unsigned short>(port));
    description.setL4Proto(protocol == "udp" ? OptionL4Protocol::UDP : OptionL4Protocol::TCP);
    description.setLocalUuid(uuid.empty() ? Poco::UUIDGenerator::defaultGenerator().createRandom().toString()
                                          : uuid);
    description.setUri(uri.empty() ? description.generateUri() : uri);
    return description;
}

std::vector<ServiceEntry> readServicesFile(const std::string& path)
{
    std::ifstream file(path);
    if (!file)
        throw UsageError(path + ": " + std::generic_category().message(errno));
    json list;
    try {
        list = json::parse(file);
    }
    catch (const json::parse_error& error) {
        const std::string text = error.what();  // "[json.exception.…] parse error at line …"
        throw UsageError(path + ": " + printable(text.substr(text.find("] ") + 2)));
    }
    if (!list.is_array() || list.empty())
        throw UsageError(path + ": a list of at least one service is expected");

    std::vector<ServiceEntry> entries;
    std::set<std::string> uuids;
    for (const json& object : list) {
        const std::string where = path + ": service " + std::to_string(entries.size() + 1) + ": ";
        entries.push_back(readEntry(object, where));
        const std::string& uuid = entries.back().uuid;
        if (!uuid.empty() && !uuids.insert(uuid).second)
            throw UsageError(where + "the uuid \"" + printable(uuid) + "\" is used twice");
    }
    return entries;
}

}  // namespace NuboSd
