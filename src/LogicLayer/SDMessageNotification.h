#pragma once

#include "Multicast/MulticastReceiver.h"

#include <Poco/Notification.h>

#include <atomic>
#include <cstddef>
#include <utility>

namespace Nubo::ServiceDiscovery {

/// Passes one received datagram from the receiver's thread to the request handler's. During its lifetime it
/// adds the datagram's size to `waitingBytes`, unless that is null.
class SDMessageNotification : public Poco::Notification
{
public:
    explicit SDMessageNotification(Multicast::MulticastDataPtr msg,
                                   std::atomic<std::size_t>* waitingBytes = nullptr)
        : m_msg(std::move(msg))
        , m_waitingBytes(waitingBytes)
    {
        if (m_waitingBytes)
            *m_waitingBytes += m_msg->buffer.size();
    }
    ~SDMessageNotification() override
    {
        if (m_waitingBytes)
            *m_waitingBytes -= m_msg->buffer.size();
    }

    Multicast::MulticastDataPtr& getMsg() { return m_msg; }

private:
    Multicast::MulticastDataPtr m_msg;
    std::atomic<std::size_t>* const m_waitingBytes;
};

}  // namespace Nubo::ServiceDiscovery
