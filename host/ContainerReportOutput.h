// The per-container report of a run as the host shows it: a short table for a person (one
// line per course, then the items that did not migrate) and JSON for a machine.
#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "host/MigrationReport.h"

namespace vx::host {

nlohmann::ordered_json ContainerReportJson(const std::vector<ContainerReport>& reports);

void PrintContainerReportTable(const std::string& dataClassName,
                               const std::vector<ContainerReport>& reports, std::ostream& out);

}  // namespace vx::host
