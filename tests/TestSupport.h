#pragma once
// Helpers shared by the tests: scratch files, little-endian byte strings, slices and stacks
// built from squares, slice comparison, and whole-file CLI writing and reading.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "contracts/M2DSliceStack.h"
#include "formats/cli/M2DSliceIO_cli.h"

namespace ts {

using Points = std::vector<std::pair<int, int>>;

inline std::wstring Wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteFile(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

// A fresh directory of the test's own under the system's temporary directory, removed with
// its content. Tests run in parallel processes, so the name holds the process id.
class ScratchDir
{
public:
    ScratchDir()
    {
        static std::atomic<int> counter{0};
        _path = std::filesystem::temp_directory_path() /
                ("sliceio-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
        std::filesystem::remove_all(_path);
        std::filesystem::create_directories(_path);
    }
    ~ScratchDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(_path, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    std::string File(const std::string& name) const { return (_path / name).string(); }
    std::wstring WFile(const std::string& name) const { return Wide(File(name)); }
    const std::filesystem::path& Path() const { return _path; }

private:
    std::filesystem::path _path;
};

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

inline Points PointsOf(const M2DSliceContour& contour)
{
    Points out;
    for (const auto& p : contour)
        out.emplace_back(p.x, p.y);
    return out;
}

// The corners of an axis-parallel square in the sense of an outer contour: the sum of
// (y1 + y2) * (x2 - x1) over its sides is positive.
inline Points Square(int x, int y, int size) { return {{x, y}, {x, y + size}, {x + size, y + size}, {x + size, y}}; }
// The same square in the sense of a hole.
inline Points Reversed(int x, int y, int size) { return {{x, y}, {x + size, y}, {x + size, y + size}, {x, y + size}}; }

inline M2DSliceContour* AddContour(M2DSliceContourLayer& layer, const Points& points, bool closed = true)
{
    M2DSliceContour* contour = layer.AddContourAtEnd();
    for (const auto& p : points)
        contour->InsertAtEnd(p.first, p.second, nullptr);
    contour->SetIsClosed(closed);
    return contour;
}

inline int PartOf(const M2DSliceVectorTypeInfoHolder& item) { return item.GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Part); }

inline M2DSliceVectorTypeInfo Label(e2DSliceVectorType type, int part)
{
    M2DSliceVectorTypeInfo info(type);
    info.SetIndex(e2DSliceVectorTypeIndex_Part, part);
    return info;
}

// A border contour labelled with a part id; closed ones are outer unless said otherwise.
inline M2DSliceContour* AddContour(M2DSlice& slice, const Points& points, bool closed = true, int part = 0,
                                   bool outer = true)
{
    M2DSliceContour* contour = AddContour(*slice.GetSliceBorderUpdate(), points, closed);
    contour->SetIsOuterContour(closed && outer);
    contour->SetTypeInfo(Label(e2DSliceVectorType_Border, part));
    return contour;
}

inline M2DSliceVectorBlock* AddHatches(M2DSlice& slice, const std::vector<M2DSliceVector>& vectors, int part = 0)
{
    M2DSliceVectorBlock* block = slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
    block->Vectors = vectors;
    block->SetTypeInfo(Label(e2DSliceVectorType_Hatch, part));
    return block;
}

// A layer at height z: an outer square of the given size at (x, y) and `hatches`
// horizontal hatch lines across it, every coordinate a multiple of 100.
inline M2DSlice MakeSquareSlice(std::int32_t z, int x, int y, int size, int hatches = 2, int part = 0)
{
    M2DSlice slice;
    slice.SetZ(z);
    AddContour(slice, Square(x, y, size), true, part);
    std::vector<M2DSliceVector> vectors;
    for (int i = 1; i <= hatches; ++i)
    {
        const int hy = y + (size / (hatches + 1) / 100) * 100 * i;
        vectors.emplace_back(x, hy, x + size, hy);
    }
    if (!vectors.empty())
        AddHatches(slice, vectors, part);
    return slice;
}

// A stack of square layers, one per height; the square grows by `grow` per layer so that
// the layers differ.
inline std::unique_ptr<M2DSliceStack> MakeStack(const std::vector<std::int32_t>& heights, int x = 10000,
                                                int y = 20000, int size = 50000, int grow = 1000)
{
    auto stack = std::make_unique<M2DSliceStack>();
    for (std::size_t i = 0; i < heights.size(); ++i)
    {
        M2DSlice slice = MakeSquareSlice(heights[i], x, y, size + grow * static_cast<int>(i));
        stack->AddSlice(slice, true);
    }
    return stack;
}

// Height, every contour (points, closed and outer flags, part id) and every vector block
// (vectors, kind, part id) must agree.
inline void ExpectSameSlice(const M2DSlice& expected, const M2DSlice& actual, const std::string& where = "")
{
    SCOPED_TRACE(where);
    EXPECT_EQ(expected.GetZ(), actual.GetZ());
    const M2DSliceContourLayer& eb = *expected.GetSliceBorder();
    const M2DSliceContourLayer& ab = *actual.GetSliceBorder();
    ASSERT_EQ(eb.GetNumContours(), ab.GetNumContours());
    for (std::size_t i = 0; i < eb.GetNumContours(); ++i)
    {
        const M2DSliceContour& e = *eb.GetContour(i);
        const M2DSliceContour& a = *ab.GetContour(i);
        EXPECT_EQ(PointsOf(e), PointsOf(a)) << "contour " << i;
        EXPECT_EQ(std::make_tuple(e.GetIsClosed(), e.GetIsOuterContour(), PartOf(e)),
                  std::make_tuple(a.GetIsClosed(), a.GetIsOuterContour(), PartOf(a)))
            << "contour " << i << ": closed, outer, part";
    }
    const M2DSliceVectorLayer& ev = *expected.GetVectors();
    const M2DSliceVectorLayer& av = *actual.GetVectors();
    ASSERT_EQ(ev.GetNumVectorBlocks(), av.GetNumVectorBlocks());
    for (std::size_t i = 0; i < ev.GetNumVectorBlocks(); ++i)
    {
        const M2DSliceVectorBlock& e = *ev.GetVectorBlock(i);
        const M2DSliceVectorBlock& a = *av.GetVectorBlock(i);
        EXPECT_EQ(e.Vectors, a.Vectors) << "block " << i;
        EXPECT_EQ(std::make_pair(e.GetTypeInfo().GetType(), PartOf(e)), std::make_pair(a.GetTypeInfo().GetType(), PartOf(a)))
            << "block " << i << ": kind, part";
    }
}

// Writes the sources layer by layer through the public operations of a format.
inline bool WriteCli(I2DSliceIO& io, const std::vector<const ISource2DSlices*>& sources, const std::string& path,
                     std::int32_t unit = 10000, std::int32_t inverseResolution = 1)
{
    M2DSliceSourceVector joined;
    joined.SetVector(sources);
    bool ok = io.OpenFile(Wide(path), I2DSliceIO::Write) && io.WriteHeader(sources, unit, inverseResolution);
    M2DSliceConstDataItems items;
    for (std::uint64_t i = 0; ok && i < joined.GetNumSlices(); ++i)
    {
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

// A binary CLI format that records what the drivers do to it: the layer count each header
// is written with and the seeks of a reader.
class RecordingCli : public M2DSliceIO_cli
{
public:
    bool IsAppendModeSupported() const override { return AppendMode; }
    bool IsFileOpen() const { return _file.IS_OPEN(); }

    bool AppendMode = true;
    bool FailFooter = false;
    std::vector<std::uint64_t> HeaderLayerCounts;
    std::vector<std::int64_t> Seeks;

protected:
    bool _WriteHeader(const std::vector<const ISource2DSlices*>& sources) override
    {
        HeaderLayerCounts.push_back(_GetNumLayers());
        return M2DSliceIO_cli::_WriteHeader(sources);
    }
    bool _SeekFilePos(std::int64_t position) override
    {
        Seeks.push_back(position);
        return M2DSliceIO_cli::_SeekFilePos(position);
    }
    bool _ReadFooter(ITarget2DSlices* target) override { return !FailFooter && M2DSliceIO_cli::_ReadFooter(target); }
};

} // namespace ts
