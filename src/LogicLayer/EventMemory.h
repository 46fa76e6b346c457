#pragma once

#include <functional>
#include <string>

namespace Nubo::ServiceDiscovery {

/// Writes an entry into the unit's event memory: a service of that name, at that address and port, was
/// offered and is not allowed. False when the unit has no event memory.
using EventMemory = std::function<bool(const std::string& name, const std::string& ip, unsigned short port)>;

/// That of the platform's dispatcher, which is looked up with each entry.
EventMemory platformEventMemory();

}  // namespace Nubo::ServiceDiscovery
