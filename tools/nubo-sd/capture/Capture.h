#pragma once

#include <Poco/Net/SocketAddress.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

struct pcap;
struct pcap_dumper;

namespace NuboSd {

/// A captured UDP datagram to or from the discovery port.
struct SeenDatagram
{
    std::chrono::system_clock::time_point time;
    std::string interface;  ///< its name; "#5" if only the index is known, "?" if not even that
    Poco::Net::SocketAddress sender;
    std::string bytes;
    std::size_t length;  ///< of the datagram; larger than `bytes` if it was cut off or fragmented
};

/// Captures datagrams from the wire or a file with libpcap. Sends nothing.
class Capture
{
public:
    using Handle = std::function<void(const SeenDatagram&)>;

    /// All interfaces of this unit. Without the right to capture it throws NetworkError, with the cure.
    static Capture live();
    /// A file with frames of LINUX_SLL2, LINUX_SLL, Ethernet or raw IP. Throws UsageError.
    static Capture ofFile(const std::string& path);

    Capture(Capture&&) noexcept;
    ~Capture();

    /// Writes every frame that is read from now on to a file. Throws UsageError.
    void writeTo(const std::string& path);

    /// Readable when frames are pending; negative for a file.
    int descriptor() const;

    /// Passes on the pending datagrams; for a file, the whole rest. Throws NetworkError.
    void read(const Handle& handle);

    /// The number of frames that a live capture lost because its buffer was full.
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
