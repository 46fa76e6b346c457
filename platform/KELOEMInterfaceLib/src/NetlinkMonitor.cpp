#include "NetlinkMonitor.h"

#include <Poco/Exception.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <map>

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netlink/addr.h>
#include <netlink/cache.h>
#include <netlink/errno.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>

namespace OEMInterface {

namespace {

void check(int result, const char* what)
{
    if (result < 0)
        throw Poco::IOException(std::string("netlink: ") + what, nl_geterror(result));
}

nl_cache* addCache(nl_cache_mngr& manager, const char* name, change_func_t onChange = nullptr,
                   void* data = nullptr)
{
    nl_cache* cache = nullptr;
    check(nl_cache_mngr_add(&manager, name, onChange, data, &cache), name);
    return cache;
}

void collectLink(nl_object* object, void* result)
{
    auto* link = reinterpret_cast<rtnl_link*>(object);
    constexpr unsigned needed = IFF_UP | IFF_MULTICAST;
    const unsigned flags = rtnl_link_get_flags(link);
    // A bridge has its only entry in the bridge family, where each of its ports has a second one; the IPv6
    // family has a second one for each link.
    const int family = rtnl_link_get_family(link);
    const bool isTheLink = family == AF_UNSPEC || (family == AF_BRIDGE && rtnl_link_get_master(link) == 0);
    if (!isTheLink || (flags & needed) != needed || (flags & IFF_LOOPBACK))
        return;
    const char* name = rtnl_link_get_name(link);
    (*static_cast<Links*>(result))[rtnl_link_get_ifindex(link)].name = name ? name : "";
}

/// The bytes of an IPv6 address; null when it is none.
const in6_addr* bytesOf(rtnl_addr* address)
{
    const nl_addr* local = rtnl_addr_get_local(address);
    if (rtnl_addr_get_family(address) != AF_INET6 || !local || nl_addr_get_len(local) != sizeof(in6_addr))
        return nullptr;
    return static_cast<const in6_addr*>(nl_addr_get_binary_addr(local));
}

std::string textOf(const in6_addr& bytes)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    return ::inet_ntop(AF_INET6, &bytes, text.data(), text.size());
}

void collectAddress(nl_object* object, void* result)
{
    auto* address = reinterpret_cast<rtnl_addr*>(object);
    auto& links = *static_cast<Links*>(result);
    const auto link = links.find(rtnl_addr_get_ifindex(address));
    const in6_addr* bytes = bytesOf(address);
    if (!bytes || link == links.end())
        return;

    const unsigned flags = rtnl_addr_get_flags(address);
    LinkAddress entry;
    entry.text = textOf(*bytes);
    entry.isLinkLocal = IN6_IS_ADDR_LINKLOCAL(bytes);
    entry.isTentative = (flags & IFA_F_TENTATIVE) != 0;
    entry.isDuplicate = (flags & IFA_F_DADFAILED) != 0;
    entry.isDeprecated = (flags & IFA_F_DEPRECATED) != 0;
    link->second.addresses.push_back(entry);
}

using AddressKey = std::pair<int, std::string>;

/// When each address was made, by the kernel's clock.
using CreationTimes = std::map<AddressKey, std::uint32_t>;

AddressKey keyOf(rtnl_addr* address, const in6_addr& bytes)
{
    return {rtnl_addr_get_ifindex(address), textOf(bytes)};
}

void collectCreationTime(nl_object* object, void* result)
{
    auto* address = reinterpret_cast<rtnl_addr*>(object);
    if (const in6_addr* bytes = bytesOf(address))
        static_cast<CreationTimes*>(result)->emplace(keyOf(address, *bytes),
                                                     rtnl_addr_get_create_time(address));
}

CreationTimes creationTimes(nl_cache* addresses)
{
    CreationTimes times;
    nl_cache_foreach(addresses, collectCreationTime, &times);
    return times;
}

}  // namespace

void NetlinkMonitor::Closer::operator()(nl_cache_mngr* manager) const
{
    nl_cache_mngr_free(manager);
}

NetlinkMonitor::NetlinkMonitor()
{
    open();
}

void NetlinkMonitor::open()
{
    nl_cache_mngr* opened = nullptr;
    check(nl_cache_mngr_alloc(nullptr, NETLINK_ROUTE, 0, &opened), "open");
    std::unique_ptr<nl_cache_mngr, Closer> manager(opened);
    nl_cache* links = addCache(*manager, "route/link");
    nl_cache* addresses = addCache(*manager, "route/addr", &NetlinkMonitor::onAddressChange, this);
    m_manager.swap(manager);
    m_links = links;
    m_addresses = addresses;
}

int NetlinkMonitor::descriptor() const
{
    return nl_cache_mngr_get_fd(m_manager.get());
}

void NetlinkMonitor::update()
{
    m_isBehind = m_isBehind || nl_cache_mngr_data_ready(m_manager.get()) < 0;
    if (!m_isBehind)
        return;
    const CreationTimes before = creationTimes(m_addresses);
    open();
    m_isBehind = false;
    // What the kernel could not tell shows in when an address was made: a new one may look like one before.
    const CreationTimes now = creationTimes(m_addresses);
    for (const auto& [address, time] : before) {
        const auto standing = now.find(address);
        if (standing == now.end() || standing->second != time)
            m_goneAddresses.insert(address);
    }
}

void NetlinkMonitor::onAddressChange(nl_cache* /*cache*/, nl_object* object, int action, void* monitor)
{
    auto* address = reinterpret_cast<rtnl_addr*>(object);
    const in6_addr* bytes = bytesOf(address);
    if (bytes && action == NL_ACT_DEL)
        static_cast<NetlinkMonitor*>(monitor)->m_goneAddresses.insert(keyOf(address, *bytes));
}

NetlinkMonitor::Addresses NetlinkMonitor::takeGoneAddresses()
{
    return std::exchange(m_goneAddresses, {});
}

Links NetlinkMonitor::links() const
{
    Links result;
    nl_cache_foreach(m_links, collectLink, &result);
    nl_cache_foreach(m_addresses, collectAddress, &result);
    return result;
}

}  // namespace OEMInterface
