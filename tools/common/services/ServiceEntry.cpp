#include "services/ServiceEntry.h"

#include "text/Text.h"
#include "text/UnicastAddress.h"

#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>

namespace NuboSd {

using Nubo::ServiceDiscovery::NuboServiceDescription;
using Nubo::ServiceDiscovery::OptionL4Protocol;

ServiceEntry ServiceEntry::of(const NuboServiceDescription& description)
{
    ServiceEntry entry;
    entry.name = description.getName();
    entry.versions = description.getVersions();
    entry.categories = description.getCategories();
    entry.address = description.getIpAddressString();
    entry.port = description.getPort();
    entry.protocol = protocolName(description.getL4Proto());
    entry.uuid = description.getLocalUuid();
    entry.uri = description.getUri();
    return entry;
}

NuboServiceDescription ServiceEntry::describe(const Poco::Net::IPAddress& unitAddress) const
{
    NuboServiceDescription description;
    description.setName(name);
    description.setVersions(versions);
    description.setCategories(categories);
    description.setIpAddress(address.empty() ? unitAddress : parseUnicastAddress(address, "the address"));
    description.setPort(static_cast<unsigned short>(port));
    description.setL4Proto(protocol == "udp" ? OptionL4Protocol::UDP : OptionL4Protocol::TCP);
    description.setLocalUuid(uuid.empty() ? Poco::UUIDGenerator::defaultGenerator().createRandom().toString()
                                          : uuid);
    description.setUri(uri.empty() ? description.generateUri() : uri);
    return description;
}

}  // namespace NuboSd
