#pragma once

#include "Multicast/InterfaceListing.h"

#include <Poco/Net/IPAddress.h>
#include <Poco/Net/NetworkInterface.h>

#include <array>
#include <cstdint>
#include <optional>
#include <ostream>
#include <set>
#include <string>

/// How an interface that the platform reports is taken in and let go: the same for sending and receiving,
/// which only differ in what they do with it and in their log lines.
namespace Nubo::ServiceDiscovery::Multicast {

/// An interface that is in use, and the unit's address on it, with the interface as scope if link-local.
struct AdmittedInterface
{
    Poco::Net::NetworkInterface interface;
    Poco::Net::IPAddress address;
};

enum class Admission
{
    Good,
    NotAppropriate,  ///< no IPv6 unicast address
    NotPresent,      ///< no such interface, or not its address
    NoMulticast
};

/// What has become of a report.
enum class Outcome
{
    InUse,    ///< the interface is used, by this report or by an earlier one
    Refused,  ///< it never will be
    Pending   ///< it cannot be used yet: to be tried again
};

/// On what occasion an interface is taken in. Only the first time do all lines go into the log.
enum class Attempt
{
    Report,  ///< the platform has reported it just now
    Again    ///< at a start, or after a failure that may pass
};

/// The address without its scope; none when the text is no address.
std::optional<Poco::Net::IPAddress> parseAddress(const std::string& ip);

/// Whether the address is valid on its link only: fe80::/10 (RFC 4291 section 2.4).
bool isLinkLocal(const Poco::Net::IPAddress& address);

/// Looks the reported interface up and checks it; on Admission::Good `admitted` is filled in. Without a
/// listing it takes one; throws what that throws.
Admission admitInterface(const std::string& name, const std::string& ip, const InterfaceListing& listing,
                         AdmittedInterface& admitted);
Admission admitInterface(const std::string& name, const std::string& ip, AdmittedInterface& admitted);

/// A listing as it is now; an empty one when the system gives none.
InterfaceListing::Ptr listingIfAny() noexcept;

/// Whether `address` is the address that the text names, whatever their scopes.
bool isSameAddress(const Poco::Net::IPAddress& address, const Poco::Net::IPAddress& other);

/// Whether a report of that name and address means the interface, by the addresses that it has now.
bool isReportedInterface(const Poco::Net::NetworkInterface& interface,
                         const Poco::Net::NetworkInterface::AddressList& addresses, const std::string& name,
                         const Poco::Net::IPAddress& ip);

/// Whether the interface still is there, under a name that is one of these. Another one may have got its name
/// or its index.
bool isStillOneOf(const std::set<std::string>& names, const Poco::Net::NetworkInterface& interface,
                  const InterfaceListing& listing);

/// Whether the interface has that address, which it was used with: not by the listing alone, which may be
/// older than the end of it.
bool isStillThere(const Poco::Net::IPAddress& address, const AdmittedInterface& admitted,
                  const InterfaceListing& listing);

/// Finds the interface that a report wants removed in `table`, an ordered map from network interface to
/// whatever is kept of it; `addressOf` gives the address that an entry was admitted with, `noAddresses` is
/// told of every interface on the way that has no address at present. Returns the entry or the end.
///
/// When none has the address now, the one of that name is meant that was admitted with it: an address is
/// often gone before it is reported so.
template <class Table, class AddressOf, class NoAddresses>
auto findForRemoval(Table& table, const std::string& name, const Poco::Net::IPAddress& ip,
                    AddressOf addressOf, NoAddresses noAddresses)
{
    const InterfaceListing::Ptr listing = listingIfAny();
    for (auto entry = table.begin(); entry != table.end(); ++entry) {
        const auto addresses = listing->addressesOf(entry->first);
        if (addresses.empty())
            noAddresses(entry->first);
        else if (isReportedInterface(entry->first, addresses, name, ip))
            return entry;
    }
    auto entry = table.begin();
    while (entry != table.end() &&
           !(entry->first.name() == name && isSameAddress(addressOf(entry->second), ip)))
        ++entry;
    return entry;
}

/// Streams an interface as log lines have it: "name" with IP "ip".
struct QuotedInterface
{
    const std::string& name;
    const std::string& ip;

    friend std::ostream& operator<<(std::ostream& stream, const QuotedInterface& quoted)
    {
        return stream << "\"" << quoted.name << "\" with IP \"" << quoted.ip << "\"";
    }
};

}  // namespace Nubo::ServiceDiscovery::Multicast
