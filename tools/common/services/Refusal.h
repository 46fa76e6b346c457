#pragma once

#include "services/Fault.h"

#include <string>
#include <vector>

#include <ServiceDiscovery.h>

/// Why the library refuses to announce a service. For reasons that depend on the engine's state, such as a
/// duplicate, only the log has them, so it is caught.
namespace NuboSd {

struct ServiceEntry;

/// Announces the service. Returns the reason if the library refuses it, else an empty text.
std::string announce(Nubo::ServiceDiscovery::ServiceDiscovery& discovery,
                     const Nubo::ServiceDiscovery::NuboServiceDescription& description);

/// The same for a check: the address of the unit does not matter, and no line of the log is written.
std::string refusal(Nubo::ServiceDiscovery::ServiceDiscovery& discovery, const ServiceEntry& service);

/// Returns a fault for every part that the library refuses, and removes those parts from the service, so that
/// the rest can be checked as a whole. A refused name becomes "?", and without a good version there is a
/// made-up one.
std::vector<Fault> takeRefusedParts(ServiceEntry& service);

}  // namespace NuboSd
