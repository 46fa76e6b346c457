#include "DataLayer/SemanticVersion.h"

#include <Poco/NumberParser.h>
#include <Poco/StringTokenizer.h>

namespace Nubo::ServiceDiscovery {

bool SemanticVersion::parse(const std::string& text)
{
    constexpr unsigned int highestMajor = 255;
    const Poco::StringTokenizer parts(text, ".");
    if (parts.count() > 3)
        return false;
    const std::string& first = parts[0];
    const std::string majorText = first.compare(0, 1, "~") == 0 ? first.substr(1) : first;
    return Poco::NumberParser::tryParseUnsigned(majorText, major) && major <= highestMajor &&
           Poco::NumberParser::tryParseUnsigned(parts[1], minor);
}

}  // namespace Nubo::ServiceDiscovery
