#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// Range of the numbers that an instance can have: 0 is reserved, 0xFFFF means any.
constexpr unsigned short firstInstance = 1;
constexpr unsigned short lastInstance = 0xFFFE;

constexpr bool isUsableInstance(unsigned short number)
{
    return number >= firstInstance && number <= lastInstance;
}

/// The instance numbers in use by the records of one service, duplicates included. Not thread-safe.
class InstanceNumbers
{
public:
    std::size_t size() const { return m_numbers.size(); }

    /// Guarantees that the next insert() does not throw. Throws std::bad_alloc.
    void reserveOne()
    {
        if (m_numbers.size() == m_numbers.capacity())
            m_numbers.reserve(m_numbers.size() * 2 + 2);
    }

    void insert(std::uint16_t number)
    {
        m_numbers.insert(std::upper_bound(m_numbers.begin(), m_numbers.end(), number), number);
    }

    /// The number must be in use.
    void erase(std::uint16_t number)
    {
        m_numbers.erase(std::lower_bound(m_numbers.begin(), m_numbers.end(), number));
    }

    /// Returns 0 when no number is in use.
    std::uint16_t highest() const { return m_numbers.empty() ? std::uint16_t{0} : m_numbers.back(); }

    /// Returns the lowest number from 1 to `last` that is not in use, or 0 when all of them are.
    std::uint16_t lowestFree(std::uint16_t last) const
    {
        std::uint32_t free = 1;
        for (auto number = std::lower_bound(m_numbers.begin(), m_numbers.end(), free);
             number != m_numbers.end() && *number <= free; ++number)
            free = *number + 1u;
        return static_cast<std::uint16_t>(free <= last ? free : 0);
    }

private:
    std::vector<std::uint16_t> m_numbers;  // in ascending order
};

}  // namespace Nubo::ServiceDiscovery
