#include "DataLayer/Faults.h"

#include "DataLayer/NuboServiceDescription.h"
#include "DataLayer/SOME_IP/SOME_IP.h"
#include "DataLayer/SOME_IP_SD/ConfigurationText.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "DataLayer/SemanticVersion.h"

#include <Poco/Exception.h>

#include <sstream>
#include <utility>

namespace Nubo::ServiceDiscovery {

using SOME_IP_SD_Types::OptionKeywords;
using SOME_IP_SD_Types::OptionLength;
using Step = Fault::Step;

namespace {

/// The size of an offer's packet without the string of its configuration option: headers, entry, endpoint
/// option, and of the configuration option what surrounds its string.
constexpr std::size_t sizeWithoutString =
    SOME_IP::headerSize + SOME_IP_SD::emptySize + SOME_IP_SD_Entry::EntrySize() +
    SOME_IP_SD_Option::prefixSize + OptionLength::IP6 + SOME_IP_SD_Option::prefixSize + OptionLength::MIN + 1;

template <class... Parts>
std::string textOf(const Parts&... parts)
{
    std::ostringstream text;
    (text << ... << parts);
    return text.str();
}

/// Why the version cannot be taken into a record; empty if it can.
std::string faultOfVersion(const std::string& name, const std::string& version)
{
    const auto refused = [&](const auto&... reason) {
        return textOf("ServiceDiscovery failed to create SD Service \"", name, "\" with given Version(s)",
                      reason...);
    };
    try {
        SemanticVersion parsed;
        if (!parsed.parse(version))
            return refused(", not in semVer - format([~]major.minor.patch) (", version, ")");
    }
    catch (const Poco::Exception& exception) {
        return refused(": (", version, ") ", exception.displayText());
    }
    return {};
}

/// Collects the faults of one description.
class FaultFinder
{
public:
    explicit FaultFinder(const NuboServiceDescription& description) : m_description(description) {}

    std::vector<Fault> find()
    {
        findInName();
        findInVersions();
        findInCategories();
        findInEndpoint();
        findInWhole();
        return std::move(m_faults);
    }

private:
    void add(const char* field, std::optional<std::size_t> element, std::string text,
             Step step = Step::Packet)
    {
        m_faults.push_back({field, element, std::move(text), step});
    }

    void findInName()
    {
        if (m_description.getName().empty())
            add("name", {}, namelessFault);
        else
            findInPair("name", {}, OptionKeywords::NuBo_Servicename, m_description.getName());
        m_isNameGood = m_faults.empty();
    }

    void findInVersions()
    {
        const std::vector<std::string>& versions = m_description.getVersions();
        const std::string& name = m_description.getName();
        if (versions.empty())
            add("versions", {},
                textOf("ServiceDiscovery failed to create SD Service \"", name,
                       "\" due to invalid Version(s)"),
                Step::Record);
        for (std::size_t i = 0; i < versions.size(); ++i) {
            std::string text = faultOfVersion(name, versions[i]);
            if (!text.empty())
                add("versions", i, std::move(text), Step::Record);
            else
                findInPair("versions", i, OptionKeywords::NuBo_Version, versions[i]);
        }
    }

    void findInCategories()
    {
        const std::vector<std::string>& categories = m_description.getCategories();
        for (std::size_t i = 0; i < categories.size(); ++i)
            findInPair("categories", i, OptionKeywords::NuBo_Category, categories[i]);
    }

    void findInEndpoint()
    {
        std::string text = SOME_IP_SD_Option_IPv6::faultOf(m_description.getIpAddress());
        if (!text.empty())
            add("address", {}, std::move(text));
        text = SOME_IP_SD_Option_IPv6::faultOf(m_description.getL4Proto());
        if (!text.empty())
            add("protocol", {}, std::move(text));
    }

    void findInWhole()
    {
        if (!m_isNameGood)
            return;
        addSize(OptionKeywords::NuBo_RecordVersionKey, OptionKeywords::NuBo_RecordVersionValue);
        addSize(OptionKeywords::NuBo_ApplProtocolKey, OptionKeywords::NuBo_ApplProtocolValue);
        const std::size_t size = sizeWithoutString + m_stringSize;
        if (const StringFault fault = faultOfStringLength(m_stringSize))
            add("", {}, textOf(fault));
        else if (size > SOME_IP_SD_Types::largestPacket)
            add("", {},
                textOf(OversizeFault{m_description.getName(), size, SOME_IP_SD_Types::largestPacket}));
    }

    void findInPair(const char* field, std::optional<std::size_t> element, const std::string& key,
                    const std::string& value)
    {
        if (const PairFault fault = faultOfPair(key, value))
            add(field, element, fault.ofText ? textOf(fault.ofText) : textOf(fault));
        else
            addSize(key, value);
    }

    void addSize(const std::string& key, const std::string& value) { m_stringSize += sizeOfPair(key, value); }

    const NuboServiceDescription& m_description;
    std::vector<Fault> m_faults;
    bool m_isNameGood = false;
    std::size_t m_stringSize = 0;  // of the good pairs
};

}  // namespace

std::vector<Fault> faultsOf(const NuboServiceDescription& description)
{
    return FaultFinder(description).find();
}

std::ostream& operator<<(std::ostream& stream, const OversizeFault& fault)
{
    return stream << "SDCommunicationHub - Service \"" << fault.name
                  << "\" cannot be put on the wire: its packet of " << fault.size
                  << " Bytes exceeds the MTU of " << fault.mtu << " Bytes!";
}

}  // namespace Nubo::ServiceDiscovery
