#include "EventPrinter.h"

#include <ostream>

#include <nlohmann/json.hpp>

namespace NuboSd {

using Nubo::ServiceDiscovery::NuboServiceDescription;
using Nubo::ServiceDiscovery::OptionL4Protocol;

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

std::string joined(const std::vector<std::string>& texts)
{
    std::string result;
    for (const std::string& text : texts) {
        if (!result.empty())
            result += ',';
        result += printable(text);
    }
    return result;
}

std::string toJson(const ServiceEvent& event)
{
    const NuboServiceDescription& service = event.service;
    const nlohmann::ordered_json json{{"event", kindName(event.kind)},
                                      {"uuid", service.getLocalUuid()},
                                      {"name", service.getName()},
                                      {"versions", service.getVersions()},
                                      {"categories", service.getCategories()},
                                      {"address", service.getIpAddressString()},
                                      {"port", service.getPort()},
                                      {"protocol", protocolName(service.getL4Proto())},
                                      {"uri", service.getUri()}};
    return json.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

std::string toText(const ServiceEvent& event)
{
    constexpr std::size_t kindWidth = 12;
    const NuboServiceDescription& service = event.service;
    std::string text = kindName(event.kind);
    text.resize(kindWidth, ' ');
    text += printable(service.getName()) + "  " + joined(service.getVersions());
    if (!service.getCategories().empty())
        text += "  (" + joined(service.getCategories()) + ")";
    text += std::string("  ") + protocolName(service.getL4Proto()) + " [" + service.getIpAddressString() +
            "]:" + std::to_string(service.getPort());
    if (!service.getUri().empty())
        text += "  " + printable(service.getUri());
    return text + "  uuid " + printable(service.getLocalUuid());
}

}  // namespace

EventPrinter::EventPrinter(std::ostream& stream, bool json) : m_stream(stream), m_json(json) {}

bool EventPrinter::print(const ServiceEvent& event)
{
    m_stream << (m_json ? toJson(event) : toText(event)) << std::endl;
    return m_stream.good();
}

const char* protocolName(OptionL4Protocol::L4Protocol_t protocol)
{
    return protocol == OptionL4Protocol::UDP ? "udp" : "tcp";
}

std::string printable(const std::string& text)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string result;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x20 && byte < 0x7f) {
            result += character;
        }
        else {
            result += "\\x";
            result += digits[byte >> 4];
            result += digits[byte & 0x0f];
        }
    }
    return result;
}

}  // namespace NuboSd
