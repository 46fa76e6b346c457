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
/// It does not use libnl's cache manager, which aborts the process when only one descriptor is left for its
/// two sockets. It keeps both of its sockets open, so reading everything again needs no descriptor.
class NetlinkMonitor
{
public:
    /// Reads all links and addresses. Throws Poco::IOException when netlink cannot be used.
    NetlinkMonitor();
    ~NetlinkMonitor();

    NetlinkMonitor(const NetlinkMonitor&) = delete;
    NetlinkMonitor& operator=(const NetlinkMonitor&) = delete;

    /// Becomes readable when the kernel has sent notices. May change with every update().
    int descriptor() const;

    /// Processes the kernel's notices. If some were lost because the socket's buffer was full, reads
    /// everything again. Throws Poco::IOException when that fails, or std::bad_alloc; then the known state is
    /// unchanged, and the next call reads everything again.
    void update();

    /// Addresses that were removed, for the caller to process and erase. An address may exist again already:
    /// the kernel can remove and add it between two calls of update().
    AddressKeys& goneAddresses() { return m_goneAddresses; }

    /// Returns the links suitable for service discovery, with their IPv6 addresses.
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
    Socket m_notices;   // member of the netlink groups for links and addresses
    Socket m_requests;  // both sockets are null after one has failed
    Caches m_known;
    bool m_isBehind = false;  // m_known lacks a notice
};

}  // namespace OEMInterface
