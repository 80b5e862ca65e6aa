// CLF: numbers and items byte by byte, a whole file byte-exact, the reader's quirks on hand-made
// files, the limits that throw, round trips, sweeps and the seek table behind the iterator.
#include <cmath>
#include <functional>

#include "BuildGenerator.h"
#include "FormatTestKit.h"
#include "formats/clf/M2DSliceIO_clf.h"
#include "framework/M2DSliceContainerIO.h"
#include "framework/M2DSliceContainerIterator.h"
#include "framework/M2DSliceIOFactory.h"
#include "tests/TestSupport.h"

using namespace ts;

namespace {

std::string Hex(std::initializer_list<unsigned> bytes)
{
    std::string s;
    for (unsigned b : bytes)
        s += static_cast<char>(b);
    return s;
}

std::string Var(std::uint64_t v)
{
    std::vector<unsigned char> out;
    clf::PutVarInt(out, v);
    return std::string(out.begin(), out.end());
}

// Hand-made items: a known size (one byte, below 32) or a group with the 8-byte size form.
std::string Item(unsigned id, const std::string& payload)
{
    EXPECT_LT(payload.size(), 32u);
    return Hex({id, static_cast<unsigned>(payload.size())}) + payload;
}
std::string Group(unsigned id, const std::string& payload)
{
    std::string s = Hex({id, 0xE0});
    for (int i = 6; i >= 0; --i)
        s += static_cast<char>((payload.size() >> (8 * i)) & 0xff);
    return s + payload;
}
std::string F32(float f) { return kit::Bytes().f32(f); }
std::string Floats(std::initializer_list<float> values)
{
    std::string s;
    for (float v : values)
        s += F32(v);
    return s;
}
std::string Polygon(unsigned cls, unsigned form, unsigned count)
{
    return Group(2, Item(0, Hex({cls})) + Item(1, Hex({form})) + Item(3, Hex({count})));
}
std::string Shape(unsigned part, unsigned kind, const std::string& polygons)
{
    return Group(2, Item(0, Hex({part})) + Item(1, Hex({kind})) + polygons);
}
const std::string kFileId = std::string("Arcam Layer File") + '\0';

// A whole file around hand-made layer groups: a header without parts, the layers at the
// given positions after some filler, the seek table listing each, the end marker.
std::string HandFile(const std::vector<std::string>& layers, std::size_t filler = 0,
                     const std::string& numLayers = Hex({1}))
{
    const std::string header0 = Item(0, kFileId) + Item(1, Hex({1, 0})) + Item(2, numLayers);
    const std::size_t headerSize = 9 + header0.size() + 17;
    std::string body(filler, '\x07');
    std::string table;
    for (const std::string& layer : layers)
    {
        const std::uint64_t at = headerSize + body.size();
        table += Item(0, Item(0, F32(0.0f)) + Item(1, Var(at)));
        body += layer;
    }
    const std::uint64_t tableAt = headerSize + body.size();
    std::string position = Hex({0xE0, 0, 0, 0, 0, 0, 0, static_cast<unsigned>(tableAt & 0xff)});
    position[6] = static_cast<char>(tableAt >> 8);
    const std::string header = Group(0, header0 + Hex({5, 0xE0, 0, 0, 0, 0, 0, 0, 8}) + position);
    EXPECT_EQ(header.size(), headerSize);
    return header + body + Group(1, table) + Hex({3, 0});
}

std::unique_ptr<M2DSliceStack> ReadBack(const std::string& path, bool* ok = nullptr, std::string* reason = nullptr)
{
    auto stack = std::make_unique<M2DSliceStack>();
    M2DSliceContainerIO in(49);
    I2DSliceIO::ReadOptions options;
    options.VectorBlocks.MergeBlocks = false;
    in.SetReadOptions(options);
    // The whole-file read ends at a damaged layer as at the last one; the reason tells them apart.
    const bool read = in.ReadContainer(*stack, Wide(path), true, nullptr);
    if (ok)
        *ok = read && in.GetSliceIO()->GetFailureReason().empty();
    if (reason)
        *reason = in.GetSliceIO()->GetFailureReason();
    return stack;
}

// One part: a stack with "PartID" and "PartName".
std::unique_ptr<M2DSliceStack> Part(std::int32_t id, const std::wstring& name)
{
    auto stack = std::make_unique<M2DSliceStack>();
    stack->GetProperties()->SetValue(L"PartID", id);
    stack->GetProperties()->SetValue(L"PartName", name);
    return stack;
}

bool Write(const std::vector<const ISource2DSlices*>& sources, const std::string& path, std::int32_t resolution = 1,
           std::shared_ptr<I2DSliceIO> io = nullptr, std::string* reason = nullptr)
{
    if (!io)
        io = std::make_shared<M2DSliceIO_clf>();
    M2DSliceContainerIO out(io);
    const bool ok = out.WriteContainers(sources, Wide(path), 10000, resolution, nullptr);
    if (reason)
        *reason = io->GetFailureReason();
    return ok;
}

bool IsDocumented(const std::exception& e)
{
    return dynamic_cast<const clf::ValueOutOfRange*>(&e) || dynamic_cast<const clf::LossOfData*>(&e);
}

} // namespace

TEST(M2DSliceIO_clf, VarIntsInShortAndLongFormByteExact)
{
    EXPECT_TRUE(kit::SameBytes(Hex({0x00}), Var(0)));
    EXPECT_TRUE(kit::SameBytes(Hex({0x1F}), Var(31)));
    EXPECT_TRUE(kit::SameBytes(Hex({0x20, 0x20}), Var(32)));
    EXPECT_TRUE(kit::SameBytes(Hex({0x20, 0xFF}), Var(255)));
    EXPECT_TRUE(kit::SameBytes(Hex({0x21, 0x00}), Var(256)));
    EXPECT_TRUE(kit::SameBytes(Hex({0x3F, 0xFF}), Var(0x1FFF)));
    EXPECT_TRUE(kit::SameBytes(Hex({0x40, 0x20, 0x00}), Var(0x2000)));
    EXPECT_TRUE(kit::SameBytes(Hex({0x5F, 0xFF, 0xFF}), Var(0x1FFFFF)));
    EXPECT_TRUE(kit::SameBytes(Hex({0x80, 0x7F, 0xFF, 0xFF, 0xFF}), Var(0x7FFFFFFF)));
    EXPECT_TRUE(kit::SameBytes(Hex({0x80, 0x80, 0x00, 0x00, 0x00}), Var(0x80000000)));
    std::vector<unsigned char> longForm;
    clf::PutLongVarInt(longForm, 0);
    clf::PutLongVarInt(longForm, 0x0102030405060708ull);
    EXPECT_TRUE(kit::SameBytes(Hex({0xE0, 0, 0, 0, 0, 0, 0, 0, 0xE1, 2, 3, 4, 5, 6, 7, 8}),
                               std::string(longForm.begin(), longForm.end())));

    // Both forms read back, and a value cut short is refused.
    const std::string bytes = Hex({0x40, 0x20, 0x00, 0xE1, 2, 3, 4, 5, 6, 7, 8, 0x21});
    ByteCursor in(bytes.data(), bytes.size());
    std::uint64_t v = 0;
    ASSERT_TRUE(clf::GetVarInt(in, v));
    EXPECT_EQ(v, 0x2000u);
    ASSERT_TRUE(clf::GetVarInt(in, v));
    EXPECT_EQ(v, 0x0102030405060708ull);
    EXPECT_FALSE(clf::GetVarInt(in, v));
    EXPECT_EQ(v, 0x0102030405060708ull);
}

TEST(M2DSliceIO_clf, RangeExceptionsCarryTheirTexts)
{
    auto text = [](const std::function<void()>& f) -> std::string {
        try
        {
            f();
        }
        catch (const clf::ValueOutOfRange& e)
        {
            return std::string("range: ") + e.what();
        }
        catch (const clf::LossOfData& e)
        {
            return std::string("loss: ") + e.what();
        }
        return "none";
    };
    EXPECT_EQ(text([] { clf::ToInt32(std::uint64_t{2147483648u}); }),
              "range: Given uint64_t is too big and can not be converted to int32_t. The CLF file format does not "
              "support such a big number in this location.");
    EXPECT_EQ(text([] { clf::ToUInt32(-1); }),
              "range: Given int32_t is negative and can not be converted to uint32_t. The CLF file format does not "
              "support negative values in this location.");
    EXPECT_EQ(text([] { clf::ToInt32(std::int64_t{2147483648}); }),
              "range: Given int64_t is too big and can not be converted to int32_t. The CLF file format does not "
              "support such a big number in this location.");
    EXPECT_EQ(text([] { clf::ToUInt64(std::int64_t{-1}); }),
              "range: Given int64_t is negative and can not be converted to uint64_t. The CLF file format does not "
              "support negative values in this location.");
    EXPECT_EQ(text([] { clf::ToPointCount(2147483648u); }),
              "loss: Loss of data datected: Number of points is too large when converting vector blocks to polygons.");
    EXPECT_EQ(text([] {
                  clf::ToInt32(std::uint64_t{2147483647u});
                  clf::ToInt32(std::int64_t{2147483647});
                  clf::ToUInt32(0);
                  clf::ToUInt64(std::int64_t{0});
                  clf::ToPointCount(2147483647u);
              }),
              "none");
}

// One part with a square, a hatch and a point in its first layer and nothing in its second:
// the header counts two layers, the seek table one.
TEST(M2DSliceIO_clf, WritesAWholeFileByteExactAndReadsItBack)
{
    ScratchDir dir;
    auto part = Part(7, L"ab");
    M2DSlice first;
    first.SetZ(5000);
    AddContour(first, Square(0, 0, 10000));
    AddHatches(first, {M2DSliceVector(1000, 2000, 9000, 2000)});
    first.GetPointsUpdate()->AddPointBlockAtEnd()->Points.push_back(M2DSlicePoint(5000, 5000));
    M2DSlice second;
    second.SetZ(10000);
    part->AddSlice(first, false);
    part->AddSlice(second, false);
    const std::string path = dir.File("one.clf");
    ASSERT_TRUE(Write({part.get()}, path));

    const std::string box = Floats({0.0f, 0.0f, 0.5f, 1.0f, 1.0f, 1.0f});
    const std::string partGroup = Group(4, Item(0, Hex({7})) + Item(1, Hex({'a', 0, 'b', 0, 0, 0})) + Item(2, box) +
                                               Item(3, F32(0.5f)));
    const std::string headerStart = Item(0, kFileId) + Item(1, Hex({1, 0})) + Item(2, Hex({2})) + Item(3, box) +
                                    partGroup + Hex({5, 0xE0, 0, 0, 0, 0, 0, 0, 8});
    const std::size_t layerAt = 9 + headerStart.size() + 8;
    ASSERT_EQ(layerAt, 130u);
    const std::string layer =
        Group(2, Item(0, F32(0.5f)) + Item(1, Hex({7})) + Shape(7, 0, Polygon(0, 0, 4)) +
                     Shape(7, 1, Polygon(1, 2, 2)) + Shape(7, 2, Polygon(2, 0, 1)) +
                     Group(3, Floats({0, 0, 0, 1, 1, 1, 1, 0, 0.1f, 0.2f, 0.9f, 0.2f, 0.5f, 0.5f})));
    const std::size_t tableAt = layerAt + layer.size();
    const std::string header = Group(0, headerStart + Hex({0xE0, 0, 0, 0, 0, 0, static_cast<unsigned>(tableAt >> 8),
                                                           static_cast<unsigned>(tableAt & 0xff)}));
    const std::string table = Group(1, Item(0, Item(0, F32(0.5f)) + Item(1, Hex({0x20, 0x82}))));
    EXPECT_TRUE(kit::SameBytes(header + layer + table + Hex({3, 0}), ReadFile(path)));

    // Read back: the contour as written, the vector truncated (0.9f * 10000 is 8999.99...), in
    // the one block of type 1 with flag 1, the point; header values as properties.
    bool ok = false;
    std::string reason;
    const auto read = ReadBack(path, &ok, &reason);
    ASSERT_TRUE(ok) << reason;
    EXPECT_EQ(reason, "");
    ASSERT_EQ(read->GetNumSlices(), 1u);
    const auto slice = read->GetSlice(0);
    EXPECT_EQ(slice->GetZ(), 5000);
    ASSERT_EQ(slice->GetSliceBorder()->GetNumContours(), 1u);
    const M2DSliceContour& contour = *slice->GetSliceBorder()->GetFirstContour();
    EXPECT_EQ(PointsOf(contour), Square(0, 0, 10000));
    EXPECT_TRUE(contour.GetIsClosed());
    EXPECT_TRUE(contour.GetIsOuterContour());
    EXPECT_EQ(contour.GetTypeInfo().GetType(), e2DSliceVectorType_Border);
    ASSERT_EQ(slice->GetVectors()->GetNumVectorBlocks(), 1u);
    const M2DSliceVectorBlock& block = *slice->GetVectors()->GetFirstVectorBlock();
    EXPECT_EQ(block.GetTypeInfo().GetType(), e2DSliceVectorType_Border);
    EXPECT_TRUE(block.GetTypeInfo().GetFlag(e2DSliceVectorTypeFlag_1));
    ASSERT_EQ(block.Vectors.size(), 1u);
    EXPECT_EQ(block.Vectors[0], M2DSliceVector(1000, 2000, 8999, 2000));
    ASSERT_EQ(slice->GetPoints()->GetTotalNumPoints(), 1u);
    EXPECT_EQ(slice->GetPoints()->GetFirstPointBlock()->Points[0], M2DSlicePoint(5000, 5000));
    std::int32_t value = 0;
    EXPECT_TRUE(read->GetProperties()->GetValue(L"NumLayers", value));
    EXPECT_EQ(value, 2);
    EXPECT_TRUE(read->GetProperties()->GetValue(L"MinZ", value));
    EXPECT_EQ(value, 5000);
    EXPECT_TRUE(read->GetProperties()->GetValue(L"MaxX", value));
    EXPECT_EQ(value, 10000);

    // The older name writes the same bytes.
    const std::string older = dir.File("older.clf");
    ASSERT_TRUE(Write({part.get()}, older, 1, std::make_shared<clf_deprecated::M2DSliceIO_clf>()));
    EXPECT_EQ(ReadFile(older), ReadFile(path));
}

TEST(M2DSliceIO_clf, WriterShapesPolylinesOrphansAndPartGroups)
{
    ScratchDir dir;
    // A hole alone becomes an outer contour; an open flagged contour is class 2, form 1; an
    // unlabelled block of two chains is two polygons; a part without slices has a zero box.
    auto part = Part(3, L"");
    M2DSlice slice;
    slice.SetZ(0);
    AddContour(slice, Reversed(0, 0, 10000), true, 0, false);
    M2DSliceContour* open = AddContour(slice, {{0, 0}, {10000, 0}}, false);
    open->GetTypeInfoUpdate().SetFlag(e2DSliceVectorTypeFlag_1, true);
    M2DSliceVectorBlock* lines = slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
    lines->Vectors = {M2DSliceVector(0, 0, 10000, 0), M2DSliceVector(10000, 0, 10000, 10000),
                      M2DSliceVector(0, 5000, 5000, 5000)};
    lines->SetTypeInfo(M2DSliceVectorTypeInfo(e2DSliceVectorType_Other));
    part->AddSlice(slice, false);
    auto empty = Part(4, L"x");
    const std::string path = dir.File("shapes.clf");
    ASSERT_TRUE(Write({part.get(), empty.get()}, path));
    const std::string bytes = ReadFile(path);

    const std::string expectedShapes =
        Shape(3, 0, Polygon(0, 0, 4)) + Shape(3, 0, Polygon(2, 1, 2)) + Shape(3, 1, Polygon(1, 2, 4)) +
        Shape(3, 1, Polygon(1, 2, 2));
    EXPECT_NE(bytes.find(Item(1, Hex({12})) + expectedShapes + Group(3, Floats({0, 0, 1, 0, 1, 1, 0, 1, 0, 0, 1, 0,
                                                                                   0, 0, 1, 0, 1, 0, 1, 1, 0, 0.5f,
                                                                                   0.5f, 0.5f}))),
              std::string::npos);
    const std::string emptyPart = Group(4, Item(0, Hex({4})) + Item(1, Hex({'x', 0, 0, 0})) +
                                               Item(2, Floats({0, 0, 0, 0, 0, 0})) + Item(3, F32(0.0f)));
    EXPECT_NE(bytes.find(Group(4, Item(0, Hex({3})) + Item(1, Hex({0, 0})) +
                                      Item(2, Floats({0, 0, 0, 1, 1, 0})) + Item(3, F32(0.0f))) +
                         emptyPart),
              std::string::npos);

    // Read back: the flagged open contour and the chains come back as one vector block.
    const auto read = ReadBack(path);
    ASSERT_EQ(read->GetNumSlices(), 1u);
    const auto back = read->GetSlice(0);
    EXPECT_EQ(back->GetSliceBorder()->GetNumContours(), 1u);
    ASSERT_EQ(back->GetVectors()->GetNumVectorBlocks(), 1u);
    EXPECT_EQ(back->GetVectors()->GetFirstVectorBlock()->Vectors.size(), 4u);
}

TEST(M2DSliceIO_clf, WriterRefusals)
{
    ScratchDir dir;
    auto stackOf = [](std::unique_ptr<M2DSliceStack> stack) {
        stack->AddSlice(*std::make_unique<M2DSlice>(MakeSquareSlice(0, 0, 0, 10000)), false);
        return stack;
    };
    std::string reason;
    // A missing "PartID" or "PartName" fails the header; the group holds what there is.
    auto noId = stackOf(std::make_unique<M2DSliceStack>());
    EXPECT_FALSE(Write({noId.get()}, dir.File("a.clf"), 1, nullptr, &reason));
    EXPECT_NE(reason.find("PartID"), std::string::npos) << reason;
    auto noName = stackOf(std::make_unique<M2DSliceStack>());
    noName->GetProperties()->SetValue(L"PartID", std::int32_t{40});
    EXPECT_FALSE(Write({noName.get()}, dir.File("b.clf"), 1, nullptr, &reason));
    EXPECT_NE(reason.find("PartName"), std::string::npos) << reason;
    EXPECT_NE(ReadFile(dir.File("b.clf")).find(Group(4, Item(0, Hex({0x20, 40})))), std::string::npos);

    // A negative part id does not fit its field.
    auto negative = stackOf(Part(-2, L"n"));
    EXPECT_THROW(Write({negative.get()}, dir.File("c.clf")), clf::ValueOutOfRange);

    // An all-empty layer written on request writes nothing and fails.
    auto empty = Part(1, L"e");
    M2DSliceIO_clf io;
    io.GetWriteOptions().WriteEmptyLayers = true;
    ASSERT_TRUE(io.OpenFile(dir.WFile("d.clf"), I2DSliceIO::Write));
    ASSERT_TRUE(io.WriteHeader({empty.get()}, 10000, 1));
    ASSERT_TRUE(io.FlushFile());
    const std::size_t headerSize = ReadFile(dir.File("d.clf")).size();
    M2DSliceConstDataItems items;
    auto nothing = std::make_shared<M2DSlice>();
    nothing->SetZ(0);
    items.AddSlice(nothing);
    EXPECT_FALSE(io.WriteLayer({empty.get()}, items));
    ASSERT_TRUE(io.FlushFile());
    EXPECT_EQ(ReadFile(dir.File("d.clf")).size(), headerSize);
}

// A file position beyond 32 bits cannot stand in the seek table: the positions are shifted
// through the position hook, so nothing near 2 GiB is written to disk.
struct ShiftedPositions : M2DSliceIO_clf
{
    std::function<std::int64_t(std::int64_t)> Shift;
    std::int64_t _TellFilePos() override { return Shift(M2DSliceIO_clf::_TellFilePos()); }
};

TEST(M2DSliceIO_clf, SeekTablePositionsBeyond32BitsThrow)
{
    ScratchDir dir;
    auto part = Part(1, L"p");
    for (int z : {0, 100})
        part->AddSlice(*std::make_unique<M2DSlice>(MakeSquareSlice(z, 0, 0, 10000)), false);
    const std::string path = dir.File("big.clf");
    ASSERT_TRUE(Write({part.get()}, path));
    std::vector<std::shared_ptr<clf::SeekTableEntry>> table;
    clf::HeaderData header;
    std::string reason;
    ASSERT_TRUE(clf::ReadHeaderAndTable(Wide(path), header, table, reason)) << reason;
    ASSERT_EQ(table.size(), 2u);
    const std::int64_t last = static_cast<std::int64_t>(table[1]->Position);

    auto shifted = [&](std::int64_t toLast, std::int64_t table) {
        auto io = std::make_shared<ShiftedPositions>();
        io->Shift = [=](std::int64_t at) { return at == last ? at + toLast : at < last ? at : table; };
        return io;
    };
    // The last layer at 2^31 - 1 fits; one byte further does not.
    EXPECT_TRUE(Write({part.get()}, path, 1, shifted(2147483647 - last, 1000)));
    const std::string fits = ReadFile(path);
    EXPECT_NE(fits.find(Item(1, Hex({0x80, 0x7F, 0xFF, 0xFF, 0xFF}))), std::string::npos);
    try
    {
        Write({part.get()}, path, 1, shifted(2147483648 - last, 1000));
        ADD_FAILURE() << "no exception";
    }
    catch (const clf::ValueOutOfRange& e)
    {
        EXPECT_NE(std::string(e.what()).find("Given int64_t is too big"), std::string::npos);
    }
    // A negative seek table position cannot be written either.
    try
    {
        Write({part.get()}, path, 1, shifted(0, -8));
        ADD_FAILURE() << "no exception";
    }
    catch (const clf::ValueOutOfRange& e)
    {
        EXPECT_NE(std::string(e.what()).find("Given int64_t is negative and can not be converted to uint64_t"),
                  std::string::npos);
    }
}

TEST(M2DSliceIO_clf, PartNamesBelow1000BytesReadBack)
{
    ScratchDir dir;
    for (std::size_t chars : {498u, 499u})
    {
        auto part = Part(1, std::wstring(chars, L'n'));
        part->AddSlice(*std::make_unique<M2DSlice>(MakeSquareSlice(0, 0, 0, 10000)), false);
        const std::string path = dir.File("name.clf");
        ASSERT_TRUE(Write({part.get()}, path));
        bool ok = false;
        std::string reason;
        ReadBack(path, &ok, &reason);
        EXPECT_EQ(ok, chars == 498) << chars << " characters: " << reason;
        clf::HeaderData header;
        std::vector<std::shared_ptr<clf::SeekTableEntry>> table;
        if (chars == 498)
        {
            ASSERT_TRUE(clf::ReadHeaderAndTable(Wide(path), header, table, reason));
            ASSERT_EQ(header.Parts.size(), 1u);
            EXPECT_EQ(header.Parts[0].Name, std::wstring(498, L'n'));
        }
    }
}

TEST(M2DSliceIO_clf, ReaderQuirksOnHandMadeLayers)
{
    ScratchDir dir;
    const std::string path = dir.File("hand.clf");
    // A closed contour repeating its first point, a one-point contour, an open contour, a
    // flagged chain of three points, and pairs of which one has equal ends; an unknown item 9.
    // Coordinates are truncated: 0.7f is 0.69999998 and gives 6999.
    const std::string layer = Group(
        2, Item(0, F32(0.25f)) + Item(9, "zz") +
               Shape(1, 0,
                     Polygon(0, 0, 5) + Polygon(1, 0, 1) + Polygon(0, 1, 2) + Polygon(2, 0, 3) + Polygon(1, 2, 4)) +
               Group(3, Floats({0, 0, 0, 1, 1, 1, 1, 0, 0, 0, 2, 2, 3, 3, 4, 3, 5, 5, 6, 5, 6, 6, 0.5f, 0.5f, 0.7f,
                                0.5f, 8, 8, 8, 8})));
    WriteFile(path, HandFile({layer}, 5));
    bool ok = false;
    std::string reason;
    const auto read = ReadBack(path, &ok, &reason);
    ASSERT_TRUE(ok) << reason;
    ASSERT_EQ(read->GetNumSlices(), 1u);
    const auto slice = read->GetSlice(0);
    EXPECT_EQ(slice->GetZ(), 2500);
    const M2DSliceContourLayer& border = *slice->GetSliceBorder();
    ASSERT_EQ(border.GetNumContours(), 2u);
    EXPECT_EQ(PointsOf(*border.GetContour(0)), Square(0, 0, 10000));
    EXPECT_TRUE(border.GetContour(0)->GetIsClosed());
    EXPECT_EQ(PointsOf(*border.GetContour(1)), (Points{{30000, 30000}, {40000, 30000}}));
    EXPECT_FALSE(border.GetContour(1)->GetIsClosed());
    ASSERT_EQ(slice->GetVectors()->GetNumVectorBlocks(), 1u);
    EXPECT_EQ(slice->GetVectors()->GetFirstVectorBlock()->Vectors,
              (std::vector<M2DSliceVector>{M2DSliceVector(50000, 50000, 60000, 50000),
                                           M2DSliceVector(60000, 50000, 60000, 60000),
                                           M2DSliceVector(5000, 5000, 6999, 5000)}));
    std::vector<M2DSlicePoint> points;
    for (const M2DSlicePoint& p : slice->GetPoints()->GetFirstPointBlock()->Points)
        points.push_back(p);
    EXPECT_EQ(points, (std::vector<M2DSlicePoint>{M2DSlicePoint(20000, 20000), M2DSlicePoint(80000, 80000)}));

    // A scan measures the same layer: contours as read, surface area of the square positive.
    M2DSliceIO_clf io;
    ASSERT_TRUE(io.OpenFile(Wide(path), I2DSliceIO::Read));
    ASSERT_TRUE(io.ReadHeader(nullptr));
    M2DSliceContainerScanInfo info;
    ASSERT_TRUE(io.ScanLayer(info, nullptr, true));
    EXPECT_EQ(info.NumContours, 2u);
    EXPECT_DOUBLE_EQ(info.SurfaceArea, 1e8);
    EXPECT_FALSE(io.ScanLayer(info, nullptr, true));
    EXPECT_EQ(io.GetFailureReason(), "");
    EXPECT_TRUE(io.ReadFooter(nullptr));
    io.CloseFile();

    // Item 4 inside a layer fails it; layers end at the first item that is not a layer.
    const std::string good = Group(2, Item(0, F32(1.0f)));
    WriteFile(path, HandFile({good, Group(2, Item(0, F32(2.0f)) + Item(4, "") + Item(0, F32(3.0f)))}));
    ReadBack(path, &ok, &reason);
    EXPECT_FALSE(ok);
    EXPECT_NE(reason.find("item 4"), std::string::npos) << reason;
    // Coordinates fewer than the polygons count fail the layer.
    WriteFile(path, HandFile({Group(2, Shape(1, 0, Polygon(0, 0, 3)) + Group(3, Floats({1, 1, 2, 2, 3})))}));
    ReadBack(path, &ok, &reason);
    EXPECT_FALSE(ok);
    EXPECT_NE(reason.find("coordinates"), std::string::npos) << reason;
}

TEST(M2DSliceIO_clf, HeaderRefusalsAndTheLayerCountLimit)
{
    ScratchDir dir;
    const std::string path = dir.File("header.clf");
    std::string file = HandFile({Group(2, Item(0, F32(1.0f)))});
    bool ok = false;
    std::string reason;
    WriteFile(path, file);
    ReadBack(path, &ok, &reason);
    EXPECT_TRUE(ok) << reason;

    std::string wrongId = file;
    wrongId[11] = 'a'; // "arcam"
    WriteFile(path, wrongId);
    ReadBack(path, &ok, &reason);
    EXPECT_FALSE(ok);
    EXPECT_NE(reason.find("Arcam Layer File"), std::string::npos) << reason;

    WriteFile(path, Hex({2, 0}) + file.substr(2));
    ReadBack(path, &ok, &reason);
    EXPECT_FALSE(ok);

    // A layer count beyond 32 bits does not fit the property that holds it; 2^31 - 1 does.
    WriteFile(path, HandFile({Group(2, Item(0, F32(1.0f)))}, 0, Hex({0x80, 0x7F, 0xFF, 0xFF, 0xFF})));
    const auto read = ReadBack(path, &ok, &reason);
    EXPECT_TRUE(ok) << reason;
    std::int32_t count = 0;
    EXPECT_TRUE(read->GetProperties()->GetValue(L"NumLayers", count));
    EXPECT_EQ(count, 2147483647);
    WriteFile(path, HandFile({Group(2, Item(0, F32(1.0f)))}, 0, Hex({0x80, 0x80, 0x00, 0x00, 0x00})));
    EXPECT_THROW(ReadBack(path), clf::ValueOutOfRange);
}

TEST(M2DSliceIO_clf, RoundTripsTheRichBuildPartByPartAndSurvivesTheSweeps)
{
    ScratchDir dir;
    BuildGenerator build(BuildShape::Rich(5, 3));
    const auto parts = build.SplitByPart();
    std::vector<const ISource2DSlices*> sources;
    for (const auto& part : parts)
        sources.push_back(part.get());
    std::string reason;
    ASSERT_TRUE(Write(sources, dir.File("rich.clf"), 1, nullptr, &reason)) << reason;
    bool ok = false;
    const auto stack = ReadBack(dir.File("rich.clf"), &ok, &reason);
    ASSERT_TRUE(ok) << reason;
    // The build has no flagged open contours: contours, vectors and points are all checked.
    kit::ExpectSameBuild(sources, *stack, FormatRegistry::ForCode(49)->Losses & ~FormatLoss_OpenContours, 2);

    // Every part has its group with id and name.
    clf::HeaderData header;
    std::vector<std::shared_ptr<clf::SeekTableEntry>> table;
    ASSERT_TRUE(clf::ReadHeaderAndTable(dir.WFile("rich.clf"), header, table, reason)) << reason;
    ASSERT_EQ(header.Parts.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i)
    {
        EXPECT_EQ(header.Parts[i].Id, i + 1);
        EXPECT_EQ(header.Parts[i].Name, L"part" + std::to_wstring(i + 1));
    }
    EXPECT_EQ(table.size(), 5u);

    // The iterator's layers are where the seek table says, and any layer reads on its own.
    M2DSliceContainerIterator it(dir.WFile("rich.clf"), 49, true, 0, true);
    ASSERT_TRUE(it.IsValid());
    ASSERT_EQ(it.GetNumSlices(), table.size());
    for (std::size_t i = 0; i < table.size(); ++i)
        EXPECT_EQ(static_cast<std::uint64_t>(it.GetLayerTable()[i].Position), table[i]->Position);
    M2DSlice slice;
    for (std::uint64_t i : {4u, 0u, 2u})
    {
        it.GetSlice(slice, i);
        EXPECT_EQ(slice.GetZ(), stack->GetSlice(i)->GetZ());
        EXPECT_EQ(slice.GetVectors()->GetTotalNumVectors(), stack->GetSlice(i)->GetVectors()->GetTotalNumVectors());
    }

    // A copy of the iterator reads on its own.
    const M2DSliceContainerIterator copy(it);
    EXPECT_EQ(copy.GetSlice(4)->GetZ(), stack->GetSlice(4)->GetZ());

    kit::SweepOptions options;
    options.MaxCases = 900;
    options.Documented = IsDocumented;
    const std::string bytes = ReadFile(dir.File("rich.clf"));
    kit::SweepTruncations(49, bytes, options);
    kit::SweepCorruptions(49, bytes, options);
}

TEST(M2DSliceIO_clf, TheReaderTakesMillimetresWhateverTheWriterUsed)
{
    ScratchDir dir;
    auto part = Part(1, L"p");
    part->AddSlice(*std::make_unique<M2DSlice>(MakeSquareSlice(2000, 10000, 20000, 30000)), false);
    // At 100 steps per millimetre every value reads back a hundred times too large.
    const std::string path = dir.File("scaled.clf");
    ASSERT_TRUE(Write({part.get()}, path, 100));
    const auto read = ReadBack(path);
    ASSERT_EQ(read->GetNumSlices(), 1u);
    EXPECT_EQ(read->GetSlice(0)->GetZ(), 200000);
    EXPECT_EQ(PointsOf(*read->GetSlice(0)->GetSliceBorder()->GetFirstContour()).front(),
              (std::pair<int, int>(1000000, 2000000)));
}

TEST(M2DSliceIO_clf, FactoryAndRecognition)
{
    std::unique_ptr<I2DSliceIO> io(M2DSliceIOFactory::CreateSliceIO(49));
    EXPECT_NE(dynamic_cast<M2DSliceIO_clf*>(io.get()), nullptr);
    const std::string head = HandFile({});
    short code = 0;
    EXPECT_TRUE(FormatRegistry::Sniff(reinterpret_cast<const unsigned char*>(head.data()), head.size(), code));
    EXPECT_EQ(code, 49);
    EXPECT_EQ(FormatRegistry::ForExtension(".clf")->Code, 49);
}
