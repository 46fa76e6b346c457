#pragma once

#include "terminal/EventPrinter.h"
#include "unit/Signals.h"
#include "unit/Unit.h"

#include <optional>

namespace NuboSd {

struct ReportOptions
{
    bool withTime = false;
    bool noLive = false;
};

/// Reports services: as a live table if standard output is a terminal, else with one line per event.
/// Construct it before the unit, so that the unit's threads block the signals of the terminal.
class ServiceReport
{
public:
    ServiceReport(const ReportOptions& options, bool json);

    /// Reports an event that happened before run().
    void print(const ServiceEvent& event);

    /// Reports until the run ends or the reader is gone.
    void run(Unit& unit);

private:
    void runLive(Unit& unit);

    EventPrinter m_printer;
    std::optional<Signals> m_screenSignals;  // none: print lines
};

}  // namespace NuboSd
