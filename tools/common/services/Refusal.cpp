#include "services/Refusal.h"

#include "services/ServiceEntry.h"
#include "services/ServiceJson.h"
#include "text/Text.h"
#include "unit/LogOutput.h"

#include <cstddef>
#include <utility>

#include <DataLayer/Faults.h>

namespace NuboSd {

using Nubo::ServiceDiscovery::NuboServiceDescription;
using Nubo::ServiceDiscovery::ServiceDiscovery;

namespace {

constexpr auto goodVersion = "1.0.0";

/// The message about a service that cannot be announced.
std::string message(const std::string& name, const std::string& reason)
{
    return "\"" + printable(name) + "\" cannot be announced: " + printable(reason);
}

std::string announce(ServiceDiscovery& discovery, const NuboServiceDescription& description,
                     ErrorCatcher::Others others)
{
    const ErrorCatcher errors(others);
    if (discovery.addService(description))
        return {};
    return message(description.getName(), errors.firstError());
}

/// Returns the library's faults in one field of the service.
std::vector<Fault> faultsIn(const char* field, const ServiceEntry& service)
{
    NuboServiceDescription description;
    description.setName(service.name);
    description.setVersions(service.versions);
    description.setCategories(service.categories);
    std::vector<Fault> faults;
    for (const auto& fault : Nubo::ServiceDiscovery::faultsOf(description)) {
        if (fault.field == field)
            faults.push_back({field, fault.element, message(service.name, fault.text)});
    }
    return faults;
}

/// Removes the elements that have a fault. The faults are in the order of the list.
void removeFaulty(std::vector<std::string>& elements, const std::vector<Fault>& faults)
{
    std::vector<std::string> good;
    auto fault = faults.begin();
    for (std::size_t i = 0; i < elements.size(); ++i) {
        if (fault != faults.end() && fault->element == i)
            ++fault;
        else
            good.push_back(std::move(elements[i]));
    }
    elements = std::move(good);
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
    if (!service.name.empty())
        faults = faultsIn(ServiceKey::name, service);
    if (service.name.empty() || !faults.empty())
        service.name = "?";

    const auto takeElements = [&](const char* field, std::vector<std::string>& elements) {
        const std::vector<Fault> found = faultsIn(field, service);
        removeFaulty(elements, found);
        faults.insert(faults.end(), found.begin(), found.end());
    };
    takeElements(ServiceKey::versions, service.versions);
    takeElements(ServiceKey::categories, service.categories);
    if (service.versions.empty())
        service.versions = {goodVersion};
    return faults;
}

}  // namespace NuboSd
