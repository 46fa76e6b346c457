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

/// A key press that means something to the table.
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

/// The services as a table, sorted by name and instance, either all of it or the page that fits a screen. It
/// knows neither screen nor clock: callers pass sizes and times.
class LiveTable
{
public:
    using Clock = std::chrono::steady_clock;

    /// How long a service stays in the table after it is gone.
    static constexpr std::chrono::seconds goneTime{5};

    /// `unit` begins the first line.
    explicit LiveTable(std::string unit);

    /// Replaces the services by those that exist now.
    void update(const std::vector<Nubo::ServiceDiscovery::ServiceStatus>& services, Clock::time_point now);

    /// Scrolls; other keys change nothing.
    void scroll(Key key);

    /// Summary, headings, the services that fit, and `note` in the last line.
    std::vector<Line> page(std::size_t width, std::size_t height, const std::string& note);

    /// Summary, headings and all services.
    std::vector<Line> all(std::size_t width) const;

private:
    /// Sort key: name, instance, identifier.
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
    std::size_t m_first = 0;     // first row of the page
    std::size_t m_pageSize = 0;  // rows that fit
};

}  // namespace NuboSd
