// The timeline report of mme-sim: one self-contained HTML file (inline SVG,
// script and style; nothing fetched) that draws a run period by period, with
// the data behind it embedded as JSON in
// <script type="application/json" id="mme-timeline">. The JSON's schema is
// documented in tools/mme-sim/README.md ("mme-sim-timeline/1").
#pragma once

#include "Timeline.h"

#include <nlohmann/json.hpp>

#include <string>
#include <utility>
#include <vector>

namespace mmesim {

struct ReportInput {
    std::string command; // demo, loopback, play, record, formats
    std::string device;  // profile name
    Format format;       // of the streams; rate 0 when none ran
    uint32_t periodFrames = 256;
    uint32_t rate = 0;                                        // hardware rate at the end
    std::vector<std::pair<std::string, std::string>> summary; // the table on top
    SoakFigures figures;
    std::optional<uint64_t> servicedLate; // none: service drained at each period's end
    std::optional<uint64_t> latencyFrames;
    std::string result; // PASS/FAIL line or "done"
};

// The JSON document of the report.
nlohmann::json reportJson(const ReportInput& input, const Timeline& timeline);
// Writes the HTML under path + ".part" and renames it; throws FileError.
void writeReport(const std::string& path, const ReportInput& input, const Timeline& timeline);

} // namespace mmesim
