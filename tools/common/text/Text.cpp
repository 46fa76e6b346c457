#include "text/Text.h"

#include <Poco/DateTime.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/LocalDateTime.h>

#include <algorithm>

#include <nlohmann/json.hpp>

namespace NuboSd {

using Nubo::ServiceDiscovery::OptionL4Protocol;

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

std::string padded(std::string text, std::size_t width)
{
    text.resize(std::max(width, text.size()), ' ');
    return text;
}

const char* protocolName(OptionL4Protocol::L4Protocol_t protocol)
{
    return protocol == OptionL4Protocol::UDP ? "udp" : "tcp";
}

std::string endpointText(const std::string& protocol, const std::string& address, unsigned port)
{
    return protocol + " [" + address + "]:" + std::to_string(port);
}

std::string jsonLine(const nlohmann::ordered_json& json)
{
    return json.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

std::string jsonTime(const Poco::Timestamp& time)
{
    return Poco::DateTimeFormatter::format(time, "%Y-%m-%dT%H:%M:%S.%FZ");
}

std::string localTime(const Poco::Timestamp& time, const std::string& format)
{
    return Poco::DateTimeFormatter::format(Poco::LocalDateTime(Poco::DateTime(time)), format);
}

}  // namespace NuboSd
