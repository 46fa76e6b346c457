#include "Errors.h"
#include "capture/Capture.h"
#include "capture/Memberships.h"
#include "capture/PacketDecoder.h"
#include "commands/Subcommands.h"
#include "services/ServiceJson.h"
#include "text/Text.h"
#include "text/UnicastAddress.h"
#include "unit/EventLoop.h"

#include <Poco/NumberFormatter.h>
#include <Poco/Timestamp.h>

#include <algorithm>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

namespace NuboSd {

namespace {

struct Options
{
    std::string pcap;
    std::string read;
    std::vector<std::string> names;
    std::vector<std::string> senders;
    std::vector<std::string> kinds;
};

bool isWanted(const std::vector<std::string>& wanted, const std::string& value)
{
    return wanted.empty() || std::find(wanted.begin(), wanted.end(), value) != wanted.end();
}

Poco::Timestamp timestampOf(const SeenDatagram& datagram)
{
    return Poco::Timestamp(
        std::chrono::duration_cast<std::chrono::microseconds>(datagram.time.time_since_epoch()).count());
}

/// "eth0  fd00::1  offer  …": the columns that every line has. Longer texts move the rest to the right.
std::string column(std::string text, std::size_t width)
{
    return padded(std::move(text), width) + "  ";
}

std::string toText(const SeenDatagram& datagram, const SeenEntry& entry)
{
    std::string text = localTime(timestampOf(datagram), "%H:%M:%S.%F  ");
    text += column(datagram.interface, 6) + column(datagram.sender.host().toString(), 12) +
            column(entry.kind, 10);
    if (entry.kind == SeenEntry::malformed)
        return text + printable(entry.reason);
    text += entry.name.empty() ? "service " + Poco::NumberFormatter::formatHex(entry.serviceID, 4, true)
                               : printable(entry.name);
    if (!entry.address.empty())
        text += "  " + endpointText(entry.protocol, entry.address, entry.port);
    if (!entry.versions.empty())
        text += "  " + joined(entry.versions);
    if (!entry.categories.empty())
        text += "  (" + joined(entry.categories) + ")";
    return text + "  ttl " + std::to_string(entry.ttl) + "  session " + std::to_string(entry.session);
}

std::string toJson(const SeenDatagram& datagram, const SeenEntry& entry)
{
    nlohmann::ordered_json json{{"time", jsonTime(timestampOf(datagram))},
                                {"interface", datagram.interface},
                                {"sender", datagram.sender.host().toString()},
                                {"sender_port", datagram.sender.port()},
                                {"kind", entry.kind}};
    if (entry.kind == SeenEntry::malformed) {
        json["reason"] = entry.reason;
    }
    else {
        json[ServiceKey::name] = entry.name;
        json["service_id"] = entry.serviceID;
        json["instance_id"] = entry.instanceID;
        json["major_version"] = entry.majorVersion;
        json["minor_version"] = entry.minorVersion;
        visitOffer(entry, [&](const char* key, const auto& value) { json[key] = value; });
        json["ttl"] = entry.ttl;
    }
    json["session"] = entry.session;
    return jsonLine(json);
}

/// Prints the entries that pass the filters.
class Printer
{
public:
    Printer(const Options& options, const CommonOptions& common) : m_options(options), m_common(common) {}

    void print(const SeenDatagram& datagram)
    {
        if (!isWanted(m_common.interfaces, datagram.interface) ||
            !isWanted(m_options.senders, datagram.sender.host().toString()))
            return;
        for (const SeenEntry& entry : decode(datagram)) {
            if (!isWanted(m_options.kinds, entry.kind) || !isWanted(m_options.names, entry.name))
                continue;
            std::cout << (m_common.json ? toJson(datagram, entry) : toText(datagram, entry)) << '\n';
        }
        std::cout.flush();
    }

    /// False when the reader is gone.
    bool isRead() const { return std::cout.good(); }

private:
    const Options& m_options;
    const CommonOptions& m_common;
};

int readFile(const Options& options, const CommonOptions& common)
{
    Capture capture = Capture::ofFile(options.read);
    if (!options.pcap.empty())
        capture.writeTo(options.pcap);
    Printer printer(options, common);
    capture.read([&](const SeenDatagram& datagram) { printer.print(datagram); });
    return Done;
}

int listen(const Options& options, const CommonOptions& common)
{
    EventLoop loop;
    const EventLoop::Deadline end = common.duration ? EventLoop::after(*common.duration) : std::nullopt;
    Capture capture = Capture::live();
    if (!options.pcap.empty())
        capture.writeTo(options.pcap);
    const Memberships memberships(common.interfaces);

    Printer printer(options, common);
    while (printer.isRead()) {
        if (loop.wait(end, {capture.descriptor()}) != EventLoop::Reason::Readable)
            break;
        capture.read([&](const SeenDatagram& datagram) { printer.print(datagram); });
    }
    if (const unsigned dropped = capture.dropped())
        std::cerr << "nubo-sd: " << dropped << " frames were dropped: buffer full" << std::endl;
    return Done;
}

}  // namespace

Subcommand::Run setUpMonitor(CLI::App& commandLine, const CommonOptions& common)
{
    const auto options = std::make_shared<Options>();
    commandLine.add_option("--pcap", options->pcap, "Also write the frames to a capture file")
        ->type_name("FILE");
    commandLine
        .add_option("--read", options->read,
                    "Decode the frames of a capture file instead of those on the interfaces")
        ->type_name("FILE");
    commandLine
        .add_option("--name", options->names, "Print only entries about services with this name; repeatable")
        ->type_name("NAME")
        ->allow_extra_args(false);
    commandLine.add_option("--from", options->senders, "Print only what this address sent; repeatable")
        ->type_name("IPv6")
        ->allow_extra_args(false)
        ->transform(
            [](const std::string& text) { return parseUnicastAddress(text, "the sender").toString(); });
    std::string kinds;
    for (const std::string& kind : SeenEntry::kinds)
        kinds += (kinds.empty() ? "" : ", ") + kind;
    commandLine
        .add_option("--kind", options->kinds, "Print only entries of this kind; repeatable. Kinds: " + kinds)
        ->type_name("KIND")
        ->allow_extra_args(false)
        ->check(CLI::IsMember(SeenEntry::kinds));
    commandLine.footer(
        "monitor only listens, so it can run beside a registry. It needs the privilege to capture frames,\n"
        "CAP_NET_RAW. It prints one line per entry; for malformed data, it prints the reason. It sees only "
        "the\n"
        "first fragment of a fragmented datagram.");
    return [options, &common] {
        return options->read.empty() ? listen(*options, common) : readFile(*options, common);
    };
}

}  // namespace NuboSd
