#include "services/ServiceCheck.h"

#include "Errors.h"
#include "services/Refusal.h"
#include "services/ServiceEntry.h"
#include "services/ServiceJson.h"
#include "text/Text.h"
#include "text/UnicastAddress.h"

#include <KELOEMInterfaceLib/OEMDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Any.h>
#include <Poco/SharedPtr.h>

#include <string>

namespace NuboSd {

namespace {

/// Faults that the library would accept, but no other unit could use.
std::vector<Fault> ownFaults(const ServiceEntry& service)
{
    std::vector<Fault> faults;
    if (service.name.empty())
        faults.push_back({ServiceKey::name, {}, "the name is missing"});
    if (service.port < 1 || service.port > highestPort)
        faults.push_back({ServiceKey::port, {}, "the port is missing or not within 1 to 65535"});
    if (service.protocol != "tcp" && service.protocol != "udp")
        faults.push_back({ServiceKey::protocol,
                          {},
                          "the protocol \"" + printable(service.protocol) + "\" is neither tcp nor udp"});
    try {
        if (!service.address.empty())
            parseUnicastAddress(service.address, "the address");
    }
    catch (const UsageError& error) {
        faults.push_back({ServiceKey::address, {}, error.what()});
    }
    return faults;
}

}  // namespace

ServiceCheck::ServiceCheck()
{
    const Poco::SharedPtr<OEMInterface::OEMDispatcher> noInterfaces = new OEMInterface::ManualDispatcher;
    ApplicationServices::getLocator().add(typeid(OEMInterface::OEMDispatcher), noInterfaces);
    m_accepted.emplace();
}

ServiceCheck::~ServiceCheck()
{
    m_accepted.reset();
    ApplicationServices::getLocator().remove(typeid(OEMInterface::OEMDispatcher));
}

std::vector<Fault> ServiceCheck::check(const ServiceEntry& service)
{
    std::vector<Fault> faults = ownFaults(service);
    // Without a name and an endpoint a service is no instance, and cannot repeat an earlier one.
    const bool isInstance = faults.empty();
    std::string reason = isInstance ? refusal(*m_accepted, service) : std::string();
    if (isInstance && reason.empty())
        return faults;

    ServiceEntry rest = service;
    const std::vector<Fault> parts = takeRefusedParts(rest);
    faults.insert(faults.end(), parts.begin(), parts.end());
    // Faults of the whole only show once each part is right.
    if (isInstance && rest.name == service.name) {
        if (!parts.empty())
            reason = refusal(*m_accepted, rest);
        if (!reason.empty())
            faults.push_back({"", {}, reason});
    }
    return faults;
}

}  // namespace NuboSd
