#pragma once

#include <Poco/Timestamp.h>

#include <DataLayer/SDService.h>

namespace NuboSd {

/// A change of a service, with a copy of its description at that time.
struct ServiceEvent
{
    enum class Kind
    {
        Announced,
        Discovered,
        Gone
    };

    Kind kind;
    Nubo::ServiceDiscovery::NuboServiceDescription service;  ///< with this unit's identifier of it
    Poco::Timestamp time{};
};

/// "announced", "discovered" or "gone".
const char* kindName(ServiceEvent::Kind kind);

}  // namespace NuboSd
