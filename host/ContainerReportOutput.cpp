#include "host/ContainerReportOutput.h"

#include <iomanip>
#include <map>

#include "host/DisplayText.h"

namespace vx::host {
namespace {

// Enough to see what went wrong; the JSON and the logs hold every one.
constexpr size_t kFailuresShown = 10;

bool Failed(const ContainerReport& report) {
  return report.course == kCourseFailedKept || report.course == kCourseFailedBundleRecovered ||
         report.course == kCourseFailedBundleGivenUp || report.course == kCourseLeftHostile ||
         report.course == kCourseLeftUnreadable || report.course == kCourseRecoveredAfterCrashes ||
         report.course == kCourseRemovedAfterCrashes;
}

}  // namespace

nlohmann::ordered_json ContainerReportJson(const std::vector<ContainerReport>& reports) {
  nlohmann::ordered_json out = nlohmann::ordered_json::array();
  for (const ContainerReport& r : reports) {
    out.push_back({{"path", r.path},
                   {"identifier", r.identifier},
                   {"course", r.course},
                   {"reason", r.reason},
                   {"dataItems", r.dataItems},
                   {"dataFiles", r.dataFiles},
                   {"dataBytes", r.dataBytes},
                   {"seconds", r.seconds}});
  }
  return out;
}

void PrintContainerReportTable(const std::string& dataClassName,
                               const std::vector<ContainerReport>& reports, std::ostream& out) {
  if (reports.empty()) return;
  struct Sum {
    size_t items = 0;
    uint64_t dataItems = 0;
    uint64_t files = 0;
    uint64_t bytes = 0;
  };
  std::map<std::string, Sum> byCourse;
  for (const ContainerReport& r : reports) {
    Sum& sum = byCourse[r.course];
    ++sum.items;
    sum.dataItems += r.dataItems;
    sum.files += r.dataFiles;
    sum.bytes += r.dataBytes;
  }
  out << dataClassName << ": " << reports.size() << " items of the old layout\n"
      << std::left << "  " << std::setw(26) << "course" << std::setw(7) << "items"
      << "data moved\n";
  for (const auto& [course, sum] : byCourse) {
    out << "  " << std::setw(26) << course << std::setw(7) << sum.items
        << (sum.files       ? std::to_string(sum.files) + " files, " + ByteCount(sum.bytes)
            : sum.dataItems ? std::to_string(sum.dataItems) + " items"
                            : "-")
        << "\n";
  }
  out << std::right;
  size_t shown = 0, failed = 0;
  for (const ContainerReport& r : reports) {
    if (!Failed(r)) continue;
    if (++failed > kFailuresShown) continue;
    ++shown;
    const std::string reason = WithoutPluginPrefix(r.reason);
    out << "  " << r.course << ": " << EscapedText(LastPathComponent(r.path))
        << (r.identifier.empty() ? "" : " (" + EscapedText(r.identifier) + ")")
        << (reason.empty() ? "" : ": " + EscapedText(reason)) << "\n";
  }
  if (failed > shown) out << "  ... and " << failed - shown << " more (see --json)\n";
}

}  // namespace vx::host
