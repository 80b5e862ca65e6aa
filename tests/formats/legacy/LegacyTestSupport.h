#pragma once
// What the tests of SLC, SLI, SSL and F&S share: writing a stack through the public
// operations of a format object and reading every layer back.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "contracts/M2DSliceStack.h"
#include "framework/I2DSliceIO.h"
#include "framework/M2DSliceIOFactory.h"
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

// Reads and scans every layer of a file side by side: the scan, which may measure runs of
// vectors from their extreme values or across the blocks it counts, must come to the height,
// contour count and box of what the read builds.
inline void ExpectScanMeasuresTheRead(short code, const std::string& path)
{
    const std::shared_ptr<I2DSliceIO> reader = M2DSliceIOFactory::GetSliceIO(code);
    const std::shared_ptr<I2DSliceIO> scanner = M2DSliceIOFactory::GetSliceIO(code);
    ASSERT_TRUE(reader && scanner);
    I2DSliceIO::ReadOptions options;
    options.VectorBlocks.MergeBlocks = false;
    reader->SetReadOptions(options);
    ASSERT_TRUE(reader->OpenFile(ts::Wide(path), I2DSliceIO::Read) && reader->ReadHeader(nullptr));
    ASSERT_TRUE(scanner->OpenFile(ts::Wide(path), I2DSliceIO::Read) && scanner->ReadHeader(nullptr));
    M2DSlice slice;
    M2DSliceContainerScanInfo info;
    std::size_t layers = 0, vectors = 0;
    while (reader->ReadLayer(slice, nullptr, true))
    {
        SCOPED_TRACE("layer " + std::to_string(layers));
        ASSERT_TRUE(scanner->ScanLayer(info, nullptr, true));
        EXPECT_EQ(info.Z, slice.GetZ());
        EXPECT_EQ(info.NumContours, slice.GetSliceBorder()->GetNumContours());
        EXPECT_EQ(info.Area, slice.GetXYArea(false));
        vectors += slice.GetVectors()->GetTotalNumVectors();
        ++layers;
    }
    EXPECT_FALSE(scanner->ScanLayer(info, nullptr, true));
    EXPECT_EQ(reader->GetFailureReason(), "");
    EXPECT_GT(layers, 0u);
    EXPECT_GT(vectors, 0u);
    reader->CloseFile();
    scanner->CloseFile();
}

// The sample files written by other software, beside the checkout.
inline std::string SamplesDir() { return SLICEIO_SAMPLES_DIR; }

} // namespace legacy_test
