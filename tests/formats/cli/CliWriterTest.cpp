// The binary CLI writer: header, records, label cutting, header patch, size estimate.
#include <cstdio>
#include <ctime>

#include "tests/TestSupport.h"

using namespace ts;

namespace {

std::string Today()
{
    const std::time_t now = std::time(nullptr);
    const std::tm* t = std::localtime(&now);
    char text[40];
    std::snprintf(text, sizeof text, "%02d%02d%02d", t->tm_mday, t->tm_mon + 1, t->tm_year % 100);
    return text;
}

struct LabelledCli : M2DSliceIO_cli
{
    LabelledCli(int firstLabel, bool hatched)
    {
        _modelStartIndex = firstLabel;
        _hatched = hatched;
    }
};

// One slice per height, made by `fill`.
template <typename Fill>
std::unique_ptr<M2DSliceStack> Stack(std::initializer_list<int> heights, Fill fill)
{
    auto stack = std::make_unique<M2DSliceStack>();
    for (int z : heights)
    {
        M2DSlice slice;
        slice.SetZ(z);
        fill(slice, z);
        stack->AddSlice(slice, false);
    }
    return stack;
}

} // namespace

TEST(M2DSliceIO_cliWriter, HeaderPlaceholdersThenPatchAtCloseByteExact)
{
    ScratchDir dir;
    // Square P0..P3 of 10 mm side, outer sense in memory.
    auto stack = Stack({5000}, [](M2DSlice& s, int) { AddContour(s, Square(0, 0, 100000)); });
    const std::string path = dir.File("header.cli");
    M2DSliceIO_cli io;
    ASSERT_TRUE(io.OpenFile(Wide(path), I2DSliceIO::Write));
    ASSERT_TRUE(io.WriteHeader({stack.get()}, 10000, 1));
    ASSERT_TRUE(io.FlushFile());
    const std::string zero = "0.000000000000000", ten = "10.00000000000000", half = "0.500000000000000";
    const std::string head =
        "$$HEADERSTART\n$$BINARY\n$$UNITS/1.000000000000000\n$$VERSION/200\n$$LABEL/0,part1\n$$DATE/" + Today();
    auto dimension = [](const std::vector<std::string>& v) {
        return "\n$$DIMENSION/" + v[0] + "," + v[1] + "," + v[2] + "," + v[3] + "," + v[4] + "," + v[5];
    };
    EXPECT_EQ(ReadFile(path), head + dimension({zero, zero, zero, zero, zero, zero}) + "\n$$LAYERS/000000\n$$HEADEREND");
    EXPECT_EQ(ReadFile(path).size(), 240u);

    M2DSliceConstDataItems items;
    stack->GetSliceItems(items, 0);
    ASSERT_TRUE(io.WriteLayer({stack.get()}, items));
    ASSERT_TRUE(io.WriteFooter({stack.get()}));
    ASSERT_TRUE(io.CloseFile());
    // Reverse order from the last point, which closes the polyline again: P3 P2 P1 P0 P3.
    const Bytes layer = Bytes()
                            .u16(127).f32(0.5f)
                            .u16(130).u32(0).u32(1).u32(5)
                            .f32(10).f32(0).f32(10).f32(10).f32(0).f32(10).f32(0).f32(0).f32(10).f32(0);
    EXPECT_EQ(ReadFile(path),
              head + dimension({zero, zero, half, ten, ten, half}) + "\n$$LAYERS/000001\n$$HEADEREND" + layer.s);
}

TEST(M2DSliceIO_cliWriter, LabelLinesAreCutAtTwentyBytes)
{
    ScratchDir dir;
    M2DSliceStack a, b;
    const std::string path = dir.File("labels.cli");
    // The text between "$$VERSION/200\n" and "$$DATE/".
    auto labels = [&](M2DSliceIO_cli& io, const std::vector<const ISource2DSlices*>& sources) {
        EXPECT_TRUE(io.OpenFile(Wide(path), I2DSliceIO::Write) && io.WriteHeader(sources, 10000, 1) && io.CloseFile());
        const std::string file = ReadFile(path);
        const std::size_t from = file.find("$$VERSION/200\n") + 14;
        return file.substr(from, file.find("$$DATE/") - from);
    };
    M2DSliceIO_cli plain;
    EXPECT_EQ(labels(plain, {}), "$$LABEL/0,part1\n"); // append mode: no sources
    EXPECT_EQ(labels(plain, {&a, &b}), "$$LABEL/0,part1\n$$LABEL/1,part2\n");
    LabelledCli late(99, false);
    EXPECT_EQ(labels(late, {&a, &b}), "$$LABEL/99,part100\n$$LABEL/100,part101");
    LabelledCli hatched(0, true);
    EXPECT_EQ(labels(hatched, {&a}), "$$LABEL/1,Hatchings$$LABEL/2,DownSkinF$$LABEL/3,UpSkinFil");

    plain.SetHatched(true);
    EXPECT_FALSE(plain.GetHatched());
}

TEST(M2DSliceIO_cliWriter, ShortFormSplitsHatchRecordsAndWrapsCoordinates)
{
    ScratchDir dir;
    // Inverse resolution 1000: one step is 10 internal units.
    std::vector<M2DSliceVector> hatches;
    hatches.emplace_back(-20, -5, 15, 14); // -1.5, 0, 2, 1.9 steps before truncation
    for (int k = 1; k < 70000; ++k)
        hatches.emplace_back(10 * (k % 60000), 0, 10, 20);
    auto stack = Stack({5000}, [&](M2DSlice& s, int) { AddHatches(s, hatches); });
    M2DSliceIO_cli io;
    io.SetCoordinatesType(M2DSliceIO_cli::Short);
    const std::string path = dir.File("short.cli");
    ASSERT_TRUE(WriteCli(io, {stack.get()}, path, 10000, 1000));

    const std::string file = ReadFile(path);
    const std::size_t h = file.find("$$HEADEREND") + 11, second = h + 4 + 6 + 65535 * 8;
    ASSERT_EQ(file.size(), second + 6 + 4465 * 8);
    EXPECT_EQ(file.substr(h, 18), Bytes().u16(128).u16(500).u16(131).u16(0).u16(65535).u16(65535).u16(0).u16(2).u16(1).s);
    EXPECT_EQ(file.substr(second - 8, 22), Bytes()
                                               .u16(5534).u16(0).u16(1).u16(2) // vector 65534
                                               .u16(131).u16(0).u16(4465)
                                               .u16(5535).u16(0).u16(1).u16(2) // vector 65535
                                               .s);

    // The two records come back as one block, the reader merging equal labels.
    const std::vector<M2DSlice> layers = ReadCli(io, path);
    ASSERT_EQ(layers.size(), 1u);
    ASSERT_EQ(layers[0].GetVectors()->GetNumVectorBlocks(), 1u);
    const auto& read = layers[0].GetVectors()->GetFirstVectorBlock()->Vectors;
    ASSERT_EQ(read.size(), 70000u);
    EXPECT_EQ(read[0], M2DSliceVector(655350, 0, 20, 10));
    EXPECT_EQ(read[69999], M2DSliceVector(99990, 0, 10, 20));
}

TEST(M2DSliceIO_cliWriter, SourceDecidesOrderAndIdsFollowSlices)
{
    ScratchDir dir;
    auto fill = [](M2DSlice& s, int) {
        AddContour(s, {{0, 0}, {10000, 0}}, false);
        AddHatches(s, {M2DSliceVector(0, 0, 10000, 20000)});
    };
    auto first = Stack({10000}, fill), second = Stack({10000}, fill);
    second->GetIOParametersUpdate().BordersFirst = false;
    M2DSliceIO_cli io;
    const std::string path = dir.File("order.cli");
    ASSERT_TRUE(WriteCli(io, {first.get(), second.get()}, path));
    const std::string file = ReadFile(path);
    auto polyline = [](unsigned id) { return Bytes().u16(130).u32(id).u32(2).u32(2).f32(1).f32(0).f32(0).f32(0).s; };
    auto hatch = [](unsigned id) { return Bytes().u16(132).u32(id).u32(1).f32(0).f32(0).f32(1).f32(2).s; };
    EXPECT_EQ(file.substr(file.find("$$HEADEREND") + 11),
              Bytes().u16(127).f32(1).s + polyline(0) + hatch(0) + hatch(1) + polyline(1));
}

TEST(M2DSliceIO_cliWriter, EstimateDiffersFromFileOnlyByHeaderSize)
{
    ScratchDir dir;
    auto stack = Stack({1000, 2000, 3000, 4000}, [](M2DSlice& s, int z) {
        const int i = z / 1000 - 1;
        AddContour(s, Square(0, 0, 50000 + i * 1000));
        for (int k = 0; k < i; ++k)
            AddContour(s, {{1000, 1000}, {2000, 3000 + k}, {4000, 1000}}, false);
        AddHatches(s, std::vector<M2DSliceVector>(10 * i + 1, M2DSliceVector(1000, 1000, 2000, 2000)));
    });
    for (auto type : {M2DSliceIO_cli::Long, M2DSliceIO_cli::Short})
    {
        M2DSliceIO_cli io;
        io.SetCoordinatesType(type);
        I2DSliceIOFileSizeEstimate::EstimatedRange total;
        ASSERT_TRUE(io.EsimateTotalFileSize(*stack, total));
        EXPECT_EQ(std::make_pair(total.ZMin, total.ZMax), std::make_pair(1000, 4000));
        const std::string path = dir.File("estimate.cli");
        ASSERT_TRUE(WriteCli(io, {stack.get()}, path, 10000, 10));
        const std::string file = ReadFile(path);
        EXPECT_EQ(file.size() - (file.find("$$HEADEREND") + 11), total.Size - 240) << "type " << type;
    }
}
