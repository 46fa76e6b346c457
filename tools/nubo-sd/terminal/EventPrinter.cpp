#include "terminal/EventPrinter.h"

#include "services/ServiceJson.h"
#include "text/Text.h"
#include "unit/ServiceEvent.h"

#include <ostream>

#include <nlohmann/json.hpp>

namespace NuboSd {

using Nubo::ServiceDiscovery::NuboServiceDescription;

namespace {

std::string toText(const ServiceEvent& event, bool withTime)
{
    constexpr std::size_t kindWidth = 12;
    const NuboServiceDescription& service = event.service;
    std::string text = withTime ? localTime(event.time, "%Y-%m-%dT%H:%M:%S.%i%z  ") : std::string();
    text += padded(kindName(event.kind), kindWidth);
    text += printable(service.getName()) + "  " + joined(service.getVersions());
    if (!service.getCategories().empty())
        text += "  (" + joined(service.getCategories()) + ")";
    text += "  " +
            endpointText(protocolName(service.getL4Proto()), service.getIpAddressString(), service.getPort());
    if (!service.getUri().empty())
        text += "  " + printable(service.getUri());
    return text + "  uuid " + printable(service.getLocalUuid());
}

}  // namespace

EventPrinter::EventPrinter(std::ostream& stream, bool json, bool withTime)
    : m_stream(stream)
    , m_json(json)
    , m_withTime(withTime)
{}

bool EventPrinter::print(const ServiceEvent& event)
{
    m_stream << (m_json ? jsonLine(eventJson(event, m_withTime)) : toText(event, m_withTime)) << std::endl;
    return m_stream.good();
}

}  // namespace NuboSd
