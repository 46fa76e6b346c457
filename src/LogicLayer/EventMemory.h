#pragma once

#include <functional>
#include <string>

namespace Nubo::ServiceDiscovery {

/// Writes an entry to the unit's event memory: a service with this name, address and port was offered but is
/// not allowed. Returns false when the unit has no event memory.
using EventMemory = std::function<bool(const std::string& name, const std::string& ip, unsigned short port)>;

/// Returns a writer to the event memory of the platform's dispatcher. It looks the dispatcher up for each
/// entry, so that one registered later is found.
EventMemory platformEventMemory();

}  // namespace Nubo::ServiceDiscovery
