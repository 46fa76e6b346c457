#pragma once

#include "DataLayer/ServiceDiscovery_Types.h"
#include "DataLayer/TextList.h"
#include "Export.h"

#include <Poco/Net/IPAddress.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// The web-interface view of a service: registries pass it in and receive it in every event. A plain value:
/// changing a copy leaves its source unchanged. The description checks nothing; a service is checked when it
/// is added. On std::bad_alloc the description stays unchanged.
class KEL_SD_EXPORT NuboServiceDescription
{
public:
    /// Empty texts and lists, address "::", port 0, protocol TCP.
    NuboServiceDescription();

    NuboServiceDescription(const NuboServiceDescription& other) = default;
    NuboServiceDescription& operator=(const NuboServiceDescription& other);
    // Poco's addresses can only be copied, so a move may throw; it has no effect then.
    NuboServiceDescription(NuboServiceDescription&& other);             // NOLINT(*-noexcept-move*)
    NuboServiceDescription& operator=(NuboServiceDescription&& other);  // NOLINT(*-noexcept-move*)

    const std::string& getName() const { return m_name; }
    void setName(const std::string& name) { m_name = name; }

    /// Semantic versions "[~]major.minor.patch"; major 0 to 255.
    const std::vector<std::string>& getVersions() const { return m_versions.texts(); }
    void addVersion(const std::string& version) { m_versions.add(version); }
    void setVersions(std::vector<std::string> versions) { m_versions = TextList(std::move(versions)); }
    void shareVersions(TextList versions) { m_versions = std::move(versions); }

    const std::vector<std::string>& getCategories() const { return m_categories.texts(); }
    void addCategory(const std::string& category) { m_categories.add(category); }
    void setCategories(std::vector<std::string> categories)
    {
        m_categories = TextList(std::move(categories));
    }
    void shareCategories(TextList categories) { m_categories = std::move(categories); }

    /// IPv6 address of the endpoint.
    const Poco::Net::IPAddress& getIpAddress() const;
    void setIpAddress(const Poco::Net::IPAddress& address);
    /// The address as text, without brackets.
    const std::string& getIpAddressString() const { return m_ip6AddressText; }

    /// Port of the endpoint. Services on ports 47000 to 49151 are visible on link-local interfaces only.
    unsigned short getPort() const { return m_ip6Port; }
    void setPort(unsigned short port) { m_ip6Port = port; }

    OptionL4Protocol::L4Protocol_t getL4Proto() const { return m_l4Proto; }
    void setL4Proto(OptionL4Protocol::L4Protocol_t protocol) { m_l4Proto = protocol; }

    /// The registry's identifier for the service.
    const std::string& getLocalUuid() const { return m_localUuid; }
    void setLocalUuid(std::string localUuid) { m_localUuid = std::move(localUuid); }

    const std::string& getUri() const { return m_uri; }
    void setUri(std::string uri) { m_uri = std::move(uri); }

    /// Memory taken by the texts, in bytes.
    std::size_t getTextSize() const;

    /// "http://[address]:port/name/", with the texts as given.
    static std::string generateUri(const std::string& name, const std::string& ipAddress,
                                   unsigned short port);
    /// The URI of this description's name, address and port.
    std::string generateUri() const;

private:
    std::string m_name;
    TextList m_versions;
    TextList m_categories;
    std::optional<Poco::Net::IPAddress> m_ip6Address;  // none is "::", and takes no memory
    std::string m_ip6AddressText = "::";               // cached: records are matched by it
    std::uint16_t m_ip6Port = 0;
    OptionL4Protocol::L4Protocol_t m_l4Proto = OptionL4Protocol::TCP;
    std::string m_localUuid;
    std::string m_uri;
};

}  // namespace Nubo::ServiceDiscovery
