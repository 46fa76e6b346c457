#include "services/ServiceCheck.h"

#include "Errors.h"
#include "commands/CommandLine.h"
#include "text/Text.h"

#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Any.h>

namespace NuboSd {

using Nubo::ServiceDiscovery::NuboServiceDescription;
using Nubo::ServiceDiscovery::ServiceDiscovery;

namespace {

constexpr auto goodVersion = "1.0.0";

/// What another unit could not use, whatever the library makes of it.
std::vector<Fault> ownFaults(const ServiceEntry& service)
{
    std::vector<Fault> faults;
    if (service.name.empty())
        faults.push_back({"name", {}, "the name is missing"});
    if (service.port < 1 || service.port > highestPort)
        faults.push_back({"port", {}, "the port is missing or not within 1 to 65535"});
    if (service.protocol != "tcp" && service.protocol != "udp")
        faults.push_back(
            {"protocol", {}, "the protocol \"" + printable(service.protocol) + "\" is neither tcp nor udp"});
    try {
        if (!service.address.empty())
            parseUnicastAddress(service.address, "the address");
    }
    catch (const UsageError& error) {
        faults.push_back({"address", {}, error.what()});
    }
    return faults;
}

std::string refusal(ServiceDiscovery& discovery, const ServiceEntry& service)
{
    const Poco::Net::IPAddress anyAddress("2001:db8::1");
    return announce(discovery, service.describe(anyAddress), ErrorCatcher::Others::Dropped);
}

/// Asks a library of its own, which knows of no other service.
std::string refusalOf(const ServiceEntry& service)
{
    ServiceDiscovery discovery;
    return refusal(discovery, service);
}

/// Tries each part of a refused service by itself, because the library tells of the first fault only. Takes
/// the parts that it found wrong out of the service.
std::vector<Fault> faultyParts(ServiceEntry& service)
{
    std::vector<Fault> faults;
    const auto isRefused = [&](const ServiceEntry& part, const char* key,
                               std::optional<std::size_t> element = {}) {
        const std::string reason = refusalOf(part);
        if (!reason.empty())
            faults.push_back({key, element, reason});
        return !reason.empty();
    };

    ServiceEntry part;
    part.port = 1;
    part.name = service.name;
    part.versions = {goodVersion};
    if (part.name.empty() || isRefused(part, "name"))
        part.name = service.name = "?";

    std::vector<std::string> good;
    for (std::size_t i = 0; i < service.versions.size(); ++i) {
        part.versions = {service.versions[i]};
        if (!isRefused(part, "versions", i))
            good.push_back(service.versions[i]);
    }
    part.versions.clear();
    if (service.versions.empty())
        isRefused(part, "versions");
    service.versions = good.empty() ? std::vector<std::string>{goodVersion} : good;

    good.clear();
    part.versions = {goodVersion};
    for (std::size_t i = 0; i < service.categories.size(); ++i) {
        part.categories = {service.categories[i]};
        if (!isRefused(part, "categories", i))
            good.push_back(service.categories[i]);
    }
    service.categories = good;
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
    // Without a name and an endpoint it is no instance, and could be none that was there before.
    const bool isInstance = faults.empty();
    std::string reason = isInstance ? refusal(*m_accepted, service) : std::string();
    if (isInstance && reason.empty())
        return faults;

    ServiceEntry rest = service;
    const std::vector<Fault> parts = faultyParts(rest);
    faults.insert(faults.end(), parts.begin(), parts.end());
    // What is wrong with the whole shows once its parts are right.
    if (isInstance && rest.name == service.name) {
        if (!parts.empty())
            reason = refusal(*m_accepted, rest);
        if (!reason.empty())
            faults.push_back({"", {}, reason});
    }
    return faults;
}

std::string announce(ServiceDiscovery& discovery, const NuboServiceDescription& description,
                     ErrorCatcher::Others others)
{
    const ErrorCatcher errors(others);
    if (discovery.addService(description))
        return {};
    return "\"" + printable(description.getName()) +
           "\" cannot be announced: " + printable(errors.firstError());
}

}  // namespace NuboSd
