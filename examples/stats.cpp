#include "stats.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <sstream>

namespace arm {

namespace {

constexpr int kNameWidth = 24;
constexpr int kValueWidth = 10;

void countRow(std::ostream& table, const char* name, std::size_t count) {
  table << std::left << std::setw(kNameWidth) << name << std::right << std::setw(kValueWidth)
        << count << '\n';
}

void sampleRow(std::ostream& table, const char* name, const Samples& samples) {
  table << std::left << std::setw(kNameWidth) << name << std::right;
  for (const double share : {0.5, 0.99, 1.0}) {
    table << std::setw(kValueWidth);
    if (samples.empty()) {
      table << "-";
    } else {
      table << samples.percentile(share);
    }
  }
  table << '\n';
}

}  // namespace

double Samples::percentile(double share) const {
  if (values_.empty()) return 0.0;
  std::vector<double> sorted = values_;
  std::sort(sorted.begin(), sorted.end());
  const double rank = std::ceil(share * static_cast<double>(sorted.size()));
  return sorted[static_cast<std::size_t>(std::max(rank, 1.0)) - 1];
}

std::string formatLine(const BroadcastCount& count) {
  std::ostringstream line;
  line << "broadcasts: first " << count.first << ", last " << count.last << ", received "
       << count.received << ", missing " << count.missing;
  return line.str();
}

std::string formatTable(const Report& report) {
  std::ostringstream table;
  table << std::fixed << std::setprecision(2);
  countRow(table, "requests", report.requests);
  countRow(table, "replies", report.replies);
  countRow(table, "wrong replies", report.wrongReplies);
  countRow(table, "broadcasts received", report.broadcasts.received);
  countRow(table, "broadcasts missing", report.broadcasts.missing);
  table << std::setw(kNameWidth) << "" << std::right << std::setw(kValueWidth) << "median"
        << std::setw(kValueWidth) << "99 %" << std::setw(kValueWidth) << "max" << '\n';
  sampleRow(table, "broadcast period, ms", report.periodMs);
  sampleRow(table, "request latency, ms", report.latencyMs);
  return table.str();
}

}  // namespace arm
