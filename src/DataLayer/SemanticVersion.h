#pragma once

#include <string>
#include <tuple>

namespace Nubo::ServiceDiscovery {

/// Major and minor version of "[~]major.minor[.patch]". Nothing reads the patch level.
struct SemanticVersion
{
    unsigned int major = 0;
    unsigned int minor = 0;

    /// False when a part is malformed. Throws Poco::RangeException when a part is missing.
    bool parse(const std::string& text);

    friend bool operator<(const SemanticVersion& one, const SemanticVersion& other)
    {
        return std::tie(one.major, one.minor) < std::tie(other.major, other.minor);
    }
};

}  // namespace Nubo::ServiceDiscovery
