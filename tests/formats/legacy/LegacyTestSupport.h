#pragma once
// What the tests of SLC, SLI, SSL and F&S share: writing a stack through the public
// operations of a format object and reading every layer back.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "contracts/M2DSliceStack.h"
#include "framework/I2DSliceIO.h"
#include "tests/TestSupport.h"

namespace legacy_test {

inline bool Write(I2DSliceIO& io, const std::vector<const ISource2DSlices*>& sources, const std::string& path,
                  std::int32_t unit, std::int32_t resolution)
{
    return ts::WriteCli(io, sources, path, unit, resolution);
}

inline std::vector<M2DSlice> Read(I2DSliceIO& io, const std::string& path, bool* headerOk = nullptr)
{
    return ts::ReadCli(io, path, true, headerOk);
}

// A stack with one slice per height, each made by make(z).
template <class Make>
std::unique_ptr<M2DSliceStack> StackOf(const std::vector<std::int32_t>& heights, Make make)
{
    auto stack = std::make_unique<M2DSliceStack>();
    for (std::int32_t z : heights)
    {
        M2DSlice slice = make(z);
        slice.SetZ(z);
        stack->AddSlice(slice, true);
    }
    return stack;
}

// The sample files written by other software, beside the checkout.
inline std::string SamplesDir() { return SLICEIO_SAMPLES_DIR; }

} // namespace legacy_test
