#pragma once

#include "Multicast/MulticastReceiver.h"

#include <Poco/Notification.h>

#include <utility>

namespace Nubo::ServiceDiscovery {

/// Carries one received datagram from the receiver's thread to the request handler's.
class SDMessageNotification : public Poco::Notification
{
public:
    explicit SDMessageNotification(Multicast::MulticastDataPtr msg) : m_msg(std::move(msg)) {}

    Multicast::MulticastDataPtr& getMsg() { return m_msg; }

private:
    Multicast::MulticastDataPtr m_msg;
};

}  // namespace Nubo::ServiceDiscovery
