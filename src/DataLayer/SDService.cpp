#include "DataLayer/SDService.h"

#include "DataLayer/Log.h"
#include "DataLayer/SDClock.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"

#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <Poco/StringTokenizer.h>

#include <ostream>
#include <utility>

namespace Nubo::ServiceDiscovery {

using SOME_IP_SD_Types::OptionKeywords;

namespace {

constexpr Poco::Clock::ClockDiff microsecondsPerSecond = 1000000;

/// A refused version: the reason is in the log already.
[[noreturn]] void refuse()
{
    throw Poco::InvalidArgumentException();
}

/// Major and minor version of "[~]major.minor[.patch]". The patch level is never looked at.
struct SemanticVersion
{
    unsigned int major = 0;
    unsigned int minor = 0;

    /// False when a part is not what it has to be. Throws Poco::RangeException when a part is missing.
    bool parse(const std::string& text)
    {
        const Poco::StringTokenizer parts(text, ".");
        if (parts.count() > 3)
            return false;
        const std::string& first = parts[0];
        const std::string majorText = first.compare(0, 1, "~") == 0 ? first.substr(1) : first;
        return Poco::NumberParser::tryParseUnsigned(majorText, major) && major <= 255 &&
               Poco::NumberParser::tryParseUnsigned(parts[1], minor);
    }
};

}  // namespace

SDService::SDService(const NuboServiceDescription& description) : m_description(description)
{
    setTTL(defaultTTL);
    fromNuboServiceDescription(m_description);
}

SDService::SDService(const NuboServiceDescription& description, unsigned int ttl, unsigned short serviceID,
                     unsigned short instanceID, unsigned char majorVersion, unsigned int minorVersion,
                     const ConfigurationPairs& configuration, Type::Type_t type)
    : m_description(description)
    , m_serviceID(serviceID)
    , m_instanceID(instanceID)
    , m_majorVersion(majorVersion)
    , m_minorVersion(minorVersion)
    , m_configuration(configuration)
    , m_type(type)
{
    setTTL(ttl);
}

SDService::SDService(const std::string& name) : m_timeoutTimestamp(SDClock::now())
{
    m_description.setName(name);
    addFixedPairs(name);
}

SDService::SDService(const SOME_IP_SD_Entry_Service& entry, const SOME_IP_SD_Option_IPv6& ipv6,
                     const SOME_IP_SD_Option_Configuration& configuration)
{
    if (!fromSOMEIP(entry, ipv6, configuration))
        refuse();
    complete(configuration);
}

SDService::Ptr SDService::instanceOf(const SOME_IP_SD_Entry_Service& entry,
                                     const SOME_IP_SD_Option_IPv6& ipv6,
                                     const SOME_IP_SD_Option_Configuration& configuration)
{
    Ptr service = new SDService;
    if (!service->fromSOMEIP(entry, ipv6, configuration))
        return {};
    return service;
}

void SDService::setState(const State::State_t& state)
{
    if (state == m_state)
        return;
    m_state = state;
    m_repetitionRun = 0;
}

void SDService::setTTL(unsigned int ttl)
{
    m_TTL = ttl;
    m_packet.clear();
    m_timeoutTimestamp = SDClock::now() + ttl * microsecondsPerSecond;
}

bool SDService::isTTLElapsed() const
{
    return isTTLElapsed(SDClock::now());
}

unsigned int SDService::getSecondsLeft() const
{
    const Poco::Clock::ClockDiff left = m_timeoutTimestamp - SDClock::now();
    return left <= 0 ? 0
                     : static_cast<unsigned int>((left + microsecondsPerSecond - 1) / microsecondsPerSecond);
}

void SDService::fromNuboServiceDescription(const NuboServiceDescription& description)
{
    const std::string& name = description.getName();
    if (description.getVersions().empty()) {
        SD_LOG(Error) << "ServiceDiscovery failed to create SD Service \"" << name
                      << "\" due to invalid Version(s)";
        refuse();
    }
    for (const std::string& version : description.getVersions())
        addVersion(name, version);

    addFixedPairs(name);

    for (const std::string& category : description.getCategories()) {
        if (!addPair(OptionKeywords::NuBo_Category, category)) {
            SD_LOG(Error) << "ServiceDiscovery failed to create SD Service \"" << name
                          << "\" with given Category, container insertion failed for \"" << category << "\"!";
            refuse();
        }
    }
}

void SDService::addVersion(const std::string& name, const std::string& version)
{
    SemanticVersion parsed;
    bool isSemantic = false;
    try {
        isSemantic = parsed.parse(version);
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << "ServiceDiscovery failed to create SD Service \"" << name
                      << "\" with given Version(s): (" << version << ") " << exception.displayText();
        refuse();
    }
    if (!isSemantic) {
        SD_LOG(Error) << "ServiceDiscovery failed to create SD Service \"" << name
                      << "\" with given Version(s), not in semVer - format([~]major.minor.patch) (" << version
                      << ")";
        refuse();
    }
    if (!addPair(OptionKeywords::NuBo_Version, version)) {
        SD_LOG(Error) << "ServiceDiscovery failed to create SD Service \"" << name
                      << "\" with given Version, container insertion failed for \"" << version << "\"!";
        refuse();
    }

    const auto major = static_cast<std::uint8_t>(parsed.major);
    if (std::make_pair(major, parsed.minor) > std::make_pair(m_majorVersion, m_minorVersion)) {
        m_majorVersion = major;
        m_minorVersion = parsed.minor;
    }
}

void SDService::addFixedPairs(const std::string& name)
{
    addPair(OptionKeywords::NuBo_RecordVersionKey, OptionKeywords::NuBo_RecordVersionValue);
    addPair(OptionKeywords::NuBo_ApplProtocolKey, OptionKeywords::NuBo_ApplProtocolValue);
    addPair(OptionKeywords::NuBo_Servicename, name);
}

bool SDService::addPair(const std::string& key, const std::string& value)
{
    return m_configuration.emplace(key, value) != m_configuration.end();
}

bool SDService::fromSOMEIP(const SOME_IP_SD_Entry_Service& entry, const SOME_IP_SD_Option_IPv6& ipv6,
                           const SOME_IP_SD_Option_Configuration& configuration)
{
    if (!entry.isValid() || !ipv6.isValid() || !configuration.isValid()) {
        SD_LOG(Error) << "Failed to create service due to invalid "
                      << (entry.isValid() ? "" : "Service Entry") << (ipv6.isValid() ? "" : " IPv6 Option")
                      << (configuration.isValid() ? "" : " Configuration Option");
        return false;
    }

    m_serviceID = entry.getServiceID();
    setTTL(entry.getTTL());
    m_majorVersion = entry.getMajorVersion();
    m_minorVersion = entry.getMinorVersion();

    m_description.setIpAddress(ipv6.getIP());
    m_description.setPort(ipv6.getPort());
    m_description.setL4Proto(ipv6.getL4Protocol());

    const ConfigurationPairs& pairs = configuration.getConfigurationPairs();
    const auto name = pairs.lower_bound(OptionKeywords::NuBo_Servicename);
    if (name == pairs.end() || name->first != OptionKeywords::NuBo_Servicename) {
        SD_LOG(Error) << "Failed to create service due to missing NuBo_Servicename!";
        return false;
    }
    m_description.setName(name->second);

    if (pairs.find(OptionKeywords::NuBo_Version) == pairs.end()) {
        SD_LOG(Error) << "Failed to create service due to missing NuBo_Version!";
        return false;
    }
    return true;
}

void SDService::complete(const SOME_IP_SD_Option_Configuration& configuration)
{
    TextList versions = configuration.shareAllValues(OptionKeywords::NuBo_Version);
    TextList categories = configuration.shareAllValues(OptionKeywords::NuBo_Category);
    std::string uri = m_description.generateUri();

    // Only now, when nothing can fail any more.
    m_description.shareVersions(std::move(versions));
    m_description.shareCategories(std::move(categories));
    m_description.setUri(std::move(uri));
}

std::ostream& operator<<(std::ostream& stream, SDService::Type::Type_t type)
{
    switch (type) {
        case SDService::Type::NONE:
            return stream << "NONE";
        case SDService::Type::WANTED:
            return stream << "WANTED";
        case SDService::Type::ANNOUNCED:
            return stream << "ANNOUNCED";
        case SDService::Type::DISCOVERED:
            return stream << "DISCOVERED";
        case SDService::Type::ANY:
            return stream << "ANY";
    }
    // Kept for compatibility: the number follows in the stream's base, decimal on a fresh stream.
    return stream << "UNKNOWN 0x" << static_cast<std::uint32_t>(type);
}

std::ostream& operator<<(std::ostream& stream, SDService::State::State_t state)
{
    switch (state) {
        case SDService::State::ONCE:
            return stream << "ONCE";
        case SDService::State::INITIAL_WAIT_PHASE:
            return stream << "INITIAL_WAIT_PHASE";
        case SDService::State::REPETITION_PHASE:
            return stream << "REPETITION_PHASE";
        case SDService::State::MAIN_PHASE:
            return stream << "MAIN_PHASE";
        case SDService::State::SHUTDOWN_PHASE:
            return stream << "SHUTDOWN_PHASE";
        case SDService::State::REMOVED:
            return stream << "REMOVED";
    }
    return stream << "UNKNOWN 0x" << static_cast<std::uint32_t>(state);  // as above
}

}  // namespace Nubo::ServiceDiscovery
