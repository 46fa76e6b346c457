#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <ServiceDiscovery.h>

namespace NuboSd {

/// A line of a page, in printable ASCII.
struct Line
{
    enum class Style
    {
        Normal,
        Heading,
        Faint
    };

    std::string text;
    Style style = Style::Normal;
};

/// What somebody at the screen wants.
enum class Key
{
    Up,
    Down,
    PageUp,
    PageDown,
    Home,
    End,
    Redraw,
    Quit
};

/// The services as a table, sorted by name and instance; the page that a screen has room for, and all of it.
/// It knows neither screen nor clock: sizes and times are given.
class LiveTable
{
public:
    using Clock = std::chrono::steady_clock;

    /// How long a service that is gone still stands in the table.
    static constexpr std::chrono::seconds goneTime{5};

    /// The first line begins with `unit`.
    explicit LiveTable(std::string unit);

    /// Takes in which services there are now.
    void update(const std::vector<Nubo::ServiceDiscovery::ServiceStatus>& services, Clock::time_point now);

    /// Moves on to other rows; the keys that are not about that change nothing.
    void scroll(Key key);

    /// Summary, headings, services as far as there is room, and `note` in the last line.
    std::vector<Line> page(std::size_t width, std::size_t height, const std::string& note);

    /// Summary, headings and all services.
    std::vector<Line> all(std::size_t width) const;

private:
    /// By what the services are sorted: name, instance, identifier.
    using Order = std::tuple<std::string, std::uint16_t, std::string>;

    struct Row
    {
        std::string name;
        std::string endpoint;
        std::string versions;
        Clock::time_point since;
        Clock::time_point lastSeen;
        std::optional<unsigned> secondsLeft;
    };
    using Rows = std::map<Order, Row>;

    /// The texts of a line.
    struct Cells
    {
        std::string name;
        std::string endpoint;
        std::string ttl;
        std::string age;
        std::string instance;
        std::string versions;
    };

    std::vector<Line> lines(std::size_t first, std::size_t most, std::size_t width) const;
    Line lineOf(const Rows::value_type& entry, std::size_t width) const;
    std::string columns(const Cells& cells, std::size_t width) const;

    const std::string m_unit;
    Rows m_rows;
    Clock::time_point m_now;
    std::size_t m_discovered = 0;
    std::size_t m_announced = 0;
    std::size_t m_nameWidth = 0;
    std::size_t m_endpointWidth = 0;
    std::size_t m_first = 0;     // row of the page
    std::size_t m_pageSize = 0;  // rows that it has room for
};

}  // namespace NuboSd
