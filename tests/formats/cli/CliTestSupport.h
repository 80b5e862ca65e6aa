#pragma once
// Helpers shared by the CLI tests: byte building, temporary files, slices, write and read.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "contracts/M2DSliceStack.h"
#include "contracts/StringConversion.h"
#include "formats/cli/M2DSliceIO_cli.h"

namespace clitest {

using Points = std::vector<std::pair<int, int>>;

// Little-endian byte string, for expected records and hand-made files.
struct Bytes
{
    std::string s;
    Bytes& u16(unsigned v)
    {
        s += static_cast<char>(v & 0xff);
        s += static_cast<char>((v >> 8) & 0xff);
        return *this;
    }
    Bytes& u32(std::uint32_t v) { return u16(v & 0xffff).u16(v >> 16); }
    Bytes& f32(float f)
    {
        std::uint32_t bits;
        std::memcpy(&bits, &f, 4);
        return u32(bits);
    }
    Bytes& text(const std::string& t)
    {
        s += t;
        return *this;
    }
};

// A path of the running test's own, so that tests run in parallel never share a file.
inline std::string TempPath(const std::string& name)
{
    return ::testing::TempDir() + "cli_" + ::testing::UnitTest::GetInstance()->current_test_info()->name() + "_" + name;
}

inline std::wstring Wide(const std::string& path) { return StringConversion::Utf8ToNative(path); }

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void WriteFile(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

inline void AddContour(M2DSlice& slice, const Points& points, bool closed, bool outer)
{
    M2DSliceContour* c = slice.GetSliceBorderUpdate()->AddContourAtEnd();
    for (const auto& p : points)
        c->InsertAtEnd(p.first, p.second, nullptr);
    c->SetIsClosed(closed);
    c->SetIsOuterContour(outer);
}

inline void AddHatches(M2DSlice& slice, const std::vector<M2DSliceVector>& vectors)
{
    slice.GetVectorsUpdate()->AddVectorBlockAtEnd()->Vectors = vectors;
}

inline Points PointsOf(const M2DSliceContour& contour)
{
    Points out;
    for (const auto& p : contour)
        out.emplace_back(p.x, p.y);
    return out;
}

// Writes the sources layer by layer through the public operations.
inline bool WriteCli(M2DSliceIO_cli& io, const std::vector<const ISource2DSlices*>& sources, const std::string& path,
                     std::int32_t unit = 10000, std::int32_t inverseResolution = 1)
{
    M2DSliceSourceVector joined;
    joined.SetVector(sources);
    bool ok = io.OpenFile(Wide(path), I2DSliceIO::Write) && io.WriteHeader(sources, unit, inverseResolution);
    M2DSliceConstDataItems items;
    for (std::uint64_t i = 0; ok && i < joined.GetNumSlices(); ++i)
    {
        items.Clear();
        joined.GetSliceItems(items, i);
        ok = io.WriteLayer(sources, items);
    }
    return ok && io.WriteFooter(sources) && io.CloseFile();
}

// Reads all layers; headerOk tells whether the header was accepted. Stops after 100,000
// layers so that a reader that never ends fails instead of hanging.
inline std::vector<M2DSlice> ReadCli(I2DSliceIO& io, const std::string& path, bool readVectors = true,
                                     bool* headerOk = nullptr)
{
    std::vector<M2DSlice> layers;
    const bool ok = io.OpenFile(Wide(path), I2DSliceIO::Read) && io.ReadHeader(nullptr);
    if (headerOk)
        *headerOk = ok;
    M2DSlice slice;
    while (ok && layers.size() < 100000 && io.ReadLayer(slice, nullptr, readVectors))
        layers.push_back(slice);
    io.CloseFile();
    return layers;
}

} // namespace clitest
