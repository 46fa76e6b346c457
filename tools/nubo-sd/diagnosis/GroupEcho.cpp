#include "diagnosis/GroupEcho.h"

#include "text/Text.h"
#include "unit/DiscoveryGroup.h"

#include <Poco/Clock.h>
#include <Poco/Exception.h>
#include <Poco/Net/MulticastSocket.h>
#include <Poco/Net/NetworkInterface.h>
#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>

#include <algorithm>
#include <array>

namespace NuboSd {

using Poco::Net::IPAddress;
using Poco::Net::MulticastSocket;
using Poco::Net::SocketAddress;

namespace {

struct Trial
{
    MulticastSocket receiver{SocketAddress::IPv6};
    MulticastSocket sender{SocketAddress::IPv6};
    std::string text = Poco::UUIDGenerator::defaultGenerator().createRandom().toString();
};

void send(Trial& trial, const std::string& interfaceName)
{
    const IPAddress group(discoveryGroup);
    const auto interface = Poco::Net::NetworkInterface::forName(interfaceName);
    trial.receiver.bind(SocketAddress(IPAddress(IPAddress::IPv6), 0), false);
    trial.receiver.joinGroup(group, interface);
    trial.sender.setInterface(interface);
    trial.sender.setLoopback(true);
    trial.sender.setTimeToLive(0);  // must not leave this unit
    trial.sender.sendTo(trial.text.data(), static_cast<int>(trial.text.size()),
                        SocketAddress(group, trial.receiver.address().port()));
}

/// Skips datagrams of other senders to the same port.
bool comesBack(Trial& trial, const Poco::Clock& end)
{
    for (;;) {
        const Poco::Clock::ClockDiff left = std::max<Poco::Clock::ClockDiff>(end - Poco::Clock(), 0);
        if (!trial.receiver.poll(Poco::Timespan(left), MulticastSocket::SELECT_READ))
            return false;
        std::array<char, 64> buffer{};
        const int size = trial.receiver.receiveBytes(buffer.data(), buffer.size());
        if (size > 0 && trial.text == std::string(buffer.data(), static_cast<std::size_t>(size)))
            return true;
        if (left == 0)
            return false;
    }
}

}  // namespace

std::vector<GroupEcho> tryGroupEcho(const std::vector<std::string>& interfaces)
{
    std::vector<GroupEcho> echoes;
    std::vector<Trial> trials(interfaces.size());
    const auto tried = [](GroupEcho& echo, const auto& action) {
        try {
            action();
        }
        catch (const Poco::Exception& exception) {
            echo.error = printable(exception.displayText());
        }
    };
    for (std::size_t i = 0; i < interfaces.size(); ++i) {
        echoes.push_back({interfaces[i], false, {}});
        tried(echoes[i], [&] { send(trials[i], interfaces[i]); });
    }
    Poco::Clock end;
    end += Poco::Clock::resolution();  // a second
    for (std::size_t i = 0; i < interfaces.size(); ++i) {
        if (echoes[i].error.empty())
            tried(echoes[i], [&] { echoes[i].isBack = comesBack(trials[i], end); });
    }
    return echoes;
}

}  // namespace NuboSd
