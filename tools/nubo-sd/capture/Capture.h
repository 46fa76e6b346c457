#pragma once

#include <Poco/Net/SocketAddress.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

struct pcap;
struct pcap_dumper;

namespace NuboSd {

/// A UDP datagram to or from the discovery port that was seen on an interface.
struct SeenDatagram
{
    std::chrono::system_clock::time_point time;
    std::string interface;  ///< its name; "#5" where only the index is known, "?" where not even that is
    Poco::Net::SocketAddress sender;
    std::string bytes;
    std::size_t length;  ///< of the datagram; more than `bytes` when it was cut off, or in several fragments
};

/// Datagrams off the wire or out of a file, by libpcap. It takes no part in what it sees.
class Capture
{
public:
    using Handle = std::function<void(const SeenDatagram&)>;

    /// All interfaces of this unit. Throws NetworkError, with the cure, when the right to capture is missing.
    static Capture live();
    /// What a file holds: LINUX_SLL2, LINUX_SLL, Ethernet or raw IP. Throws UsageError.
    static Capture ofFile(const std::string& path);

    Capture(Capture&&) noexcept;
    ~Capture();

    /// Writes every frame that is read from now on to a file. Throws UsageError.
    void writeTo(const std::string& path);

    /// Readable when frames wait; negative for a file.
    int descriptor() const;

    /// Hands over the datagrams that wait; of a file, all that are left. Throws NetworkError.
    void read(const Handle& handle);

    /// How many frames the system had no room for, of a live capture.
    unsigned dropped() const;

private:
    explicit Capture(pcap* handle);
    void filter();

    struct Closer
    {
        void operator()(pcap* handle) const;
        void operator()(pcap_dumper* dumper) const;
    };

    std::unique_ptr<pcap, Closer> m_handle;
    std::unique_ptr<pcap_dumper, Closer> m_dumper;
};

}  // namespace NuboSd
