#pragma once

#include "InterfaceSelection.h"

#include <memory>
#include <set>
#include <string>
#include <utility>

struct nl_cache;
struct nl_cache_mngr;
struct nl_object;

namespace OEMInterface {

/// The kernel's links and IPv6 addresses, kept up to date by its notifications. Not thread-safe.
class NetlinkMonitor
{
public:
    /// Reads all links and addresses. Throws Poco::IOException when netlink cannot be used.
    NetlinkMonitor();

    /// Readable when the kernel has something new to tell.
    int descriptor() const;

    /// Takes in what the kernel has told. When it told more than the socket could hold, everything is read
    /// anew. Throws Poco::IOException when that fails.
    void update();

    /// Addresses by interface index and text.
    using Addresses = std::set<std::pair<int, std::string>>;

    /// Addresses that have gone since the last call. They may be back: the kernel tells both at once when it
    /// told faster than update() was called.
    Addresses takeGoneAddresses();

    /// The links that may serve service discovery, with their IPv6 addresses.
    Links links() const;

private:
    struct Closer
    {
        void operator()(nl_cache_mngr* manager) const;
    };

    void open();
    static void onAddressChange(nl_cache* cache, nl_object* object, int action, void* monitor);

    Addresses m_goneAddresses;
    std::unique_ptr<nl_cache_mngr, Closer> m_manager;  // owns the caches
    bool m_isBehind = false;
    nl_cache* m_links = nullptr;
    nl_cache* m_addresses = nullptr;
};

}  // namespace OEMInterface
