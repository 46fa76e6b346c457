#pragma once

#include <cstdint>
#include <mutex>

namespace Nubo::ServiceDiscovery {

/// Marks the calling thread, for the lifetime of the object, as working for a part of an engine: it delivers
/// an event, holds a lock, or is one of the engine's threads. Such a thread must not call into any engine of
/// the process, because it would wait for itself, or for another engine that waits for this one. If it ends
/// the process, for example from a log channel, the engine must not wait for it.
class EngineFrame
{
public:
    /// What the thread does for the part.
    enum class Role : std::uint8_t
    {
        Work,
        Delivery  ///< it only brings a report of the platform
    };

    explicit EngineFrame(const void* part, Role role = Role::Work)
        : m_part(part)
        , m_role(role)
        , m_outer(innermost())
    {
        innermost() = this;
    }
    virtual ~EngineFrame() { innermost() = m_outer; }

    EngineFrame(const EngineFrame&) = delete;
    EngineFrame& operator=(const EngineFrame&) = delete;

    /// Whether the calling thread works for any engine.
    static bool isOnThisThread() { return innermost() != nullptr; }

    /// Whether the calling thread does more for any engine than deliver a report to it.
    static bool isWorkOnThisThread()
    {
        const EngineFrame* frame = innermost();
        while (frame && frame->m_role != Role::Work)
            frame = frame->m_outer;
        return frame != nullptr;
    }

    /// Whether the calling thread works for one of these parts.
    template <class... Parts>
    static bool isOnThisThread(const Parts*... parts)
    {
        for (const EngineFrame* frame = innermost(); frame; frame = frame->m_outer) {
            if (((frame->m_part == parts) || ...))
                return true;
        }
        return false;
    }

    /// Releases the locks that the calling thread holds. For a thread that will not return to the frames,
    /// so that other threads do not wait for ever.
    static void releaseThisThread() noexcept
    {
        for (EngineFrame* frame = innermost(); frame; frame = frame->m_outer)
            frame->release();
    }

private:
    virtual void release() noexcept {}

    static EngineFrame*& innermost()
    {
        thread_local EngineFrame* frame = nullptr;
        return frame;
    }

    const void* const m_part;
    const Role m_role;
    EngineFrame* const m_outer;
};

/// Scoped lock of a part's mutex, which releaseThisThread() can unlock early.
class EngineLock : public EngineFrame
{
public:
    EngineLock(const void* part, std::mutex& mutex) : EngineFrame(part), lock(mutex) {}

    std::unique_lock<std::mutex> lock;

private:
    void release() noexcept override
    {
        if (lock.owns_lock())
            lock.unlock();
    }
};

}  // namespace Nubo::ServiceDiscovery
