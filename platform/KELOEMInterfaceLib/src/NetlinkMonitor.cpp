#include "NetlinkMonitor.h"

#include <Poco/Exception.h>

#include <array>
#include <cerrno>

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

nl_cache* addCache(nl_cache_mngr& manager, const char* name)
{
    nl_cache* cache = nullptr;
    check(nl_cache_mngr_add(&manager, name, nullptr, nullptr, &cache), name);
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

void collectAddress(nl_object* object, void* result)
{
    auto* address = reinterpret_cast<rtnl_addr*>(object);
    auto& links = *static_cast<Links*>(result);
    const auto link = links.find(rtnl_addr_get_ifindex(address));
    if (rtnl_addr_get_family(address) != AF_INET6 || link == links.end())
        return;
    const nl_addr* local = rtnl_addr_get_local(address);
    if (!local || nl_addr_get_len(local) != sizeof(in6_addr))
        return;

    const auto* bytes = static_cast<const in6_addr*>(nl_addr_get_binary_addr(local));
    const unsigned flags = rtnl_addr_get_flags(address);
    std::array<char, INET6_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET6, bytes, text.data(), text.size());

    LinkAddress entry;
    entry.text = text.data();
    entry.isLinkLocal = IN6_IS_ADDR_LINKLOCAL(bytes);
    entry.isTentative = (flags & IFA_F_TENTATIVE) != 0;
    entry.isDuplicate = (flags & IFA_F_DADFAILED) != 0;
    entry.isDeprecated = (flags & IFA_F_DEPRECATED) != 0;
    link->second.addresses.push_back(entry);
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
    nl_cache* addresses = addCache(*manager, "route/addr");
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
    if (m_isBehind)
        open();
    m_isBehind = false;
}

Links NetlinkMonitor::links() const
{
    Links result;
    nl_cache_foreach(m_links, collectLink, &result);
    nl_cache_foreach(m_addresses, collectAddress, &result);
    return result;
}

}  // namespace OEMInterface
