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

/// Admission and removal of the interfaces that the platform reports. Sender and receiver share these rules
/// and differ only in how they use an interface and in their log lines.
namespace Nubo::ServiceDiscovery::Multicast {

/// An interface that is in use, and the unit's address on it; a link-local address has the interface as
/// scope.
struct AdmittedInterface
{
    Poco::Net::NetworkInterface interface;
    Poco::Net::IPAddress address;
};

enum class Admission
{
    Good,
    NotAppropriate,  ///< no IPv6 unicast address
    NotPresent,      ///< no such interface, or it does not have the address
    NoMulticast
};

/// Result of a report.
enum class Outcome
{
    InUse,    ///< the interface is used, due to this report or an earlier one
    Refused,  ///< the interface will never be used
    Pending   ///< the interface cannot be used yet; the caller tries again
};

/// Occasion on which an interface is added. Only a report logs all lines.
enum class Attempt
{
    Report,  ///< the platform has just reported it
    Again    ///< at a start, or after a temporary failure
};

/// Parses the address without its scope: the report names the interface anyway, and the scope may name one
/// that no longer exists. Returns none when the text is not an address.
std::optional<Poco::Net::IPAddress> parseAddress(const std::string& ip);

/// Whether the address is link-local unicast, fe80::/10 (RFC 4291 section 2.4).
bool isLinkLocal(const Poco::Net::IPAddress& address);

/// Looks up and checks the reported interface, and sets `admitted` on Admission::Good. The overload without a
/// listing takes one and throws what InterfaceListing::take() throws.
Admission admitInterface(const std::string& name, const std::string& ip, const InterfaceListing& listing,
                         AdmittedInterface& admitted);
Admission admitInterface(const std::string& name, const std::string& ip, AdmittedInterface& admitted);

/// Takes a listing. Returns an empty one when the system cannot list its interfaces.
InterfaceListing::Ptr listingIfAny() noexcept;

/// Whether an interface's address list contains the address, with or without the interface as its scope.
bool containsIP(const Poco::Net::NetworkInterface::AddressList& addresses, const Poco::Net::IPAddress& ip,
                const std::string& interfaceName);

/// Whether the addresses are equal, regardless of their scopes.
bool isSameAddress(const Poco::Net::IPAddress& address, const Poco::Net::IPAddress& other);

/// Whether a report with that name and address refers to the interface, given its present addresses.
bool isReportedInterface(const Poco::Net::NetworkInterface& interface,
                         const Poco::Net::NetworkInterface::AddressList& addresses, const std::string& name,
                         const Poco::Net::IPAddress& ip);

/// Whether the interface still exists under one of the names. Another interface may have taken its name or
/// its index.
bool isStillOneOf(const std::set<std::string>& names, const Poco::Net::NetworkInterface& interface,
                  const InterfaceListing& listing);

/// Whether the interface still has that address, with which it is in use.
bool isStillThere(const Poco::Net::IPAddress& address, const AdmittedInterface& admitted,
                  const InterfaceListing& listing);

/// Returns whether a socket can be bound to the address now: whether some interface has it, at least.
bool canBeBound(const Poco::Net::IPAddress& address);

/// Finds the interface to which a removal report refers, in `table`, an ordered map with network interfaces
/// as keys. `addressOf` returns the address with which an entry was admitted. `noAddresses` is called for
/// every visited interface that has no address at present. Returns the entry or the end.
///
/// If no interface has the address now, looks for one of that name that was admitted with it: the address is
/// often removed before its removal is reported.
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

/// Streams an interface in the format of log lines: "name" with IP "ip".
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
