#include "terminal/ServiceReport.h"

#include "terminal/LiveTable.h"
#include "terminal/Screen.h"
#include "unit/DiscoveryGroup.h"
#include "unit/LogOutput.h"

#include <chrono>
#include <csignal>
#include <iostream>
#include <string>

namespace NuboSd {

namespace {

using Clock = LiveTable::Clock;

// Interval between updates: without events, and under many of them.
constexpr std::chrono::milliseconds longestRest{1000};
constexpr std::chrono::milliseconds shortestRest{250};

constexpr auto help = "q quits; arrows, PgUp, PgDn, Home and End scroll";

void show(LiveTable& table, Screen& screen, const LogKeeper& log)
{
    const std::string newest = log.newest();
    screen.draw(table.page(screen.width(), screen.height(), newest.empty() ? help : newest));
}

/// Keeps the table up to date until the run ends.
void keepShowing(LiveTable& table, Screen& screen, const LogKeeper& log, Unit& unit)
{
    Clock::time_point updated;
    bool isNews = true;
    for (;;) {
        isNews = !unit.takeEvents().empty() || isNews;
        const Clock::time_point due = updated + (isNews ? shortestRest : longestRest);
        if (Clock::now() >= due) {
            updated = Clock::now();
            isNews = false;
            table.update(unit.discovery().getServices(), updated);
            show(table, screen, log);
            continue;
        }
        if (!unit.wait(due, screen.descriptors()))
            return;
        const std::vector<Key> keys = screen.takeKeys();
        for (const Key key : keys) {
            if (key == Key::Quit)
                return;
            table.scroll(key);
        }
        if (!keys.empty())
            show(table, screen, log);
    }
}

}  // namespace

ServiceReport::ServiceReport(const ReportOptions& options, bool json)
    : m_printer(std::cout, json, options.withTime)
{
    if (!json && !options.noLive && Screen::isPossible())
        m_screenSignals.emplace(std::initializer_list<int>{SIGWINCH, SIGTSTP});
}

void ServiceReport::print(const ServiceEvent& event)
{
    if (!m_screenSignals)
        m_printer.print(event);
}

void ServiceReport::run(Unit& unit)
{
    if (m_screenSignals)
        runLive(unit);
    else
        unit.run(std::nullopt, [&](const ServiceEvent& event) { return m_printer.print(event); });
}

/// Prints the final table below the command, in place of the lines.
void ServiceReport::runLive(Unit& unit)
{
    LiveTable table("unit " + unit.address().toString() + ", port " + std::to_string(discoveryPort));
    std::size_t width = 0;
    {
        const LogKeeper log;
        Screen screen(*m_screenSignals);
        keepShowing(table, screen, log, unit);
        width = screen.width();
    }
    for (const Line& line : table.all(width))
        std::cout << line.text << '\n';
    std::cout << std::flush;
}

}  // namespace NuboSd
