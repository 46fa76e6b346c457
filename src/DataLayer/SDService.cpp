#include "DataLayer/SDService.h"

#include "DataLayer/Faults.h"
#include "DataLayer/Log.h"
#include "DataLayer/SDClock.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "DataLayer/SemanticVersion.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <ostream>
#include <utility>

namespace Nubo::ServiceDiscovery {

using SOME_IP_SD_Types::OptionKeywords;

namespace {

constexpr Poco::Clock::ClockDiff microsecondsPerSecond = 1000000;

/// The reason has been logged already.
[[noreturn]] void refuse()
{
    throw Poco::InvalidArgumentException();
}

/// Refuses a pair that the container did not accept.
void require(bool isInserted, const std::string& name, const char* what, const std::string& value)
{
    if (isInserted)
        return;
    SD_LOG(Error) << "ServiceDiscovery failed to create SD Service \"" << name << "\" with given " << what
                  << ", container insertion failed for \"" << value << "\"!";
    refuse();
}

bool addPair(ConfigurationPairs& pairs, const std::string& key, const std::string& value)
{
    return pairs.emplace(key, value) != pairs.end();
}

void addFixedPairs(ConfigurationPairs& pairs, const std::string& name)
{
    addPair(pairs, OptionKeywords::NuBo_RecordVersionKey, OptionKeywords::NuBo_RecordVersionValue);
    addPair(pairs, OptionKeywords::NuBo_ApplProtocolKey, OptionKeywords::NuBo_ApplProtocolValue);
    addPair(pairs, OptionKeywords::NuBo_Servicename, name);
}

}  // namespace

SDService::SDService(const NuboServiceDescription& description)
{
    setNuboDescription(description);
    setTTL(defaultTTL);
    fromNuboServiceDescription(description);
}

SDService::SDService(const NuboServiceDescription& description, unsigned int ttl, unsigned short serviceID,
                     unsigned short instanceID, unsigned char majorVersion, unsigned int minorVersion,
                     const ConfigurationPairs& configuration, Type::Type_t type)
    : m_sent(SentFields{description, ttl, serviceID, instanceID, majorVersion, minorVersion, configuration,
                        type})
{
    setTTL(ttl);
}

SDService::SDService(const std::string& name) : m_timeoutTimestamp(SDClock::now())
{
    m_sent.change([&](SentFields& fields) {
        fields.m_description.setName(name);
        addFixedPairs(fields.m_configuration, name);
    });
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
    m_sent.set(&SentFields::m_TTL, ttl);
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
    for (const Fault& fault : faultsOf(description)) {
        if (fault.step == Fault::Step::Record) {
            SD_LOG(Error) << fault.text;
            refuse();
        }
    }

    const std::string& name = description.getName();
    m_sent.change([&](SentFields& fields) {
        ConfigurationPairs& pairs = fields.m_configuration;
        SemanticVersion highest;
        for (const std::string& version : description.getVersions()) {
            require(addPair(pairs, OptionKeywords::NuBo_Version, version), name, "Version", version);
            SemanticVersion parsed;
            parsed.parse(version);
            highest = std::max(highest, parsed);
        }
        fields.m_majorVersion = static_cast<std::uint8_t>(highest.major);
        fields.m_minorVersion = highest.minor;

        addFixedPairs(pairs, name);
        for (const std::string& category : description.getCategories())
            require(addPair(pairs, OptionKeywords::NuBo_Category, category), name, "Category", category);
    });
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

    setServiceId(entry.getServiceID());
    setTTL(entry.getTTL());
    setMajorVersion(entry.getMajorVersion());
    setMinorVersion(entry.getMinorVersion());

    const ConfigurationPairs& pairs = configuration.getConfigurationPairs();
    const auto name = pairs.lower_bound(OptionKeywords::NuBo_Servicename);
    if (name == pairs.end() || name->first != OptionKeywords::NuBo_Servicename) {
        SD_LOG(Error) << "Failed to create service due to missing NuBo_Servicename!";
        return false;
    }

    if (pairs.find(OptionKeywords::NuBo_Version) == pairs.end()) {
        SD_LOG(Error) << "Failed to create service due to missing NuBo_Version!";
        return false;
    }

    m_sent.change([&](SentFields& fields) {
        fields.m_description.setIpAddress(ipv6.getIP());
        fields.m_description.setPort(ipv6.getPort());
        fields.m_description.setL4Proto(ipv6.getL4Protocol());
        fields.m_description.setName(name->second);
    });
    return true;
}

void SDService::complete(const SOME_IP_SD_Option_Configuration& configuration)
{
    TextList versions = configuration.shareAllValues(OptionKeywords::NuBo_Version);
    TextList categories = configuration.shareAllValues(OptionKeywords::NuBo_Category);
    std::string uri = getNuboDescription().generateUri();
    m_sent.setTexts(std::move(versions), std::move(categories), std::move(uri));  // cannot fail any more
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
    // Kept for compatibility: the number is written in the stream's base, decimal on a fresh stream.
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
