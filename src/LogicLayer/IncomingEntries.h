#pragma once

#include "DataLayer/SDService.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Header.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"

#include <Poco/Net/SocketAddress.h>
#include <Poco/SharedPtr.h>

#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Option_IPv4;
class SOME_IP_SD_Option_IPv6;
class SOME_IP_SD_Option_LoadBalancing;

/// The instance that an entry offers. Both members are null when the entry was skipped.
struct IncomingOffer
{
    SDService::Ptr service;  ///< without versions and categories: see SDService::complete()
    SOME_IP_SD_Option_Configuration::Ptr configuration;  ///< the argument for SDService::complete()
};

/// Reads received entries with their options. Logs the reason for every entry that it skips.
class IncomingEntries
{
public:
    static constexpr auto failedToAdd = "ServiceDiscovery failed to add Service due to ";

    /// Returns the service that a FIND looks for, or null when the entry is skipped. Throws Poco::Exception
    /// for an unusable name.
    static SDService::Ptr readFind(const SOME_IP_SD_Header::EntryData& data);

    /// Returns the instance that an OFFER or a stop-offer concerns. `origin` is the sender of the datagram.
    static IncomingOffer readOffer(const SOME_IP_SD_Header::EntryData& data,
                                   const Poco::Net::SocketAddress& origin);

    /// Formats the entry and its options for log lines.
    static std::string toText(const SOME_IP_SD_Header::EntryData& data);

private:
    static bool extractOfferServiceOptions(const std::vector<SOME_IP_SD_Option::Ptr>& options,
                                           Poco::SharedPtr<SOME_IP_SD_Option_IPv4>& ipv4,
                                           Poco::SharedPtr<SOME_IP_SD_Option_IPv6>& ipv6,
                                           SOME_IP_SD_Option_Configuration::Ptr& config,
                                           Poco::SharedPtr<SOME_IP_SD_Option_LoadBalancing>& loadBalancing);
    static bool extractFindServiceOptions(const std::vector<SOME_IP_SD_Option::Ptr>& options,
                                          SOME_IP_SD_Option_Configuration::Ptr& config,
                                          Poco::SharedPtr<SOME_IP_SD_Option_LoadBalancing>& loadBalancing);
};

}  // namespace Nubo::ServiceDiscovery
