#pragma once

#include "services/Fault.h"

#include <string>
#include <vector>

#include <ServiceDiscovery.h>

/// Why the library refuses to announce a service. It says so in its log only, and names the first fault only:
/// the log is caught, and parts are tried one by one.
namespace NuboSd {

struct ServiceEntry;

/// Announces the service; returns why the library refuses it, nothing if it does not.
std::string announce(Nubo::ServiceDiscovery::ServiceDiscovery& discovery,
                     const Nubo::ServiceDiscovery::NuboServiceDescription& description);

/// The same for a check: the unit has any address, and nothing of the log is written.
std::string refusal(Nubo::ServiceDiscovery::ServiceDiscovery& discovery, const ServiceEntry& service);

/// Every part that the library refuses. Replaces those parts of the service by good ones, so that it can be
/// checked as a whole; a name that cannot be used becomes "?".
std::vector<Fault> takeRefusedParts(ServiceEntry& service);

}  // namespace NuboSd
