#include "terminal/LiveTable.h"

#include "text/Text.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace NuboSd {

using Nubo::ServiceDiscovery::NuboServiceDescription;
using Nubo::ServiceDiscovery::ServiceStatus;

namespace {

constexpr std::size_t linesAround = 3;  // a page's summary, headings and note
constexpr std::size_t leastNameWidth = 12;
constexpr std::size_t timeWidth = 7;  // "179 min"
constexpr std::size_t instanceWidth = 8;
constexpr std::size_t usualVersionsWidth = 8;
constexpr auto gap = "  ";

/// The text, cut off to that width with a mark at the end.
std::string fitted(std::string text, std::size_t width)
{
    if (text.size() > width) {
        text.resize(width);
        if (width > 0)
            text.back() = '>';
    }
    return text;
}

/// "179 s", "3 min": in the largest unit of which there are at least three.
std::string durationText(std::chrono::seconds duration)
{
    const auto count = duration.count();
    constexpr std::int64_t minute = 60;
    constexpr std::int64_t hour = 60 * minute;
    constexpr std::int64_t day = 24 * hour;
    if (count < 3 * minute)
        return std::to_string(count) + " s";
    if (count < 3 * hour)
        return std::to_string(count / minute) + " min";
    if (count < 3 * day)
        return std::to_string(count / hour) + " h";
    return std::to_string(count / day) + " d";
}

}  // namespace

LiveTable::LiveTable(std::string unit) : m_unit(std::move(unit)) {}

void LiveTable::update(const std::vector<ServiceStatus>& services, Clock::time_point now)
{
    m_now = now;
    m_announced = 0;
    for (const ServiceStatus& service : services) {
        const NuboServiceDescription& description = service.description;
        const auto [entry, isNew] =
            m_rows.try_emplace({description.getName(), service.instanceId, description.getLocalUuid()});
        Row& row = entry->second;
        if (isNew) {
            row.name = printable(description.getName());
            row.endpoint = endpointText(protocolName(description.getL4Proto()),
                                        description.getIpAddressString(), description.getPort());
            row.versions = joined(description.getVersions());
            row.since = now;
        }
        row.lastSeen = now;
        row.secondsLeft = service.secondsLeft;
        m_announced += service.role == ServiceStatus::Role::ANNOUNCED ? 1 : 0;
    }
    m_discovered = services.size() - m_announced;

    m_nameWidth = std::string("NAME").size();
    m_endpointWidth = std::string("ENDPOINT").size();
    for (auto entry = m_rows.begin(); entry != m_rows.end();) {
        const Row& row = entry->second;
        if (now - row.lastSeen >= goneTime) {
            entry = m_rows.erase(entry);
            continue;
        }
        m_nameWidth = std::max(m_nameWidth, row.name.size());
        m_endpointWidth = std::max(m_endpointWidth, row.endpoint.size());
        ++entry;
    }
}

void LiveTable::scroll(Key key)
{
    switch (key) {
        case Key::Up:
            m_first -= std::min<std::size_t>(m_first, 1);
            break;
        case Key::Down:
            ++m_first;
            break;
        case Key::PageUp:
            m_first -= std::min(m_first, m_pageSize);
            break;
        case Key::PageDown:
            m_first += m_pageSize;
            break;
        case Key::Home:
            m_first = 0;
            break;
        case Key::End:
            m_first = m_rows.size();
            break;
        case Key::Redraw:
        case Key::Quit:
            break;
    }
}

std::vector<Line> LiveTable::page(std::size_t width, std::size_t height, const std::string& note)
{
    if (height == 0)
        return {};
    m_pageSize = height - std::min(height, linesAround);
    m_first = std::min(m_first, m_rows.size() - std::min(m_rows.size(), m_pageSize));
    std::vector<Line> result = lines(m_first, m_pageSize, width);
    result.resize(height - 1);
    result.push_back({fitted(note, width)});
    return result;
}

std::vector<Line> LiveTable::all(std::size_t width) const
{
    return lines(0, m_rows.size(), width);
}

std::vector<Line> LiveTable::lines(std::size_t first, std::size_t most, std::size_t width) const
{
    const std::size_t count = std::min(most, m_rows.size() - first);
    std::string summary = m_unit + ": " + std::to_string(m_discovered) + " discovered, " +
                          std::to_string(m_announced) + " announced";
    if (count > 0 && count < m_rows.size())
        summary += ", rows " + std::to_string(first + 1) + " to " + std::to_string(first + count) + " of " +
                   std::to_string(m_rows.size());
    std::vector<Line> result{
        {fitted(std::move(summary), width)},
        {padded(columns({"NAME", "ENDPOINT", "TTL", "AGE", "INSTANCE", "VERSIONS"}, width), width),
         Line::Style::Heading}};
    auto entry = std::next(m_rows.begin(), static_cast<std::ptrdiff_t>(first));
    for (std::size_t i = 0; i < count; ++i, ++entry)
        result.push_back(lineOf(*entry, width));
    return result;
}

Line LiveTable::lineOf(const Rows::value_type& entry, std::size_t width) const
{
    const auto& [order, row] = entry;
    const auto age = std::chrono::floor<std::chrono::seconds>(row.lastSeen - row.since);
    const bool isGone = row.lastSeen != m_now;
    std::string ttl = "own";
    if (isGone)
        ttl = "gone";
    else if (row.secondsLeft)
        ttl = durationText(std::chrono::seconds(*row.secondsLeft));
    return {columns({row.name, row.endpoint, ttl, durationText(age),
                     std::to_string(std::get<std::uint16_t>(order)), row.versions},
                    width),
            isGone ? Line::Style::Faint : Line::Style::Normal};
}

/// The most important column is first: a narrow screen cuts off the last ones. Names use the width that the
/// other columns leave, if they need it.
std::string LiveTable::columns(const Cells& cells, std::size_t width) const
{
    const std::string others = gap + padded(cells.endpoint, m_endpointWidth) + gap +
                               padded(cells.ttl, timeWidth) + gap + padded(cells.age, timeWidth) + gap +
                               padded(cells.instance, instanceWidth) + gap;
    const std::size_t left = width - std::min(width, others.size() + usualVersionsWidth);
    const std::size_t nameWidth = std::min(m_nameWidth, std::max(leastNameWidth, left));
    return fitted(padded(fitted(cells.name, nameWidth), nameWidth) + others + cells.versions, width);
}

}  // namespace NuboSd
