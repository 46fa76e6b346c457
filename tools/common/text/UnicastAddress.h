#pragma once

#include <Poco/Net/IPAddress.h>

#include <string>

namespace NuboSd {

/// Reads an IPv6 address that another unit can reach; `what` names it in the error. Throws UsageError.
Poco::Net::IPAddress parseUnicastAddress(const std::string& text, const std::string& what);

}  // namespace NuboSd
