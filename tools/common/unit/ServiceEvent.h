#pragma once

#include <Poco/Timestamp.h>

#include <DataLayer/SDService.h>

namespace NuboSd {

/// Something that happened to a service, and the description as it was then.
struct ServiceEvent
{
    enum class Kind
    {
        Announced,
        Discovered,
        Gone
    };

    Kind kind;
    Nubo::ServiceDiscovery::NuboServiceDescription service;  ///< with the identifier this unit knows it by
    Poco::Timestamp time{};
};

/// "announced", "discovered" or "gone".
const char* kindName(ServiceEvent::Kind kind);

}  // namespace NuboSd
