#pragma once

#include "Multicast/MulticastSender.h"
#include "support/Wire.h"

#include <cstddef>
#include <initializer_list>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// A sender whose parts a test can reach.
class Sender : public Multicast::MulticastSender
{
public:
    using MulticastSender::addInterface_byIP;
    using MulticastSender::adjustIPs;
    using MulticastSender::InterfaceData_t;
    using MulticastSender::m_interfacesMutex;
    using MulticastSender::MulticastSender;
    using MulticastSender::removeInterface_byIP;
    using MulticastSender::SendData;
    using MulticastSender::sendServices;
    using MulticastSender::transmit;
};

/// Datagrams in the sender's form. It writes into their bytes.
class Datagrams
{
public:
    Datagrams(std::initializer_list<std::string> hex)
    {
        for (const std::string& one : hex)
            m_bytes.push_back(fromHex(one));
    }

    Sender::MulticastData list()
    {
        Sender::MulticastData result;
        for (std::string& one : m_bytes)
            result.emplace_back(one.data(), one.size());
        return result;
    }

    std::string hex(std::size_t i) const { return toHex(m_bytes[i]); }

private:
    std::vector<std::string> m_bytes;
};

constexpr auto noInterfaces =
    "Error: MulticastSender failed to send package, no service discovery interfaces configured!";
constexpr auto notInitialised =
    "Error: MulticastSender failed to send package, external IP address was not initialised!";

}  // namespace Nubo::ServiceDiscovery::Testing
