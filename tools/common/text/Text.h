#pragma once

#include <Poco/Timestamp.h>

#include <cstddef>
#include <string>
#include <vector>

#include <DataLayer/ServiceDiscovery_Types.h>
#include <nlohmann/json_fwd.hpp>

/// Formats that all output shares.
namespace NuboSd {

/// The text with everything but printable ASCII replaced by "\xNN".
std::string printable(const std::string& text);

/// The texts, printable, with commas between them.
std::string joined(const std::vector<std::string>& texts);

/// The text, padded with blanks to that width.
std::string padded(std::string text, std::size_t width);

/// "tcp" or "udp".
const char* protocolName(Nubo::ServiceDiscovery::OptionL4Protocol::L4Protocol_t protocol);

/// "tcp [fd00::1]:8080"
std::string endpointText(const std::string& protocol, const std::string& address, unsigned port);

/// A JSON value on one line, in ASCII.
std::string jsonLine(const nlohmann::ordered_json& json);

/// "2026-11-21T17:27:27.395709Z": the time in JSON, in UTC.
std::string jsonTime(const Poco::Timestamp& time);

/// The local time; `format` is one for Poco::DateTimeFormatter.
std::string localTime(const Poco::Timestamp& time, const std::string& format);

}  // namespace NuboSd
