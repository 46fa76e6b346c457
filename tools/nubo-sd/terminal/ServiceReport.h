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

/// Shows the services that come and go: as a live table if standard output is a terminal, otherwise a line an
/// event. To be made before the unit, whose threads leave the terminal's signals to it.
class ServiceReport
{
public:
    ServiceReport(const ReportOptions& options, bool json);

    /// What happened before the run.
    void print(const ServiceEvent& event);

    /// Until the run is ended, or nobody reads any more.
    void run(Unit& unit);

private:
    void runLive(Unit& unit);

    EventPrinter m_printer;
    std::optional<Signals> m_screenSignals;  // none: lines
};

}  // namespace NuboSd
