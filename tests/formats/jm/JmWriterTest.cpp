// JM job files: records worked out word by word, the record layouts where end codes meet a
// record's end, solids with holes, micrometres toward zero, and the read fragment.
#include <gtest/gtest.h>

#include <stdexcept>
#include <typeinfo>

#include "FormatTestKit.h"
#include "contracts/ByteOrder.h"
#include "formats/jm/M2DSliceIO_jm.h"
#include "framework/M2DSliceContainerIO.h"
#include "tests/TestSupport.h"

using namespace ts;

namespace {

constexpr std::size_t kRecord = 16384;

M2DSliceVectorBlock* AddBlock(M2DSlice& slice, const std::vector<M2DSliceVector>& vectors, e2DSliceVectorType type,
                              bool hole = false, int part = 0)
{
    M2DSliceVectorBlock* block = slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
    block->Vectors = vectors;
    M2DSliceVectorTypeInfo label(type);
    label.SetFlag(e2DSliceVectorTypeFlag_5, hole);
    label.SetIndex(e2DSliceVectorTypeIndex_Part, part);
    block->SetTypeInfo(label);
    return block;
}

// The sides of a polygon through the points, closed.
std::vector<M2DSliceVector> Ring(const Points& points)
{
    std::vector<M2DSliceVector> sides;
    for (std::size_t i = 0; i < points.size(); ++i)
    {
        const auto& a = points[i];
        const auto& b = points[(i + 1) % points.size()];
        sides.emplace_back(a.first, a.second, b.first, b.second);
    }
    return sides;
}

std::string WriteJm(const std::vector<M2DSlice>& layers, const std::string& path, M2DSliceIO_jm* setup = nullptr,
                    bool writeEmpty = false)
{
    M2DSliceStack stack;
    for (M2DSlice slice : layers)
        stack.AddSlice(slice, true);
    auto io = std::make_shared<M2DSliceIO_jm>();
    io->GetWriteOptions().WriteEmptyLayers = writeEmpty;
    if (setup)
    {
        io->SetThickness(50);
        io->SetPartNames({L"left", L"r\u00e9ght"});
        M2DSliceIO_jm::ManufacturingData data;
        data.Name = "melt";
        for (std::uint32_t i = 0; i < 10; ++i)
            data.Values[i] = 100 + i;
        io->SetManufacturingData({data});
    }
    std::shared_ptr<I2DSliceIO> base = io;
    M2DSliceContainerIO driver(base);
    EXPECT_TRUE(driver.WriteContainer(stack, Wide(path), 10000, 1, nullptr)) << base->GetFailureReason();
    return ReadFile(path);
}

std::int32_t WordAt(const std::string& file, std::size_t offset)
{
    return ByteOrder::LoadLE<std::int32_t>(file.data() + offset);
}

// Walks every record as the machine would and checks the frame: "AM", a count of blocks and
// end codes that matches the codes met, length words that lead to end codes, and zeros after
// the record's end code. Returns the records' word lists (after the two head words).
std::vector<std::vector<std::int32_t>> Records(const std::string& file)
{
    std::vector<std::vector<std::int32_t>> records;
    EXPECT_EQ(file.size() % kRecord, 0u);
    bool carried = false; // a block goes on from the record before
    for (std::size_t start = kRecord; start + kRecord <= file.size(); start += kRecord)
    {
        SCOPED_TRACE("record at " + std::to_string(start));
        EXPECT_EQ(file.substr(start, 4), std::string("AM\0\0", 4));
        std::vector<std::int32_t> words;
        std::size_t at = start + 8;
        std::uint32_t ended = 0;
        for (;;)
        {
            // A block: its length word leads to its end code, or to the record's.
            if (at + 4 > start + kRecord)
            {
                ADD_FAILURE() << "no record end code";
                return records;
            }
            const std::int32_t first = WordAt(file, at);
            const bool blockStart =
                carried || (at + 8 <= start + kRecord && WordAt(file, at + 4) == M2DSliceIO_jm::StartOfBlock && first > 0);
            if (blockStart)
            {
                const std::size_t end = at + 4 * static_cast<std::size_t>(first);
                EXPECT_LT(end, start + kRecord);
                const std::int32_t code = WordAt(file, end);
                EXPECT_TRUE(code == M2DSliceIO_jm::EndOfBlock || code == M2DSliceIO_jm::EndOfRecord) << code;
                for (std::size_t w = at; w <= end; w += 4)
                    words.push_back(WordAt(file, w));
                at = end + 4;
                carried = code == M2DSliceIO_jm::EndOfRecord;
                if (code == M2DSliceIO_jm::EndOfBlock)
                    ++ended;
                else
                    break;
                continue;
            }
            words.push_back(first);
            at += 4;
            if (first == M2DSliceIO_jm::EndOfData)
                ++ended;
            if (first == M2DSliceIO_jm::EndOfRecord)
                break;
        }
        EXPECT_EQ(static_cast<std::uint32_t>(WordAt(file, start + 4)), ended + 1) << "blocks and end codes";
        EXPECT_EQ(file.find_first_not_of('\0', at), start + kRecord == file.size() ? std::string::npos : start + kRecord)
            << "zeros after the record's end code";
        records.push_back(words);
    }
    return records;
}

} // namespace

TEST(M2DSliceIO_jm, ASquareAsAPolygonLineWordByWord)
{
    ScratchDir dir;
    M2DSlice slice;
    slice.SetZ(10000); // 1 mm: 1000 micrometres
    AddBlock(slice, Ring({{0, 0}, {10000, 0}, {10000, 10000}, {0, 10000}}), e2DSliceVectorType_Border);
    M2DSliceIO_jm setup;
    const std::string file = WriteJm({slice}, dir.File("square.jm"), &setup);
    ASSERT_EQ(file.size(), 2 * kRecord);

    // Header fields by offset.
    const std::string header = kit::Bytes()
                                   .text("ID").zeros(2)
                                   .text("JEOLBPOUTPUT").zeros(256 - 12)
                                   .text("EB3DAMFMTV1.004").zeros(5);
    EXPECT_TRUE(kit::SameBytes(header, file.substr(0, 280)));
    EXPECT_EQ(file[280 + 2], '-');
    const std::string fields = kit::Bytes()
                                   .u32(1000).u32(1000).u32(0 + 50) // extents; z gets the thickness
                                   .u32(1).u32(1).u32(1).u32(0)
                                   .u32(1).u32(1) // record count, total blocks
                                   .u32(0).u32(100000).i32(0).zeros(16)
                                   .u32(1).u32(1).zeros(28)
                                   .u64(0).u64(0).u64(0).u64(1).u64(0).u64(0).u64(0) // one polygon line
                                   .u32(50).u32(1)                                   // thickness, layers
                                   .u64(0).u64(0).u64(0)
                                   .zeros(312);
    EXPECT_TRUE(kit::SameBytes(fields, file.substr(300, 500)));
    const std::string entries = kit::Bytes()
                                    .u32(1).text("melt").zeros(16)
                                    .u32(100).u32(101).u32(102).u32(103).u32(104).u32(105).u32(107).u32(108).u32(109)
                                    .zeros(20);
    EXPECT_TRUE(kit::SameBytes(entries, file.substr(800, 80)));
    EXPECT_EQ(file.find_first_not_of('\0', 880), 8800u);
    const std::string parts = kit::Bytes().u32(1).text("left").zeros(60).u32(2).text("r\xe9ght").zeros(59);
    EXPECT_TRUE(kit::SameBytes(parts, file.substr(8800, 136)));
    EXPECT_EQ(file.find_first_not_of('\0', 8936), kRecord);

    // The record: head, one block of 18 words after its length word, the data end, the record end.
    const std::string record = kit::Bytes()
                                   .text("AM").zeros(2).u32(3)
                                   .u32(18).i32(-16).i32(0).i32(0).i32(1000).u32(1).i32(-251).u32(1)
                                   .i32(-248).u32(4).u32(0).u32(0).u32(1000).u32(0).u32(1000).u32(1000).u32(0).u32(1000)
                                   .i32(-12)
                                   .u32(2).i32(-11).i32(-14);
    EXPECT_TRUE(kit::SameBytes(record + std::string(kRecord - record.size(), '\0'), file.substr(kRecord)));
    Records(file);
}

TEST(M2DSliceIO_jm, KindsDecidePolygonsOrLines)
{
    ScratchDir dir;
    const Points square = {{0, 0}, {10000, 0}, {10000, 10000}, {0, 10000}};
    M2DSlice hatch;
    hatch.SetZ(5);
    AddBlock(hatch, Ring(square), e2DSliceVectorType_Hatch); // not a polygon kind: four lines
    M2DSlice open;
    open.SetZ(15);
    std::vector<M2DSliceVector> chain = Ring(square);
    chain.pop_back(); // open chain of a polygon kind: lines too
    AddBlock(open, chain, e2DSliceVectorType_Border);
    AddBlock(open, {M2DSliceVector(-5, -15, -5, -15), M2DSliceVector(-15, 25, 35, -25)}, e2DSliceVectorType_Hatch);
    M2DSlice empty;
    empty.SetZ(25);
    M2DSliceIO_jm setup;
    const std::string file = WriteJm({hatch, open}, dir.File("lines.jm"), &setup);
    const auto records = Records(file);
    ASSERT_EQ(records.size(), 1u);
    // Heights: 5 and 15 internal units are 0 and 1 micrometre toward zero.
    const std::vector<std::int32_t> expected = {
        // block 1: z 0; lines along x, y, x, y
        24, -16, 0, 0, 0, 1, -251, 1, -244, 0, 0, 1000, -243, 1000, 0, 1000, -244, 1000, 1000, 0, -243, 0, 1000, 0, -12,
        // block 2: z 1; three lines of the open chain
        20, -16, 0, 0, 1, 1, -251, 1, -244, 0, 0, 1000, -243, 1000, 0, 1000, -244, 1000, 1000, 0, -12,
        // block 3: a point (parallel to y) and a free line; -5 is 0 and -15 is -1 micrometre
        17, -16, 0, 0, 1, 1, -251, 1, -243, 0, -1, -1, -242, -1, 2, 3, -2, -12,
        2, -11, -14};
    EXPECT_EQ(records[0], expected);
    const auto& counters = setup.GetNumberOfPatterns().Counters;
    (void)counters; // the writer's own counts are in the file:
    EXPECT_EQ(ByteOrder::LoadLE<std::int64_t>(file.data() + 400), 1); // free lines
    EXPECT_EQ(ByteOrder::LoadLE<std::int64_t>(file.data() + 408), 4); // parallel to x
    EXPECT_EQ(ByteOrder::LoadLE<std::int64_t>(file.data() + 416), 4); // parallel to y, the point included
    EXPECT_EQ(ByteOrder::LoadLE<std::int64_t>(file.data() + 424), 0); // polygon lines

    // A layer with nothing still counts when the writer is handed it.
    const std::string withEmpty = WriteJm({hatch, empty}, dir.File("empty.jm"), nullptr, true);
    EXPECT_EQ(ByteOrder::LoadLE<std::uint32_t>(withEmpty.data() + 460), 2u);
}

TEST(M2DSliceIO_jm, SolidPolygonsTakeTheirHolesLowestFirst)
{
    ScratchDir dir;
    M2DSlice slice;
    slice.SetZ(0);
    AddBlock(slice, Ring({{0, 0}, {1000, 0}, {1000, 0}}), e2DSliceVectorType_Kind9, true, 3); // other part
    AddBlock(slice, Ring({{0, 0}, {100000, 0}, {100000, 100000}, {0, 100000}}), e2DSliceVectorType_Kind9, false);
    AddBlock(slice, Ring({{50000, 50000}, {60000, 50000}, {60000, 60000}}), e2DSliceVectorType_Kind9, true);
    AddBlock(slice, Ring({{20000, 10000}, {30000, 10000}, {30000, 20000}}), e2DSliceVectorType_Kind9, true);
    AddBlock(slice, Ring({{70000, 70000}, {80000, 70000}}), e2DSliceVectorType_Kind10, true); // other kind
    const std::string file = WriteJm({slice}, dir.File("solid.jm"));
    const auto records = Records(file);
    ASSERT_EQ(records.size(), 1u);
    const std::vector<std::int32_t> expected = {
        // the orphan hole of part 3 writes nothing; the outer polygon with its two holes, the
        // lower one (y 10000) first
        35, -16, 0, 0, 0, 1, -251, 1, -246, 4, 2, 0, 0, 10000, 0, 10000, 10000, 0, 10000,
        -245, 3, 2000, 1000, 3000, 1000, 3000, 2000,
        -245, 3, 5000, 5000, 6000, 5000, 6000, 6000, -12,
        // the kind-10 hole has no outer polygon: nothing either
        2, -11, -14};
    EXPECT_EQ(records[0], expected);
    EXPECT_EQ(ByteOrder::LoadLE<std::int64_t>(file.data() + 400 + 7 * 8 + 8), 1); // solids with holes
    EXPECT_EQ(ByteOrder::LoadLE<std::int64_t>(file.data() + 464), 1);             // counter 8
    EXPECT_EQ(ByteOrder::LoadLE<std::int64_t>(file.data() + 472), 2);             // holes
}

TEST(M2DSliceIO_jm, EndCodesMeetingARecordsEndKeepTheFrame)
{
    ScratchDir dir;
    // A polygon of 3,000 points runs over two records inside its block; the second record's
    // first word is the length of the block's remainder.
    {
        Points points;
        for (int i = 0; i < 3000; ++i)
            points.emplace_back(i * 10, (i % 2) * 10);
        M2DSlice slice;
        slice.SetZ(0);
        AddBlock(slice, Ring(points), e2DSliceVectorType_Border);
        const std::string file = WriteJm({slice}, dir.File("long.jm"));
        const auto records = Records(file);
        ASSERT_EQ(records.size(), 2u);
        EXPECT_EQ(records[0].back(), -14);
        const std::int32_t remainder = WordAt(file, 2 * kRecord + 8);
        EXPECT_EQ(WordAt(file, 2 * kRecord + 8 + 4 * static_cast<std::size_t>(remainder)), -12);
        // The first record: "AM", its count, the length word, 7 block words, the code and the
        // count, then coordinates in words 12 to 4094 (4083 of them) and the record end code:
        // 4093 words after the length word. The second holds the other 1917 and the block end.
        EXPECT_EQ(WordAt(file, kRecord + 8), 4093);
        EXPECT_EQ(remainder, 6000 - 4083 + 1);
    }
    // Blocks of axis-parallel (4 words) and free lines (5 words) of every length around a full
    // record, then a block of one line: the end codes land on the record's last words, the
    // footer's codes get a record of their own, filler words stand before record ends. The
    // frame must hold for each.
    bool closingAlone = false, filler = false;
    for (int lines = 1015; lines <= 1021; ++lines)
        for (int free = 0; free <= 4; ++free)
            for (bool second : {false, true})
            {
                SCOPED_TRACE(std::to_string(lines) + " lines, " + std::to_string(free) + " free");
                std::vector<M2DSliceVector> vectors;
                for (int i = 0; i < lines; ++i)
                    vectors.emplace_back(0, i * 10, 100, i * 10);
                for (int i = 0; i < free; ++i)
                    vectors.emplace_back(0, i * 10, 100, i * 10 + 10);
                M2DSlice slice;
                slice.SetZ(0);
                AddBlock(slice, vectors, e2DSliceVectorType_Hatch);
                if (second)
                    AddBlock(slice, {M2DSliceVector(0, 0, 100, 0)}, e2DSliceVectorType_Hatch);
                const std::string file = WriteJm({slice}, dir.File("fill.jm"));
                const auto records = Records(file);
                ASSERT_FALSE(records.empty());
                closingAlone = closingAlone || records.back() == std::vector<std::int32_t>{2, -11, -14};
                for (const auto& r : records)
                    filler = filler || (r.size() >= 2 && r[r.size() - 2] == 1 && r.back() == -14);
                EXPECT_EQ(ByteOrder::LoadLE<std::uint32_t>(file.data() + 328), records.size());
            }
    EXPECT_TRUE(closingAlone) << "a record holding only the closing codes";
    EXPECT_TRUE(filler) << "a filler word before a record's end";

    // A file of some megabytes, over two layers, goes out in runs of records: the counts and
    // lengths filled in later hold in every record, and the header's totals at the end.
    {
        std::vector<M2DSlice> layers(2);
        for (int z = 0; z < 2; ++z)
        {
            layers[z].SetZ(z * 1000);
            for (int b = 0; b < 60; ++b)
            {
                std::vector<M2DSliceVector> vectors;
                for (int i = 0; i < 1000 + b; ++i)
                    vectors.emplace_back(i * 10, b * 10, i * 10 + 5, b * 10 + 7);
                AddBlock(layers[z], vectors, e2DSliceVectorType_Hatch);
            }
        }
        const std::string file = WriteJm(layers, dir.File("big.jm"));
        ASSERT_GT(file.size(), 2u << 20);
        const auto records = Records(file);
        EXPECT_EQ(ByteOrder::LoadLE<std::uint32_t>(file.data() + 328), records.size());
        EXPECT_EQ(ByteOrder::LoadLE<std::uint32_t>(file.data() + 332), 120u); // blocks
        EXPECT_EQ(ByteOrder::LoadLE<std::int64_t>(file.data() + 400), 2 * (60 * 1000 + 59 * 60 / 2)); // free lines
        EXPECT_EQ(ByteOrder::LoadLE<std::uint32_t>(file.data() + 460), 2u); // layers
        std::size_t freeLines = 0;
        for (const auto& r : records)
            freeLines += static_cast<std::size_t>(std::count(r.begin(), r.end(), M2DSliceIO_jm::FreeLine));
        EXPECT_EQ(freeLines, 2u * (60 * 1000 + 59 * 60 / 2));
    }
}

TEST(M2DSliceIO_jm, ReadingStopsAtTheFirstBlock)
{
    ScratchDir dir;
    M2DSlice slice;
    slice.SetZ(0);
    AddBlock(slice, {M2DSliceVector(0, 0, 10, 10)}, e2DSliceVectorType_Hatch);
    const std::string path = dir.File("r.jm");
    WriteJm({slice}, path);
    M2DSliceIO_jm io;
    M2DSlice read;
    ASSERT_TRUE(io.OpenFile(Wide(path), I2DSliceIO::Read) && io.ReadHeader(nullptr));
    try
    {
        io.ReadLayer(read, nullptr, true);
        ADD_FAILURE() << "no exception";
    }
    catch (const std::logic_error& e)
    {
        EXPECT_STREQ(e.what(), "The method or operation is not implemented.");
    }
    io.CloseFile();

    // Free lines ahead of any block are read, times 10; a short file is refused.
    WriteFile(path, std::string(kRecord, '\0') + kit::Bytes().text("AM").zeros(2).u32(1).i32(-242).u32(1).u32(2).u32(3).u32(4).i32(-11).s +
                        std::string(kRecord - 32, '\0'));
    ASSERT_TRUE(io.OpenFile(Wide(path), I2DSliceIO::Read) && io.ReadHeader(nullptr));
    ASSERT_TRUE(io.ReadLayer(read, nullptr, true));
    ASSERT_EQ(read.GetVectors()->GetTotalNumVectors(), 1u);
    EXPECT_EQ(read.GetVectors()->GetVectorBlock(0)->Vectors[0], M2DSliceVector(10, 20, 30, 40));
    EXPECT_FALSE(io.ReadLayer(read, nullptr, true)) << "the fragment is one layer";
    io.CloseFile();
    // Damaged files end in false, true or the documented exception, never worse.
    kit::SweepOptions options;
    options.MaxCases = 300;
    options.Documented = [](const std::exception& e) { return typeid(e) == typeid(std::logic_error); };
    kit::SweepTruncations(55, ReadFile(path), options);
    kit::SweepCorruptions(55, ReadFile(path), options);
    WriteFile(path, std::string(32763, '\0'));
    ASSERT_TRUE(io.OpenFile(Wide(path), I2DSliceIO::Read) && io.ReadHeader(nullptr));
    EXPECT_FALSE(io.ReadLayer(read, nullptr, true));
    EXPECT_NE(io.GetFailureReason().find("32,764"), std::string::npos);
    io.CloseFile();
}
