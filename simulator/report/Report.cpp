#include "simulator/report/Report.h"

#include <array>
#include <cstdio>
#include <ostream>

namespace Simulator {

namespace {

std::string decimal(double value, int digits) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%.*f", digits, value);
  return text.data();
}

std::string share(std::optional<double> percent, const char* none) {
  return percent ? decimal(*percent, 2) : none;
}

// Right-aligned under the headings.
void writeLine(std::ostream& text, const std::vector<std::string>& cells) {
  const auto& headings = Report::columns();
  std::string line;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const std::size_t width = std::max<std::size_t>(headings[i].size(), 9);
    if (i > 0) line += "  ";
    if (cells[i].size() < width) line.append(width - cells[i].size(), ' ');
    line += cells[i];
  }
  text << line << std::endl;
}

std::string joined(const std::vector<std::string>& cells) {
  std::string line;
  for (const auto& cell : cells) line += (line.empty() ? "" : ",") + cell;
  return line;
}

ReportRow between(const ReportRow& later, const ReportRow& earlier) {
  ReportRow row = later;
  row.packets.hardware -= earlier.packets.hardware;
  row.packets.sfe -= earlier.packets.sfe;
  row.packets.unroutable -= earlier.packets.unroutable;
  row.hardware.admissions -= earlier.hardware.admissions;
  row.hardware.evictions -= earlier.hardware.evictions;
  row.hardware.readmissions -= earlier.hardware.readmissions;
  return row;
}

// Names of ours and of no character that JSON would want escaped.
std::string jsonYardstick(const YardstickRow& row) {
  const auto& figures = row.figures;
  return "{\"name\": \"" + row.name + "\", \"packets\": " + std::to_string(figures.packets) +
         ", \"hwShare\": " + (figures.packets == 0 ? "null" : decimal(100 * figures.hitShare(), 2)) +
         ", \"admissions\": " + std::to_string(figures.admissions) +
         ", \"evictions\": " + std::to_string(figures.evictions) +
         ", \"readmissions\": " + std::to_string(figures.readmissions) + "}";
}

}  // namespace

std::optional<double> ReportRow::hwShare() const {
  if (packets.all() == 0) return std::nullopt;
  return 100 * static_cast<double>(packets.hardware) / static_cast<double>(packets.all());
}

const std::vector<std::string>& Report::columns() {
  static const std::vector<std::string> names{"time",       "packets",   "hwShare",      "hwRoutes",   "utilisation",
                                              "admissions", "evictions", "readmissions", "unroutable", "sfeHitRoutes"};
  return names;
}

Report::Report(const ForwardingPlane& plane, double interval, std::ostream& text, std::ostream* rows, RowFormat format)
    : plane_(plane), interval_(interval), text_(text), rows_(rows), format_(format) {
  writeLine(text_, columns());
  if (format_ == RowFormat::csv) *rows_ << joined(columns()) << std::endl;
  if (format_ == RowFormat::json) *rows_ << "{\"intervals\": [";
}

ReportRow Report::now() const {
  return {plane_.time(), plane_.packets(), plane_.hardware().counters(), plane_.hardware().programmedRoutes(),
          plane_.sfe().hitRoutes()};
}

void Report::handleTick() {
  // Ticks and intervals are added up in different ways: half a tick is nearer than any error of that.
  if (plane_.time() + plane_.tick() / 2 >= last_.time + interval_) writeRow();
}

void Report::writeRow() {
  const ReportRow current = now();
  const ReportRow row = between(current, last_);
  last_ = current;
  writeLine(text_, cells(row, "-"));
  if (format_ == RowFormat::csv) *rows_ << joined(cells(row, "")) << std::endl;
  if (format_ == RowFormat::json) *rows_ << (written_ == 0 ? "\n  " : ",\n  ") << jsonObject(row) << std::flush;
  ++written_;
}

std::vector<std::string> Report::cells(const ReportRow& row, const char* noShare) const {
  const double utilisation =
      100 * static_cast<double>(row.hwRoutes) / static_cast<double>(plane_.hardware().capacity());
  return {decimal(row.time, 1),
          std::to_string(row.packets.all()),
          share(row.hwShare(), noShare),
          std::to_string(row.hwRoutes),
          decimal(utilisation, 1),
          std::to_string(row.hardware.admissions),
          std::to_string(row.hardware.evictions),
          std::to_string(row.hardware.readmissions),
          std::to_string(row.packets.unroutable),
          std::to_string(row.sfeHitRoutes)};
}

std::string Report::jsonObject(const ReportRow& row) const {
  const auto values = cells(row, "null");
  std::string object;
  for (std::size_t i = 0; i < values.size(); ++i) {
    object += (object.empty() ? "{\"" : ", \"") + columns()[i] + "\": " + values[i];
  }
  return object + "}";
}

void Report::writeJsonEnd(const ReportRow& total, const std::vector<YardstickRow>& yardsticks) {
  *rows_ << "\n],\n\"total\": " << jsonObject(total) << ",\n\"yardsticks\": [";
  for (std::size_t i = 0; i < yardsticks.size(); ++i) {
    *rows_ << (i == 0 ? "\n  " : ",\n  ") << jsonYardstick(yardsticks[i]);
  }
  *rows_ << "]}" << std::endl;
}

void Report::finish(const std::vector<YardstickRow>& yardsticks) {
  if (plane_.time() - last_.time > plane_.tick() / 2) writeRow();
  const ReportRow& total = last_;  // what happened since belongs to no interval
  text_ << "total" << std::endl;
  writeLine(text_, cells(total, "-"));
  if (!yardsticks.empty())
    text_ << "the same traffic, judged by caches of " << plane_.hardware().capacity() << " routes\n";
  for (const auto& [name, figures] : yardsticks) {
    const auto percent = figures.packets == 0 ? std::nullopt : std::optional(100 * figures.hitShare());
    text_ << "  " << name << ": hwShare " << share(percent, "-") << ", admissions " << figures.admissions
          << ", evictions " << figures.evictions << ", readmissions " << figures.readmissions << std::endl;
  }
  if (format_ == RowFormat::json) writeJsonEnd(total, yardsticks);
}

}  // namespace Simulator
