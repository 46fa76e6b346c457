#pragma once

#include <ostream>

namespace Nubo::ServiceDiscovery::Testing {

/// An address that a platform may report and that no interface can use.
struct UnsuitableAddress
{
    const char* name;
    const char* ip;

    friend std::ostream& operator<<(std::ostream& stream, const UnsuitableAddress& row)
    {
        return stream << '"' << row.ip << '"';
    }
};

constexpr UnsuitableAddress unsuitableAddresses[] = {
    {"IPv4", "10.0.0.1"},         {"IPv4Loopback", "127.0.0.1"},    {"Wildcard", "::"},
    {"Loopback", "::1"},          {"Multicast", "ff14::4:0"},       {"Empty", ""},
    {"Word", "localhost"},        {"NoDigit", "fd00::g"},           {"WithPort", "[fd00::1]:80"},
    {"WithPrefix", "fd00::1/64"}, {"UnknownScope", "fe80::1%eth7"},
};

}  // namespace Nubo::ServiceDiscovery::Testing
