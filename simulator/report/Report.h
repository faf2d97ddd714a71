// What a run of the forwarding plane tells: a row for each interval, and totals at the end.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "simulator/forwarding/ForwardingPlane.h"
#include "simulator/report/Yardsticks.h"

namespace Simulator {

// Where rows go besides the text.
enum class RowFormat : std::uint8_t { none, csv, json };

// One interval, or the whole run.
struct ReportRow {
  double time = 0;  // its end, in seconds since the start
  PacketCounters packets;
  HardwareCounters hardware;
  std::uint32_t hwRoutes = 0;    // programmed, at the end
  std::size_t sfeHitRoutes = 0;  // with a hit-bit entry of the SFE, at the end

  // Per cent of the packets that the hardware forwarded; nothing without packets.
  std::optional<double> hwShare() const;
};

// A cache that the same traffic was shown.
struct YardstickRow {
  std::string name;
  CacheFigures figures;
};

// Text has a line for each interval under a heading, then "total" with the whole run, then yardsticks. CSV has the
// columns of `columns()`, one line per interval and nothing else. JSON is one object: "intervals" (an array of objects
// with the same names), "total", "yardsticks" (each with "name"). A share of no packets is "-", empty, or null.
class Report {
 public:
  // Row and file output go to these streams, which outlive the report; `rows` may be null for RowFormat::none. Writes
  // the headings at once. `interval` is in seconds.
  Report(const ForwardingPlane& plane, double interval, std::ostream& text, std::ostream* rows, RowFormat format);
  Report(const Report&) = delete;
  Report& operator=(const Report&) = delete;

  // To be called after each tick: writes a row when an interval is over.
  void handleTick();
  // The row of an interval that was begun, the totals, the yardsticks. Once, at the end.
  void finish(const std::vector<YardstickRow>& yardsticks);

  static const std::vector<std::string>& columns();

 private:
  ReportRow now() const;
  void writeRow();
  std::vector<std::string> cells(const ReportRow& row, const char* noShare) const;
  std::string jsonObject(const ReportRow& row) const;
  void writeJsonEnd(const ReportRow& total, const std::vector<YardstickRow>& yardsticks);

  const ForwardingPlane& plane_;
  double interval_;
  std::ostream& text_;
  std::ostream* rows_;
  RowFormat format_;
  ReportRow last_;  // counters at the end of the last interval
  std::uint64_t written_ = 0;
};

}  // namespace Simulator
