#pragma once

#include <Poco/Timestamp.h>

#include <iosfwd>
#include <string>

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

/// Writes events, one a line, as text or as JSON.
class EventPrinter
{
public:
    EventPrinter(std::ostream& stream, bool json, bool withTime);

    /// False when the line could not be written: nobody reads any more.
    bool print(const ServiceEvent& event);

private:
    std::ostream& m_stream;
    const bool m_json;
    const bool m_withTime;
};

}  // namespace NuboSd
