#pragma once

#include "LogicLayer/SDCommunicationHub.h"
#include "faults/HubDelegates.h"
#include "support/Descriptions.h"
#include "support/LinkedFixture.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Packets.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"

#include <Poco/Net/IPAddress.h>

#include <chrono>
#include <string>

namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::IPAddress;

constexpr auto globalAddress = "fd00::1";
constexpr auto linkLocal = "fe80::1";

/// A hub that is not started, and another unit that sends and listens.
struct InterfaceFixture : LinkedFixture
{
    InterfaceFixture() { network.here.addAddress("eth0", std::string(linkLocal) + "/64"); }

    bool start() { return unit.hub.start(IPAddress(globalAddress)); }

    bool isSending()
    {
        const std::string name = "Own" + std::to_string(++number);
        SDService::Ptr service = makeService(name, globalAddress, 8080, name);
        listener.clear();
        return unit.hub.addService(service) &&
               eventually([&] { return !listener.datagrams().empty(); }, std::chrono::milliseconds(500));
    }

    bool isHearing()
    {
        const std::string name = "Far" + std::to_string(++number);
        return eventually(
            [&] {
                speaker.send(Packets::offer(name));
                return eventually([&] { return unit.registry.discovered(name) != 0; },
                                  std::chrono::milliseconds(20));
            },
            std::chrono::milliseconds(500));
    }

    LogCatcher log;
    HubUnit unit;
    Speaker speaker{network.there, "eth0", "fd00::2"};
    Listener listener{network.there, "eth0"};
    int number = 0;
};

}  // namespace Nubo::ServiceDiscovery::Testing
