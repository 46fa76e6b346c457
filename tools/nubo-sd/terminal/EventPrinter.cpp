#include "terminal/EventPrinter.h"

#include "text/Text.h"

#include <ostream>

#include <nlohmann/json.hpp>

namespace NuboSd {

using Nubo::ServiceDiscovery::NuboServiceDescription;

namespace {

const char* kindName(ServiceEvent::Kind kind)
{
    switch (kind) {
        case ServiceEvent::Kind::Announced:
            return "announced";
        case ServiceEvent::Kind::Discovered:
            return "discovered";
        case ServiceEvent::Kind::Gone:
            return "gone";
    }
    return "";
}

std::string toJson(const ServiceEvent& event, bool withTime)
{
    const NuboServiceDescription& service = event.service;
    nlohmann::ordered_json json;
    if (withTime)
        json["time"] = jsonTime(event.time);
    json.update({{"event", kindName(event.kind)},
                 {"uuid", service.getLocalUuid()},
                 {"name", service.getName()},
                 {"versions", service.getVersions()},
                 {"categories", service.getCategories()},
                 {"address", service.getIpAddressString()},
                 {"port", service.getPort()},
                 {"protocol", protocolName(service.getL4Proto())},
                 {"uri", service.getUri()}});
    return jsonLine(json);
}

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
    m_stream << (m_json ? toJson(event, m_withTime) : toText(event, m_withTime)) << std::endl;
    return m_stream.good();
}

}  // namespace NuboSd
