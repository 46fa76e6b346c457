#include "services/Refusal.h"

#include "services/ServiceEntry.h"
#include "services/ServiceJson.h"
#include "text/Text.h"
#include "unit/LogOutput.h"

namespace NuboSd {

using Nubo::ServiceDiscovery::NuboServiceDescription;
using Nubo::ServiceDiscovery::ServiceDiscovery;

namespace {

constexpr auto goodVersion = "1.0.0";

std::string announce(ServiceDiscovery& discovery, const NuboServiceDescription& description,
                     ErrorCatcher::Others others)
{
    const ErrorCatcher errors(others);
    if (discovery.addService(description))
        return {};
    return "\"" + printable(description.getName()) +
           "\" cannot be announced: " + printable(errors.firstError());
}

/// Tries the service on a library that has no other one.
std::string refusalOf(const ServiceEntry& service)
{
    ServiceDiscovery discovery;
    return refusal(discovery, service);
}

/// Tries the elements of a list one by one, each as the only element of that list in `part`. Returns the good
/// ones.
std::vector<std::string> goodElements(const std::vector<std::string>& elements, const char* key,
                                      ServiceEntry& part, std::vector<std::string> ServiceEntry::*list,
                                      std::vector<Fault>& faults)
{
    std::vector<std::string> good;
    for (std::size_t i = 0; i < elements.size(); ++i) {
        part.*list = {elements[i]};
        const std::string reason = refusalOf(part);
        if (reason.empty())
            good.push_back(elements[i]);
        else
            faults.push_back({key, i, reason});
    }
    return good;
}

}  // namespace

std::string announce(ServiceDiscovery& discovery, const NuboServiceDescription& description)
{
    return announce(discovery, description, ErrorCatcher::Others::Written);
}

std::string refusal(ServiceDiscovery& discovery, const ServiceEntry& service)
{
    const Poco::Net::IPAddress anyAddress("2001:db8::1");
    return announce(discovery, service.describe(anyAddress), ErrorCatcher::Others::Dropped);
}

std::vector<Fault> takeRefusedParts(ServiceEntry& service)
{
    std::vector<Fault> faults;
    const auto isRefused = [&](const ServiceEntry& part, const char* key) {
        const std::string reason = refusalOf(part);
        if (!reason.empty())
            faults.push_back({key, {}, reason});
        return !reason.empty();
    };

    ServiceEntry part;
    part.port = 1;
    part.name = service.name;
    part.versions = {goodVersion};
    if (part.name.empty() || isRefused(part, ServiceKey::name))
        part.name = service.name = "?";

    std::vector<std::string> good =
        goodElements(service.versions, ServiceKey::versions, part, &ServiceEntry::versions, faults);
    part.versions.clear();
    if (service.versions.empty())
        isRefused(part, ServiceKey::versions);
    part.versions = {goodVersion};
    service.versions = good.empty() ? part.versions : good;

    service.categories =
        goodElements(service.categories, ServiceKey::categories, part, &ServiceEntry::categories, faults);
    return faults;
}

}  // namespace NuboSd
