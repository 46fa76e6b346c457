#include "NetlinkMonitor.h"

#include <Common/StandardStreamGuard.h>

#include <Poco/Exception.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netlink/addr.h>
#include <netlink/cache.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/object.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/socket.h>
#include <sys/socket.h>

namespace OEMInterface {

namespace {

void check(int result, const char* what)
{
    if (result < 0)
        throw Poco::IOException(std::string("netlink: ") + what, nl_geterror(result));
}

/// Calls `visit` with every object. With libnl's loop, exceptions would propagate through C code.
template <class Visit>
void forEach(nl_cache* cache, Visit visit)
{
    for (nl_object* object = nl_cache_get_first(cache); object; object = nl_cache_get_next(object))
        visit(object);
}

void collectLink(nl_object* object, Links& links)
{
    auto* link = reinterpret_cast<rtnl_link*>(object);
    constexpr unsigned needed = IFF_UP | IFF_MULTICAST;
    const unsigned flags = rtnl_link_get_flags(link);
    // A bridge has its only entry in the bridge family, where each of its ports has a second entry. The IPv6
    // family has a second entry for each link.
    const int family = rtnl_link_get_family(link);
    const bool isTheLink = family == AF_UNSPEC || (family == AF_BRIDGE && rtnl_link_get_master(link) == 0);
    if (!isTheLink || (flags & needed) != needed || (flags & IFF_LOOPBACK))
        return;
    const char* name = rtnl_link_get_name(link);
    links[rtnl_link_get_ifindex(link)].name = name ? name : "";
}

/// Returns the bytes of an IPv6 address, or null for any other address.
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

void collectAddress(nl_object* object, Links& links)
{
    auto* address = reinterpret_cast<rtnl_addr*>(object);
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

AddressKey keyOf(rtnl_addr* address, const in6_addr& bytes)
{
    return {rtnl_addr_get_ifindex(address), textOf(bytes)};
}

/// Creation time of each address, by the kernel's clock.
using CreationTimes = std::map<AddressKey, std::uint32_t>;

CreationTimes creationTimes(nl_cache* addresses)
{
    CreationTimes times;
    forEach(addresses, [&](nl_object* object) {
        auto* address = reinterpret_cast<rtnl_addr*>(object);
        if (const in6_addr* bytes = bytesOf(address))
            times.emplace(keyOf(address, *bytes), rtnl_addr_get_create_time(address));
    });
    return times;
}

/// Returns the addresses of `before` that were removed, or removed and created again.
AddressKeys goneBetween(const CreationTimes& before, const CreationTimes& now)
{
    AddressKeys gone;
    for (const auto& [address, time] : before) {
        const auto present = now.find(address);
        if (present == now.end() || present->second != time)
            gone.insert(address);
    }
    return gone;
}

/// Limits waiting for an answer to 1 s. The kernel answers while it accepts a request, but libnl does not
/// notice when it cannot send a request for links, and would wait for the answer for ever.
void limitWaiting(nl_sock* socket)
{
    constexpr timeval limit{1, 0};
    const int result = ::setsockopt(nl_socket_get_fd(socket), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    check(result == 0 ? 0 : -nl_syserr2nlerr(errno), "open");
}

}  // namespace

void NetlinkMonitor::SocketCloser::operator()(nl_sock* socket) const
{
    nl_socket_free(socket);
}

void NetlinkMonitor::CacheFreer::operator()(nl_cache* cache) const
{
    nl_cache_free(cache);
}

NetlinkMonitor::NetlinkMonitor()
{
    openSockets();
    m_known = readAll();
}

NetlinkMonitor::~NetlinkMonitor() = default;

NetlinkMonitor::Socket NetlinkMonitor::openSocket()
{
    const Common::StandardStreamGuard guard;
    Socket socket(nl_socket_alloc());
    check(socket ? 0 : -NLE_NOMEM, "open");
    check(nl_connect(socket.get(), NETLINK_ROUTE), "open");
    return socket;
}

void NetlinkMonitor::openSockets()
{
    Socket notices = openSocket();
    nl_socket_disable_seq_check(notices.get());
    check(nl_socket_modify_cb(notices.get(), NL_CB_VALID, NL_CB_CUSTOM, &NetlinkMonitor::onNotice, this),
          "open");
    check(nl_socket_set_nonblocking(notices.get()), "open");
    check(nl_socket_add_memberships(notices.get(), RTNLGRP_LINK, RTNLGRP_IPV6_IFADDR, RTNLGRP_NONE), "open");
    Socket requests = openSocket();
    limitWaiting(requests.get());
    m_notices.swap(notices);
    m_requests.swap(requests);
}

int NetlinkMonitor::descriptor() const
{
    return nl_socket_get_fd(m_notices.get());
}

void NetlinkMonitor::update()
{
    m_isBehind = m_isBehind || !takeNotices();
    if (!m_isBehind)
        return;
    readAnew();
    m_isBehind = false;
}

/// Returns false when a notice is missing.
bool NetlinkMonitor::takeNotices()
{
    int result = 0;
    while (result >= 0 && !m_isBehind)
        result = nl_recvmsgs_default(m_notices.get());
    return result == -NLE_AGAIN && !m_isBehind;
}

/// Must not throw, because libnl calls it.
int NetlinkMonitor::onNotice(nl_msg* message, void* monitor)
{
    const int result = nl_msg_parse(message, &NetlinkMonitor::onObject, monitor);
    if (result < 0 && result != -NLE_MSGTYPE_NOSUPPORT)
        static_cast<NetlinkMonitor*>(monitor)->m_isBehind = true;
    return NL_OK;
}

void NetlinkMonitor::onObject(nl_object* object, void* monitor)
{
    try {
        static_cast<NetlinkMonitor*>(monitor)->take(object);
    }
    catch (const std::exception&) {
        static_cast<NetlinkMonitor*>(monitor)->m_isBehind = true;
    }
}

void NetlinkMonitor::take(nl_object* object)
{
    const bool isAddress = nl_object_get_type(object) == std::string_view("route/addr");
    if (isAddress && nl_object_get_msgtype(object) == RTM_DELADDR) {
        // Before the address is removed from the cache: if this fails, reading everything again still detects
        // the removal.
        auto* address = reinterpret_cast<rtnl_addr*>(object);
        if (const in6_addr* bytes = bytesOf(address))
            m_goneAddresses.insert(keyOf(address, *bytes));
    }
    nl_cache* cache = (isAddress ? m_known.addresses : m_known.links).get();
    check(nl_cache_include(cache, object, nullptr, nullptr), "notice");
}

/// Drops pending notices: they are older than the state about to be read, and would restore an outdated one.
void NetlinkMonitor::dropNotices() const
{
    const int socket = nl_socket_get_fd(m_notices.get());
    ssize_t size = 0;
    char ignored = 0;
    do {
        size = ::recv(socket, &ignored, sizeof(ignored), MSG_DONTWAIT | MSG_TRUNC);
    } while (size >= 0 || errno == EINTR || errno == ENOBUFS);
    check(errno == EAGAIN ? 0 : -nl_syserr2nlerr(errno), "notices");
}

NetlinkMonitor::Caches NetlinkMonitor::readAll() const
{
    nl_cache* read = nullptr;
    check(rtnl_link_alloc_cache(m_requests.get(), AF_UNSPEC, &read), "route/link");
    Cache links(read);
    check(rtnl_addr_alloc_cache(m_requests.get(), &read), "route/addr");
    return {std::move(links), Cache(read)};
}

NetlinkMonitor::Caches NetlinkMonitor::readOnSoundSockets()
{
    try {
        if (!m_notices)
            openSockets();
        dropNotices();
        return readAll();
    }
    catch (...) {
        // The rest of an answer would be mistaken for the answer to the next request.
        m_notices.reset();
        m_requests.reset();
        throw;
    }
}

void NetlinkMonitor::readAnew()
{
    const CreationTimes before = creationTimes(m_known.addresses.get());
    Caches now = readOnSoundSockets();
    AddressKeys gone = goneBetween(before, creationTimes(now.addresses.get()));
    m_goneAddresses.merge(gone);
    std::swap(m_known, now);
}

Links NetlinkMonitor::links() const
{
    Links result;
    forEach(m_known.links.get(), [&](nl_object* object) { collectLink(object, result); });
    forEach(m_known.addresses.get(), [&](nl_object* object) { collectAddress(object, result); });
    return result;
}

}  // namespace OEMInterface
