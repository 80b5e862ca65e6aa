#pragma once
// One registration gives a format its bench rows: "<Name>/Write" (the shared generator's build
// written through M2DSliceContainerIO), "<Name>/Read" (every layer read with its vectors) and
// "<Name>/Scan" (every layer measured), in MB/s of file and vectors/s, next to CLI's rows of
// the same run. A write-only format gets the write row only.
//
//     static const bool registered = RegisterFormatBench({"SLM", 47});
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "framework/I2DSliceIO.h"

struct FormatBenchSpec
{
    FormatBenchSpec() = default;
    FormatBenchSpec(std::string name, short code) : Name(std::move(name)), Code(code) {}

    std::string Name; // the table's format column
    short Code = 0;   // through the factory, unless Make is given
    std::int32_t UnitConversion = 10000;
    std::int32_t InverseResolution = 1000; // steps per unit of the written file
    bool Reads = true;
    bool Scans = true;
    // Makes the format object, and prepares a writer (settings a format needs).
    std::function<std::shared_ptr<I2DSliceIO>()> Make;
    std::function<void(I2DSliceIO&)> PrepareWriter;
};

bool RegisterFormatBench(const FormatBenchSpec& spec);
