#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// The versions or categories of a description: its own texts, or those of a received configuration, which
/// hundreds of offers may refer to. Shared texts never change, so copying them costs nothing.
class TextList
{
public:
    /// Texts that several lists share, and the memory they take.
    struct Shared
    {
        explicit Shared(std::vector<std::string> shared) : texts(std::move(shared)), size(sizeOf(texts)) {}

        const std::vector<std::string> texts;
        const std::size_t size;  ///< bytes
    };

    TextList() = default;
    explicit TextList(std::vector<std::string> texts) : m_own(std::move(texts)) {}
    explicit TextList(std::shared_ptr<const Shared> texts) : m_shared(std::move(texts)) {}

    const std::vector<std::string>& texts() const { return m_shared ? m_shared->texts : m_own; }

    /// Copies shared texts first.
    void add(const std::string& text)
    {
        if (m_shared) {
            m_own = m_shared->texts;
            m_shared.reset();
        }
        m_own.push_back(text);
    }

    /// Memory taken by the texts, in bytes.
    std::size_t size() const { return m_shared ? m_shared->size : sizeOf(m_own); }

private:
    static std::size_t sizeOf(const std::vector<std::string>& texts)
    {
        std::size_t size = 0;
        for (const std::string& text : texts)
            size += sizeof(std::string) + text.size();
        return size;
    }

    std::vector<std::string> m_own;  // empty while m_shared is set
    std::shared_ptr<const Shared> m_shared;
};

}  // namespace Nubo::ServiceDiscovery
