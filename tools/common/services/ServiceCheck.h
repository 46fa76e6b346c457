#pragma once

#include "services/ServiceEntry.h"
#include "unit/LogOutput.h"

#include <KELOEMInterfaceLib/OEMDispatcher.h>

#include <Poco/SharedPtr.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <ServiceDiscovery.h>

namespace NuboSd {

/// What is wrong with a service, and with which part of it.
struct Fault
{
    std::string key;                     ///< of the services file; empty: the service as a whole
    std::optional<std::size_t> element;  ///< of the key's list
    std::string text;
};

/// Finds what cannot be announced. The library is asked for what only it knows: it has no interfaces here
/// and is never started, so that nothing is sent.
class ServiceCheck
{
public:
    /// Puts a dispatcher into the service locator, for as long as it exists.
    ServiceCheck();
    ~ServiceCheck();

    ServiceCheck(const ServiceCheck&) = delete;
    ServiceCheck& operator=(const ServiceCheck&) = delete;

    /// All that is wrong with the service, also that its instance was checked before.
    std::vector<Fault> check(const ServiceEntry& service);

private:
    std::optional<Nubo::ServiceDiscovery::ServiceDiscovery> m_accepted;
};

/// Announces the service; returns why the library refuses it, nothing if it does not.
std::string announce(Nubo::ServiceDiscovery::ServiceDiscovery& discovery,
                     const Nubo::ServiceDiscovery::NuboServiceDescription& description,
                     ErrorCatcher::Others others = ErrorCatcher::Others::Written);

}  // namespace NuboSd
