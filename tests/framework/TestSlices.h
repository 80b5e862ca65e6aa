#pragma once
// Helpers that build slices and stacks for tests, compare slices, and give each test a
// scratch directory of its own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "contracts/M2DSlice.h"
#include "contracts/M2DSliceStack.h"
#include "formats/cli/M2DSliceIO_cli.h"

namespace TestSlices {

// Adds a contour through the points in the given order, labelled with a part id.
inline M2DSliceContour* AddContour(M2DSlice& slice, const std::vector<M2DSlicePoint>& points, bool closed,
                                   std::int32_t id)
{
    M2DSliceContour* contour = slice.GetSliceBorderUpdate()->AddContourAtEnd();
    for (const M2DSlicePoint& p : points)
        contour->InsertAtEnd(p.x, p.y, nullptr);
    contour->SetIsClosed(closed);
    contour->SetIsOuterContour(closed);
    M2DSliceVectorTypeInfo info(e2DSliceVectorType_Border);
    info.SetIndex(e2DSliceVectorTypeIndex_Part, id);
    contour->SetTypeInfo(info);
    return contour;
}

// The corners of an axis-parallel square, in the sense of an outer contour: the sum of
// (y1 + y2) * (x2 - x1) over its sides is positive.
inline std::vector<M2DSlicePoint> OuterSquare(int x, int y, int size)
{
    return {{x, y}, {x, y + size}, {x + size, y + size}, {x + size, y}};
}

// Adds a block of hatch vectors labelled with a part id.
inline M2DSliceVectorBlock* AddHatches(M2DSlice& slice, const std::vector<M2DSliceVector>& vectors,
                                       std::int32_t id)
{
    M2DSliceVectorBlock* block = slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
    block->Vectors = vectors;
    M2DSliceVectorTypeInfo info(e2DSliceVectorType_Hatch);
    info.SetIndex(e2DSliceVectorTypeIndex_Part, id);
    block->SetTypeInfo(info);
    return block;
}

// A layer at height z: an outer square of the given size at (x, y) and `hatches`
// horizontal hatch lines across it, every coordinate a multiple of `step`.
inline M2DSlice MakeSquareSlice(std::int32_t z, int x, int y, int size, int hatches = 2, std::int32_t id = 0,
                                int step = 100)
{
    M2DSlice slice;
    slice.SetZ(z);
    AddContour(slice, OuterSquare(x, y, size), true, id);
    std::vector<M2DSliceVector> vectors;
    for (int i = 1; i <= hatches; ++i)
    {
        const int hy = y + (size / (hatches + 1) / step) * step * i;
        vectors.emplace_back(x, hy, x + size, hy);
    }
    if (!vectors.empty())
        AddHatches(slice, vectors, id);
    return slice;
}

// A stack of square layers, one per height; the square grows by `grow` per layer so that
// the layers differ.
inline std::unique_ptr<M2DSliceStack> MakeStack(const std::vector<std::int32_t>& heights, int x = 10000,
                                                int y = 20000, int size = 50000, int grow = 1000, int hatches = 2)
{
    auto stack = std::make_unique<M2DSliceStack>();
    for (std::size_t i = 0; i < heights.size(); ++i)
    {
        M2DSlice slice = MakeSquareSlice(heights[i], x, y, size + grow * static_cast<int>(i), hatches);
        stack->AddSlice(slice, true);
    }
    return stack;
}

inline std::vector<M2DSlicePoint> ContourPoints(const M2DSliceContour& contour)
{
    std::vector<M2DSlicePoint> points;
    for (const auto& p : contour)
        points.emplace_back(p.x, p.y);
    return points;
}

// Height, every contour (points, closed and outer flags, part id) and every vector block
// (vectors, base kind, part id) must agree.
inline void ExpectSameSlice(const M2DSlice& expected, const M2DSlice& actual, const std::string& where = "")
{
    SCOPED_TRACE(where);
    EXPECT_EQ(expected.GetZ(), actual.GetZ());
    const M2DSliceContourLayer& eb = *expected.GetSliceBorder();
    const M2DSliceContourLayer& ab = *actual.GetSliceBorder();
    ASSERT_EQ(eb.GetNumContours(), ab.GetNumContours());
    for (std::size_t i = 0; i < eb.GetNumContours(); ++i)
    {
        const M2DSliceContour& ec = *eb.GetContour(i);
        const M2DSliceContour& ac = *ab.GetContour(i);
        EXPECT_EQ(ContourPoints(ec), ContourPoints(ac)) << "contour " << i;
        EXPECT_EQ(ec.GetIsClosed(), ac.GetIsClosed()) << "contour " << i;
        EXPECT_EQ(ec.GetIsOuterContour(), ac.GetIsOuterContour()) << "contour " << i;
        EXPECT_EQ(ec.GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Part),
                  ac.GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Part));
    }
    const M2DSliceVectorLayer& ev = *expected.GetVectors();
    const M2DSliceVectorLayer& av = *actual.GetVectors();
    ASSERT_EQ(ev.GetNumVectorBlocks(), av.GetNumVectorBlocks());
    for (std::size_t i = 0; i < ev.GetNumVectorBlocks(); ++i)
    {
        EXPECT_EQ(ev.GetVectorBlock(i)->Vectors, av.GetVectorBlock(i)->Vectors) << "block " << i;
        EXPECT_EQ(ev.GetVectorBlock(i)->GetTypeInfo().GetType(), av.GetVectorBlock(i)->GetTypeInfo().GetType());
        EXPECT_EQ(ev.GetVectorBlock(i)->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Part),
                  av.GetVectorBlock(i)->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Part));
    }
}

inline std::wstring Wide(const std::string& text)
{
    return std::wstring(text.begin(), text.end());
}

inline std::string ReadFileBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteFileBytes(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

// A fresh directory under the system's temporary directory, removed with its content.
class ScratchDir
{
public:
    ScratchDir()
    {
        static std::atomic<int> counter{0};
        std::ostringstream name;
        name << "sliceio-test-" << ::getpid() << "-" << counter++;
        _path = std::filesystem::temp_directory_path() / name.str();
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

private:
    std::filesystem::path _path;
};

// A binary CLI format that records what the drivers do to it: the layer count each header
// is written with, the keys of the per-container headers, and the seeks of a reader.
class RecordingCli : public M2DSliceIO_cli
{
public:
    bool IsAppendModeSupported() const override { return AppendMode; }
    bool IsFileOpen() const { return _file.IS_OPEN(); }

    bool AppendMode = true;
    bool FailFooter = false;
    std::vector<std::uint64_t> HeaderLayerCounts;
    std::vector<std::uint64_t> ContainerKeys;
    std::vector<std::int64_t> Seeks;

protected:
    bool _WriteHeader(const std::vector<const ISource2DSlices*>& sources) override
    {
        HeaderLayerCounts.push_back(_GetNumLayers());
        return M2DSliceIO_cli::_WriteHeader(sources);
    }
    bool _WriteHeaderPerSliceContainer(std::uint64_t key) override
    {
        ContainerKeys.push_back(key);
        return true;
    }
    bool _SeekFilePos(std::int64_t position) override
    {
        Seeks.push_back(position);
        return M2DSliceIO_cli::_SeekFilePos(position);
    }
    bool _ReadFooter(ITarget2DSlices* target) override
    {
        return !FailFooter && M2DSliceIO_cli::_ReadFooter(target);
    }
};

} // namespace TestSlices
