#include "text/UnicastAddress.h"

#include "Errors.h"

namespace NuboSd {

Poco::Net::IPAddress parseUnicastAddress(const std::string& text, const std::string& what)
{
    Poco::Net::IPAddress address;
    const bool isAddress =
        Poco::Net::IPAddress::tryParse(text, address) && address.family() == Poco::Net::IPAddress::IPv6;
    if (!isAddress && text != "::")
        throw UsageError(what + " \"" + text + "\" is not an IPv6 address");
    if (!isAddress || address.isWildcard() || address.isLoopback() || address.isMulticast())
        throw UsageError(what + " \"" + text + "\" cannot be reached from another unit");
    return address;
}

}  // namespace NuboSd
