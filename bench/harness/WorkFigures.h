// The figures of the benchmarks that measure one state machine by itself, from the reports of its process
// (bench/harness/MeasuredLoop.h), and the tables that are printed of them.
#pragma once

#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>

#include "bench/harness/Figures.h"

namespace Bench {

// Throws std::runtime_error that names what does not hold.
void require(bool holds, const char* what);

// How long the work took and held the thread. `entries` is what it is divided by.
void addWork(Figures& figures, const std::string& phase, const nlohmann::json& report, double entries);
// For each of so many routes.
void addMemory(Figures& figures, const std::string& phase, const nlohmann::json& report, double routes);

// One line for each phase; the processor seconds beside those of a rival, where there is the figure "rivalCpuSeconds".
void printWork(const Figures& figures, std::initializer_list<const char*> phases);
// `grown` is what the memory beyond that of a process that has done nothing is for.
void printMemory(const Figures& figures, const char* grown, std::initializer_list<const char*> phases);

}  // namespace Bench
