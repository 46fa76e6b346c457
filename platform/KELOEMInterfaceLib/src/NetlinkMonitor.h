#pragma once

#include "InterfaceSelection.h"

#include <memory>

struct nl_cache;
struct nl_msg;
struct nl_object;
struct nl_sock;

namespace OEMInterface {

/// The kernel's links and IPv6 addresses, kept up to date by its notices. Not thread-safe.
///
/// Has no use for libnl's cache manager: that aborts the process when there is one descriptor left for its
/// two sockets. Both sockets are kept, so reading everything anew needs no descriptor.
class NetlinkMonitor
{
public:
    /// Reads all links and addresses. Throws Poco::IOException when netlink cannot be used.
    NetlinkMonitor();
    ~NetlinkMonitor();

    NetlinkMonitor(const NetlinkMonitor&) = delete;
    NetlinkMonitor& operator=(const NetlinkMonitor&) = delete;

    /// Readable when the kernel has sent notices. May change with every update().
    int descriptor() const;

    /// Takes in the kernel's notices. When some were lost because the socket had no room for them, everything
    /// is read anew. Throws Poco::IOException when that fails, or std::bad_alloc; what is known stays as it
    /// was, and the next call reads everything anew.
    void update();

    /// Addresses that have gone, for the caller to take off. They may be back: the kernel sends both notices
    /// at once when it is faster than update() is called.
    AddressKeys& goneAddresses() { return m_goneAddresses; }

    /// The links that may serve service discovery, with their IPv6 addresses.
    Links links() const;

private:
    struct SocketCloser
    {
        void operator()(nl_sock* socket) const;
    };
    struct CacheFreer
    {
        void operator()(nl_cache* cache) const;
    };
    using Socket = std::unique_ptr<nl_sock, SocketCloser>;
    using Cache = std::unique_ptr<nl_cache, CacheFreer>;

    struct Caches
    {
        Cache links;
        Cache addresses;
    };

    static Socket openSocket();
    void openSockets();
    bool takeNotices();
    void dropNotices() const;
    Caches readAll() const;
    Caches readOnSoundSockets();
    void readAnew();
    static int onNotice(nl_msg* message, void* monitor);
    static void onObject(nl_object* object, void* monitor);
    void take(nl_object* object);

    AddressKeys m_goneAddresses;
    Socket m_notices;   // has joined the groups of links and addresses
    Socket m_requests;  // null, like the other, after one has failed
    Caches m_known;
    bool m_isBehind = false;  // what is known lacks a notice
};

}  // namespace OEMInterface
