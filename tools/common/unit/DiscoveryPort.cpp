#include "unit/DiscoveryPort.h"

#include "unit/DiscoveryGroup.h"

#include <Poco/Exception.h>
#include <Poco/Net/MulticastSocket.h>

#include <cerrno>

namespace NuboSd {

DiscoveryPort DiscoveryPort::probe()
{
    try {
        Poco::Net::MulticastSocket socket(Poco::Net::SocketAddress::IPv6);
        socket.bind(Poco::Net::SocketAddress(discoveryGroup, discoveryPort), false);
        return {};
    }
    catch (const Poco::Exception& exception) {
        return {exception.code() == EADDRINUSE ? State::Taken : State::Unusable, exception.displayText()};
    }
}

}  // namespace NuboSd
