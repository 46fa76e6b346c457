#pragma once

namespace Nubo::ServiceDiscovery {

/// Marks the calling thread, while the object exists, as one that works for a part of an engine. When it ends
/// the process, from a line of the log say, that engine must not wait for it.
class EngineFrame
{
public:
    explicit EngineFrame(const void* part) : m_part(part), m_outer(innermost()) { innermost() = this; }
    ~EngineFrame() { innermost() = m_outer; }

    EngineFrame(const EngineFrame&) = delete;
    EngineFrame& operator=(const EngineFrame&) = delete;

    template <class... Parts>
    static bool isOnThisThread(const Parts*... parts)
    {
        for (const EngineFrame* frame = innermost(); frame; frame = frame->m_outer) {
            if (((frame->m_part == parts) || ...))
                return true;
        }
        return false;
    }

private:
    static const EngineFrame*& innermost()
    {
        thread_local const EngineFrame* frame = nullptr;
        return frame;
    }

    const void* const m_part;
    const EngineFrame* const m_outer;
};

}  // namespace Nubo::ServiceDiscovery
