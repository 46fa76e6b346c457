#pragma once

#include "OpenSender.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/TestUnit.h"

#include <Poco/Net/IPAddress.h>
#include <Poco/Net/SocketAddress.h>

#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::IPAddress;
using Poco::Net::SocketAddress;

// The placeholder and the addresses of interfaces, as bytes in datagrams.
inline const std::string fd00_1 = "fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01";
inline const std::string fd01_1 = "fd 01 00 00 00 00 00 00 00 00 00 00 00 00 00 01";
inline const std::string fd02_1 = "fd 02 00 00 00 00 00 00 00 00 00 00 00 00 00 01";
inline const std::string fe80_1 = "fe 80 00 00 00 00 00 00 00 00 00 00 00 00 00 01";

/// A sender for a unit on fd00::1 that has no interfaces yet.
struct SenderFixture : ::testing::Test
{
    SenderFixture() { sender->init(IPAddress("fd00::1")); }

    /// Makes an interface with that address and reports it.
    void addInterface(const std::string& name, const std::string& address)
    {
        network.link(name, address);
        sender->addInterface_byIP(name, address);
    }

    /// The same with a listener at the other end.
    Listener addListenedInterface(const std::string& name, const std::string& address)
    {
        addInterface(name, address);
        return Listener(network.there, name);
    }

    bool send(Datagrams& forAll) { return sender->sendMulticast(forAll.list(), {}); }
    bool send(Datagrams&& forAll) { return send(forAll); }

    /// Sends a datagram on every interface and returns the source of the one that the listener hears.
    SocketAddress ownAddress(Listener& listener)
    {
        listener.clear();
        send({"00"});
        EXPECT_TRUE(listener.hears(1));
        const Listener::Datagram& datagram = listener.datagrams().back();
        return SocketAddress(datagram.source, datagram.sourcePort);
    }

    NetworkPair network;
    HubUnit unit;
    LogCatcher log;
    std::optional<Sender> sender{std::in_place, discoveryGroup, discoveryPort};
};

/// The same with two interfaces whose addresses are not the placeholder, and listeners at their other ends.
struct TwoInterfacesFixture : SenderFixture
{
    Listener listener0 = addListenedInterface("eth0", "fd01::1");
    Listener listener1 = addListenedInterface("eth1", "fd02::1");
};

}  // namespace Nubo::ServiceDiscovery::Testing
