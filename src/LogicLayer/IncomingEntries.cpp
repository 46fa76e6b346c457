#include "LogicLayer/IncomingEntries.h"

#include "DataLayer/Log.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv4.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_LoadBalancing.h"

#include <Poco/Exception.h>

#include <cstring>
#include <iterator>

namespace Nubo::ServiceDiscovery {

using SOME_IP_SD_Types::OptionKeywords;

namespace {

/// Stores the option in `slot` if it has the slot's class. A later option replaces an earlier one.
template <class Option>
bool take(const SOME_IP_SD_Option::Ptr& option, Poco::SharedPtr<Option>& slot)
{
    Poco::SharedPtr<Option> candidate = option.cast<Option>();
    if (candidate.isNull())
        return false;
    slot.swap(candidate);
    return true;
}

template <class... Options>
std::size_t countSet(const Poco::SharedPtr<Options>&... slots)
{
    return (std::size_t{0} + ... + (slots.isNull() ? 0u : 1u));
}

/// View of the values that a configuration has for one key. It copies nothing, because a neighbour may send
/// thousands of values and refer to them from thousands of entries. The configuration and the key must
/// outlive it.
class ValuesOf
{
public:
    ValuesOf(const SOME_IP_SD_Option_Configuration& configuration, const std::string& key)
        : m_pairs(configuration.getConfigurationPairs())
        , m_key(key)
        , m_first(m_pairs.lower_bound(key))
    {}

    bool empty() const { return !isOfKey(m_first); }
    bool isOne() const { return !empty() && !isOfKey(std::next(m_first)); }
    const std::string& first() const { return m_first->second; }
    std::size_t count() const { return m_pairs.count(m_key); }  ///< O(n)

private:
    bool isOfKey(ConfigurationPairs::const_iterator pair) const
    {
        return pair != m_pairs.end() && pair->first == m_key;
    }

    const ConfigurationPairs& m_pairs;
    const std::string& m_key;
    const ConfigurationPairs::const_iterator m_first;
};

bool isOnly(const ValuesOf& values, const std::string& expected, const char* what)
{
    if (!values.isOne()) {
        SD_LOG(Debug) << "Skip processing OFFER_SERVICE due to invalid number " << what
                      << "s: " << values.count();
        return false;
    }
    if (values.first() != expected) {
        SD_LOG(Debug) << "Skip processing OFFER_SERVICE due to invalid " << what << ": \"" << values.first()
                      << "\"!";
        return false;
    }
    return true;
}

/// Whether a connection to the address leads back to the connecting unit. This holds for the wildcard and the
/// loopback address, and for two networks of IPv4-mapped addresses (RFC 4291 section 2.5.5.2): 0.0.0.0/8,
/// "this network", and 127.0.0.0/8.
bool leadsBack(const Poco::Net::IPAddress& ip)
{
    if (!ip.isIPv4Mapped())
        return ip.isWildcard() || ip.isLoopback();
    constexpr std::size_t firstOfIPv4 = 12;
    constexpr std::uint8_t thisNet = 0;
    constexpr std::uint8_t loopbackNet = 127;
    const std::uint8_t net = static_cast<const std::uint8_t*>(ip.addr())[firstOfIPv4];
    return net == thisNet || net == loopbackNet;
}

/// An all-zero sender means "unknown", yet a datagram can have the source address "::". Such a sender gets a
/// multicast address instead, which is never a source address (RFC 4291 section 2.7).
SDService::SenderAddress senderOf(const Poco::Net::SocketAddress& origin)
{
    SDService::SenderAddress sender{};
    if (origin.family() == Poco::Net::SocketAddress::IPv6)
        std::memcpy(sender.data(), origin.host().addr(), sender.size());
    if (sender == SDService::SenderAddress{})
        sender.front() = 0xff;
    return sender;
}

}  // namespace

SDService::Ptr IncomingEntries::readFind(const SOME_IP_SD_Header::EntryData& data)
{
    if (data.entry.cast<SOME_IP_SD_Entry_Service>().isNull()) {
        SD_LOG(Error) << "Failed to handle FIND_SERVICE due to Entry being of wrong class!";
        return nullptr;
    }
    SOME_IP_SD_Option_Configuration::Ptr configuration;
    SOME_IP_SD_Option_LoadBalancing::Ptr loadBalancing;
    if (!extractFindServiceOptions(data.options, configuration, loadBalancing))
        return nullptr;

    const ValuesOf names(*configuration, OptionKeywords::NuBo_Servicename);
    if (names.empty()) {
        SD_LOG(Error) << "Failed to handle FIND_SERVICE due to missing name record in Configuration Option!";
        return nullptr;
    }
    if (!names.isOne())
        SD_LOG(Warning)
            << "Found multiple names while handling FIND_SERVICE Configuration Option, using first: \""
            << names.first() << "\" !";
    return new SDService(names.first());
}

IncomingOffer IncomingEntries::readOffer(const SOME_IP_SD_Header::EntryData& data,
                                         const Poco::Net::SocketAddress& origin)
{
    const SOME_IP_SD_Entry_Service::Ptr entry = data.entry.cast<SOME_IP_SD_Entry_Service>();
    if (entry.isNull()) {
        SD_LOG(Error) << "Failed to handle OFFER_SERVICE due to Entry being of wrong class!";
        return {};
    }
    SOME_IP_SD_Option_IPv4::Ptr ipv4;
    SOME_IP_SD_Option_IPv6::Ptr ipv6;
    SOME_IP_SD_Option_Configuration::Ptr configuration;
    SOME_IP_SD_Option_LoadBalancing::Ptr loadBalancing;
    if (!extractOfferServiceOptions(data.options, ipv4, ipv6, configuration, loadBalancing))
        return {};

    // Offers of other protocols on the same group are normal traffic.
    if (!isOnly(ValuesOf(*configuration, OptionKeywords::NuBo_ApplProtocolKey),
                OptionKeywords::NuBo_ApplProtocolValue, "Applicationprotocol") ||
        !isOnly(ValuesOf(*configuration, OptionKeywords::NuBo_RecordVersionKey),
                OptionKeywords::NuBo_RecordVersionValue, "TXT-record version"))
        return {};

    SDService::Ptr service = SDService::instanceOf(*entry, *ipv6, *configuration);
    if (service.isNull()) {
        SD_LOG(Error) << failedToAdd << Poco::InvalidArgumentException().displayText();
        return {};
    }
    const Poco::Net::IPAddress& ip = service->getNuboDescription().getIpAddress();
    if (leadsBack(ip)) {
        SD_LOG(Error) << "Failed to handle OFFER_SERVICE due to invalid IP address \"" << ip.toString()
                      << "\".";
        return {};
    }
    service->setSender(senderOf(origin));
    return {service, configuration};
}

bool IncomingEntries::extractOfferServiceOptions(
    const std::vector<SOME_IP_SD_Option::Ptr>& options, Poco::SharedPtr<SOME_IP_SD_Option_IPv4>& ipv4,
    Poco::SharedPtr<SOME_IP_SD_Option_IPv6>& ipv6, SOME_IP_SD_Option_Configuration::Ptr& config,
    Poco::SharedPtr<SOME_IP_SD_Option_LoadBalancing>& loadBalancing)
{
    const std::size_t n = options.size();
    if (n < 2 || n > 4) {
        // Kept for compatibility: the text gives 1 as the minimum.
        SD_LOG(Error) << "Failed to handle OFFER_SERVICE due to invalid amount of Options: " << n
                      << "/[1-4]!";
        return false;
    }
    for (const SOME_IP_SD_Option::Ptr& option : options)
        take(option, ipv4) || take(option, ipv6) || take(option, config) || take(option, loadBalancing);

    const std::size_t found = countSet(ipv4, ipv6, config, loadBalancing);
    if (!ipv6.isNull() && !config.isNull() && found == n)
        return true;
    SD_LOG(Error) << "Failed to handle OFFER_SERVICE due to invalid Option types! (Found " << found << "/"
                  << n << " Options)";
    SD_LOG(Trace) << "Found Options:" << (ipv4.isNull() ? "" : " IPv4 Option")
                  << (ipv6.isNull() ? "" : " IPv6 Option") << (config.isNull() ? "" : " Configuration Option")
                  << (loadBalancing.isNull() ? "" : " LoadBalancing Option");
    return false;
}

bool IncomingEntries::extractFindServiceOptions(
    const std::vector<SOME_IP_SD_Option::Ptr>& options, SOME_IP_SD_Option_Configuration::Ptr& config,
    Poco::SharedPtr<SOME_IP_SD_Option_LoadBalancing>& loadBalancing)
{
    const std::size_t n = options.size();
    if (n < 1 || n > 2) {
        SD_LOG(Error) << "Failed to handle FIND_SERVICE due to invalid amount of Options: " << n << "/[1-2]!";
        return false;
    }
    for (const SOME_IP_SD_Option::Ptr& option : options)
        take(option, config) || take(option, loadBalancing);

    if (!config.isNull() && countSet(config, loadBalancing) == n)
        return true;
    SD_LOG(Error) << "Failed to handle FIND_SERVICE due to invalid Option types!";
    return false;
}

std::string IncomingEntries::toText(const SOME_IP_SD_Header::EntryData& data)
{
    std::string text = data.entry.isNull() ? "<no Entry>" : data.entry->toString(0);
    for (const auto& option : data.options)
        text += ", " + option->toString(0);
    return text;
}

}  // namespace Nubo::ServiceDiscovery
