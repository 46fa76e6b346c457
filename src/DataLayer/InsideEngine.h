#pragma once

namespace Nubo::ServiceDiscovery {

/// Marks the calling thread, while the object exists, as one that must not call into any engine of the
/// process: it delivers an event, or it holds a lock of an engine. A call would wait for itself, or for
/// another engine that waits for this one.
class InsideEngine
{
public:
    InsideEngine() { ++depth(); }
    ~InsideEngine() { --depth(); }

    InsideEngine(const InsideEngine&) = delete;
    InsideEngine& operator=(const InsideEngine&) = delete;

    static bool isThisThread() { return depth() != 0; }

private:
    static int& depth()
    {
        thread_local int value = 0;
        return value;
    }
};

}  // namespace Nubo::ServiceDiscovery
