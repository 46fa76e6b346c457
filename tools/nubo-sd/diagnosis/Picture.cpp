#include "diagnosis/Picture.h"

#include "Errors.h"
#include "text/UnicastAddress.h"
#include "unit/DiscoveryGroup.h"

#include <KELOEMInterfaceLib/OEMDispatcher.h>

#include <Poco/Exception.h>

namespace NuboSd {

namespace {

/// Uses the dispatcher, which also selects the interfaces of a registry.
std::map<std::string, std::string> usedInterfaces(const std::vector<std::string>& named)
{
    std::map<std::string, std::string> used;
    try {
        const OEMInterface::NetlinkDispatcher dispatcher(named);
        for (const auto& interface : dispatcher.interfaces())
            used[interface.name] = interface.ip;
    }
    catch (const Poco::Exception& exception) {
        throw NetworkError("the network cannot be used: " + exception.displayText());
    }
    return used;
}

}  // namespace

Picture gatherPicture(const UnitOptions& options)
{
    Picture picture;
    picture.namedInterfaces = options.interfaces;
    picture.interfaces = readInterfaces();
    picture.hasIPv6 = hasIPv6();
    if (!picture.hasIPv6)
        return picture;

    picture.used = usedInterfaces(options.interfaces);
    picture.settingsOfAll = readIpv6Settings("all");
    picture.settingsOfNew = readIpv6Settings("default");
    try {
        if (!options.address.empty())
            picture.namedAddress = parseUnicastAddress(options.address, "--address:").toString();
    }
    catch (const UsageError& error) {
        picture.addressError = error.what();
        return picture;
    }
    picture.port = DiscoveryPort::probe();
    if (picture.port.state == DiscoveryPort::State::Taken)
        picture.portHolders = holdersOfPort(discoveryPort);
    std::vector<std::string> names;
    for (const auto& [name, address] : picture.used)
        names.push_back(name);
    picture.echoes = tryGroupEcho(names);
    picture.counters = readCounters();  // last: a failed trial of the group counts
    return picture;
}

}  // namespace NuboSd
