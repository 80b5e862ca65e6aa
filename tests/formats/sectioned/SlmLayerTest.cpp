// Layers of an SLM file: how blocks become sections, the second pass, the order of blocks,
// and how a reader turns sections, models and build styles back into labelled blocks.
#include "SlmTestSupport.h"

#include "framework/M2DSliceContainerIterator.h"

using namespace slmtest;
using kit::Bytes;

namespace {

// The body of the first section 10 of a file, found through the seek table's first entry.
std::string FirstLayer(const std::string& file, std::int64_t* second = nullptr)
{
    ByteCursor all(file);
    std::int64_t table = 0;
    {
        // Section 4 stands right after the GUID and the z unit: find "04 08" in the header.
        const std::size_t at = file.find(std::string("\x04\x08", 2), 9);
        table = SeekTableOffset(file, at + 2);
    }
    ByteCursor in(file.data() + table, file.size() - static_cast<std::size_t>(table));
    Sectioned::SectionHeader head, entryHead;
    ByteCursor body, entry;
    Sectioned::ReadHead(in, head);
    std::int64_t positions[2] = {0, 0}, z = 0;
    for (int i = 0; i < 2 && Sectioned::ReadSection(in, entryHead, entry) && entryHead.Id == 9; ++i)
    {
        Sectioned::SectionHeader f;
        ByteCursor v;
        while (Sectioned::ReadSection(entry, f, v))
            Sectioned::DecodeLF(v, f.Id == 23 ? positions[i] : z);
    }
    if (second)
        *second = positions[1];
    ByteCursor layer(file.data() + positions[0], file.size() - static_cast<std::size_t>(positions[0]));
    Sectioned::ReadSection(layer, head, body);
    return std::string(reinterpret_cast<const char*>(body.Data()), body.Remaining());
}

} // namespace

TEST(SlmLayerTest, BlocksBecomeHatchOrPolygonSectionsByKindAndStyle)
{
    ts::ScratchDir dir;
    M2DSlice slice = SliceAt(500);
    // A border block with style 19 is a hatch whatever its kind; kind 12 is dropped; a
    // contour is never written.
    AddBlock(slice, e2DSliceVectorType_Border, 19, 1, {M2DSliceVector(0, 0, 10000, 0)});
    AddBlock(slice, static_cast<e2DSliceVectorType>(12), 3, 1, {M2DSliceVector(0, 0, 10000, 0)});
    AddBlock(slice, e2DSliceVectorType_Kind9, 4, 1, {});
    ts::AddContour(*slice.GetSliceBorderUpdate(), ts::Square(0, 0, 10000));
    auto stack = StackOf({slice}, 500);
    DescribePart(*stack->GetProperties(), 1, L"A", {Style()});
    const std::string file = WriteSlm({stack.get()}, dir.File("kinds.slm"));
    const std::string expected = Bytes()
                                     .text("\x0C\x16\x12\x02\x01\x13\x14\x10")
                                     .f32(0.0f).f32(0.0f).f32(1.0f).f32(0.0f).s;
    EXPECT_TRUE(kit::SameBytes(expected, FirstLayer(file)));

    // Asked to, the writer gives each contour a polygon section ahead of the blocks: a closed
    // square is four segments, five points.
    const std::string withContours =
        WriteSlm({stack.get()}, dir.File("contours.slm"), [](M2DSliceIO_slm& io) { io.SetContoursAsPolygons(true); });
    const std::string square = Bytes()
                                   .text(std::string("\x0B\x20\x2F\x12\x02\x00\x00\x13\x20\x28", 10))
                                   .f32(0).f32(0).f32(0).f32(1).f32(1).f32(1).f32(1).f32(0).f32(0).f32(0)
                                   .s;
    EXPECT_TRUE(kit::SameBytes(square + expected, FirstLayer(withContours)));

    // Asked to, blocks of no known kind are written too: the kind 12 block, a chain of one
    // vector, as a polygon.
    const std::string kindless =
        WriteSlm({stack.get()}, dir.File("kindless.slm"), [](M2DSliceIO_slm& io) { io.SetKindlessBlocksInferred(true); });
    const std::string chain = Bytes()
                                  .text(std::string("\x0B\x16\x12\x02\x01\x03\x13\x10", 8))
                                  .f32(0).f32(0).f32(1).f32(0)
                                  .s;
    EXPECT_TRUE(kit::SameBytes(expected + chain, FirstLayer(kindless)));
}

TEST(SlmLayerTest, FlaggedPolygonCarriesModelStyleAndTheFactoredExtraStyle)
{
    ts::ScratchDir dir;
    M2DSlice slice = SliceAt(500);
    M2DSliceVectorBlock* block = AddBlock(slice, e2DSliceVectorType_Border, 5, 1, {M2DSliceVector(0, 0, 20000, 0)});
    block->GetTypeInfoUpdate().SetFlag(4, true);
    // The same flag with a style that is not among the models: no section 32.
    M2DSliceVectorBlock* other = AddBlock(slice, e2DSliceVectorType_Border, 6, 1, {M2DSliceVector(0, 0, 20000, 0)});
    other->GetTypeInfoUpdate().SetFlag(4, true);
    auto stack = StackOf({slice}, 500);
    Style style;
    style.Id = 5;
    style.Speed = 1000.0;
    style.SpeedFactor = 0.5;
    style.Power = 300.0;
    style.PowerFactor = 0.25;
    style.PointDistance = 10;
    style.ExposureTime = 20;
    DescribePart(*stack->GetProperties(), 1, L"A", {style});
    const std::string file = WriteSlm({stack.get()}, dir.File("flag4.slm"));
    const std::string extra = Bytes()
                                  .text(std::string("\x20\x20\x1F", 3))         // section 32, 31 bytes
                                  .text(std::string("\x0F\x04", 2)).f32(500.0f) // speed x factor
                                  .text(std::string("\x10\x04", 2)).f32(75.0f)  // power x factor
                                  .text(std::string("\x11\x04", 2)).f32(0.5f)
                                  .text(std::string("\x19\x01\x0A\x1A\x01\x14", 6))
                                  .text(std::string("\x20\x22\x04", 3)).i32(1).s;
    const std::string expected = Bytes()
                                     .text(std::string("\x0B\x20\x3B\x20\x21\x01\x01\x0E\x01\x05", 10)) // 59 bytes
                                     .text(extra)
                                     .text(std::string("\x13\x10", 2)).f32(0).f32(0).f32(2).f32(0)
                                     .text(std::string("\x0B\x19\x20\x21\x01\x01\x0E\x01\x06\x13\x10", 11))
                                     .f32(0).f32(0).f32(2).f32(0).s;
    EXPECT_TRUE(kit::SameBytes(expected, FirstLayer(file)));

    // Read back: the extra style makes a generated build parameter instance from 1000 up, and
    // the block's parameter id is that instance's id.
    auto read = ReadSlm(dir.File("flag4.slm"));
    ASSERT_TRUE(read);
    const M2DSliceVectorBlock* first = read->GetSlice(0)->GetVectors()->GetFirstVectorBlock();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Parameter), 1000);
    const M2DSliceBuildParameters* table = M2DSliceBuildParameters::Get(read->GetProperties(), false);
    ASSERT_TRUE(table && table->GetNumInstances() == 2u);
    EXPECT_EQ(table->GetInstance(1).GetID(), 1000);
    EXPECT_EQ(table->GetInstance(1).GetSpeed(), 500.0);
    // The second block's style is unknown: parameter id and property index stay 0.
    const M2DSliceVectorBlock* second = first->GetNextVectorBlock();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Parameter), 0);
    EXPECT_EQ(second->GetTypeInfo().GetIndex(1), 0);
}

TEST(SlmLayerTest, SecondPassGetsItsOwnSectionAndEntryAndReadsBackAsOneSlice)
{
    ts::ScratchDir dir;
    M2DSlice a = SliceAt(300), b = SliceAt(300), c = SliceAt(600);
    AddBlock(a, e2DSliceVectorType_Hatch, 3, 1, {M2DSliceVector(0, 0, 10000, 0)});
    AddBlock(b, e2DSliceVectorType_Hatch, 3, 2, {M2DSliceVector(0, 10000, 10000, 10000)})
        ->GetTypeInfoUpdate()
        .SetFlag(8, true);
    // At 600 only the second pass has content: the first list is written empty all the same.
    AddBlock(c, e2DSliceVectorType_Hatch, 3, 2, {M2DSliceVector(0, 20000, 10000, 20000)})
        ->GetTypeInfoUpdate()
        .SetFlag(8, true);
    auto first = StackOf({a}, 300), second = StackOf({b, c}, 300);
    DescribePart(*first->GetProperties(), 1, L"A", {Style()});
    DescribePart(*second->GetProperties(), 2, L"B", {Style()});
    const std::string file = WriteSlm({first.get(), second.get()}, dir.File("two.slm"));

    std::int64_t secondAt = 0;
    const std::string layer = FirstLayer(file, &secondAt);
    EXPECT_TRUE(kit::SameBytes(Bytes().text("\x0C\x16\x12\x02\x01\x03\x14\x10").f32(0).f32(0).f32(1).f32(0).s, layer));
    ASSERT_GT(secondAt, 0);
    EXPECT_EQ(file.substr(static_cast<std::size_t>(secondAt), 2), "\x0A\x18");
    const std::size_t empty = file.find(std::string("\x0A\x00", 2), static_cast<std::size_t>(secondAt) + 26);
    EXPECT_EQ(empty, static_cast<std::size_t>(secondAt) + 26); // the empty first list at 600

    auto read = ReadSlm(dir.File("two.slm"));
    ASSERT_TRUE(read);
    ASSERT_EQ(read->GetNumSlices(), 2u);
    const M2DSlice& joined = *read->GetSlice(0);
    EXPECT_EQ(joined.GetZ(), 300);
    ASSERT_EQ(joined.GetVectors()->GetNumVectorBlocks(), 2u);
    EXPECT_FALSE(joined.GetVectors()->GetVectorBlock(0)->GetTypeInfo().GetFlag(8));
    EXPECT_TRUE(joined.GetVectors()->GetVectorBlock(1)->GetTypeInfo().GetFlag(8));
    EXPECT_EQ(joined.GetVectors()->GetVectorBlock(1)->Vectors[0], M2DSliceVector(0, 10000, 10000, 10000));
    EXPECT_EQ(read->GetSlice(1)->GetZ(), 600);
    EXPECT_TRUE(read->GetSlice(1)->GetVectors()->GetVectorBlock(0)->GetTypeInfo().GetFlag(8));
}

TEST(SlmLayerTest, BuildOrderSortsEachSliceAndTheWholeListOnlyByBuildOrder)
{
    ts::ScratchDir dir;
    M2DSlice a = SliceAt(300), b = SliceAt(300);
    AddBlock(a, e2DSliceVectorType_Hatch, 1, 1, {M2DSliceVector(0, 0, 10000, 0)});
    AddBlock(a, e2DSliceVectorType_Border, 2, 1, {M2DSliceVector(0, 0, 20000, 0)});
    AddBlock(b, e2DSliceVectorType_Hatch, 1, 2, {M2DSliceVector(0, 0, 30000, 0)});
    AddBlock(b, e2DSliceVectorType_Border, 2, 2, {M2DSliceVector(0, 0, 40000, 0)});
    auto sa = StackOf({a}, 300), sb = StackOf({b}, 300);
    DescribePart(*sa->GetProperties(), 1, L"A", {Style()});
    DescribePart(*sb->GetProperties(), 2, L"B", {Style()});
    // Borders first: the order entry of kind 1 matches blocks whose index 6 is 0 on both sides.
    const std::vector<M2DSliceVectorTypeInfo> order = {M2DSliceVectorTypeInfo(e2DSliceVectorType_Border),
                                                       M2DSliceVectorTypeInfo(e2DSliceVectorType_Hatch)};
    auto endsOf = [&](const std::string& name, M2DSliceIO_slm::EWriteOrder writeOrder) {
        WriteSlm({sa.get(), sb.get()}, dir.File(name), [&](M2DSliceIO_slm& io) {
            io.SetBuildOrder(order);
            io.SetWriteOrder(writeOrder);
        });
        std::vector<int> ends;
        auto read = ReadSlm(dir.File(name));
        for (std::size_t i = 0; read && i < read->GetSlice(0)->GetVectors()->GetNumVectorBlocks(); ++i)
            ends.push_back(read->GetSlice(0)->GetVectors()->GetVectorBlock(i)->Vectors[0].x2 / 10000);
        return ends;
    };
    EXPECT_EQ(endsOf("per.slm", M2DSliceIO_slm::WriteOrderPerSlice), (std::vector<int>{2, 1, 4, 3}));
    EXPECT_EQ(endsOf("all.slm", M2DSliceIO_slm::WriteOrderByBuildOrder), (std::vector<int>{2, 4, 1, 3}));
}

TEST(SlmLayerTest, ModelsAndStylesBecomeBuildParametersAndLabels)
{
    ts::ScratchDir dir;
    M2DSlice part = SliceAt(300), support = SliceAt(300);
    AddBlock(part, e2DSliceVectorType_Hatch, 4, 7, {M2DSliceVector(0, 0, 10000, 0)});
    AddBlock(support, e2DSliceVectorType_Border, 19, 7, {M2DSliceVector(0, 0, 10000, 10000)});
    auto sp = StackOf({part}, 300), ss = StackOf({support}, 300);
    Style contour;
    contour.Id = 4;
    contour.Name = L"Contour";
    Style dropped; // id 16 is kept only for volume supports
    dropped.Id = 16;
    Style wall;
    wall.Id = 19;
    wall.Name = L"Wall";
    wall.Speed = 800;
    DescribePart(*sp->GetProperties(), 7, L"Gear", {contour, dropped});
    DescribePart(*ss->GetProperties(), 7, L"Gear", {dropped, wall}, true);
    WriteSlm({sp.get(), ss.get()}, dir.File("styles.slm"));

    auto read = ReadSlm(dir.File("styles.slm"));
    ASSERT_TRUE(read);
    const M2DSliceBuildParameters* table = M2DSliceBuildParameters::Get(read->GetProperties(), false);
    ASSERT_TRUE(table && table->GetNumInstances() == 2u);
    EXPECT_EQ(table->GetLookupIds().First, 0);
    const M2DSliceBuildParameters::Instance& first = table->GetInstance(0);
    EXPECT_EQ(first.GetID(), 4);
    EXPECT_EQ(first.GetName(), L"Contour");
    std::wstring typeName;
    double exposure = 0, distance = 0;
    std::int32_t model = 0;
    EXPECT_TRUE(first.GetProperties().GetValue(L"VectorTypeName", typeName));
    EXPECT_EQ(typeName, std::wstring(L"Contour\0\0", 9)); // the name keeps its NUL and one more
    EXPECT_TRUE(first.GetProperties().GetValue(L"ExposureTime", exposure) && exposure == 80 / 1e6);
    EXPECT_TRUE(first.GetProperties().GetValue(L"PointDistance", distance) && distance == 0.07);
    EXPECT_TRUE(first.GetProperties().GetValue(L"ModelID", model) && model == 7);
    EXPECT_EQ(table->GetInstance(1).GetID(), 19);
    EXPECT_EQ(table->GetInstance(1).GetSpeed(), 800.0);

    // Style 4 reads as kind 2 with flag 2; style 19 as a hatch of kind 1 with flag 1.
    const M2DSliceVectorLayer& v = *read->GetSlice(0)->GetVectors();
    ASSERT_EQ(v.GetNumVectorBlocks(), 2u);
    const M2DSliceVectorTypeInfo& hatch = v.GetVectorBlock(0)->GetTypeInfo();
    EXPECT_EQ(hatch.GetType(), 2);
    EXPECT_TRUE(hatch.GetFlag(2));
    EXPECT_EQ(hatch.GetIndex(e2DSliceVectorTypeIndex_Parameter), 4);
    EXPECT_EQ(hatch.GetIndex(e2DSliceVectorTypeIndex_Part), 7);
    const M2DSliceVectorTypeInfo& wallLabel = v.GetVectorBlock(1)->GetTypeInfo();
    EXPECT_EQ(wallLabel.GetType(), 1);
    EXPECT_TRUE(wallLabel.GetFlag(1));
    EXPECT_EQ(wallLabel.GetIndex(1), 1); // the second distinct property
    Indexed list;
    ASSERT_TRUE(read->GetProperties()->GetValue(L"SLMBuildStyles", list));
    ASSERT_EQ(list.GetNum(), 2u);
    std::int32_t id = 0;
    EXPECT_TRUE(list.Get(1).GetValue(L"SLMBuildStyleID", id) && id == 19);
}

TEST(SlmLayerTest, NegativeHeightsAreDroppedAndTheIteratorSeeksThroughTheTable)
{
    ts::ScratchDir dir;
    std::vector<M2DSlice> slices;
    for (int i = -1; i < 6; ++i)
    {
        M2DSlice s = SliceAt(100 * i);
        AddBlock(s, e2DSliceVectorType_Hatch, 3, 1, {M2DSliceVector(i * 10000, 0, i * 10000 + 5000, 0)});
        slices.push_back(s);
    }
    auto stack = StackOf(slices, 100);
    DescribePart(*stack->GetProperties(), 1, L"A", {Style()});
    WriteSlm({stack.get()}, dir.File("seek.slm"));
    M2DSliceContainerIterator it(dir.WFile("seek.slm"), 47, true, 0, true);
    ASSERT_TRUE(it.IsValid());
    ASSERT_EQ(it.GetNumSlices(), 6u); // the slice at -100 is not written
    for (std::uint64_t i : {4u, 1u, 5u, 0u, 3u})
    {
        M2DSlice s;
        it.GetSlice(s, i);
        EXPECT_EQ(s.GetZ(), static_cast<int>(100 * i));
        ASSERT_EQ(s.GetVectors()->GetTotalNumVectors(), 1u);
        EXPECT_EQ(s.GetVectors()->GetFirstVectorBlock()->Vectors[0].x1, static_cast<int>(i * 10000));
    }
}

TEST(SlmLayerTest, SourcesWithoutModelKeysFailUnlessDefaultsStandIn)
{
    ts::ScratchDir dir;
    M2DSlice slice = SliceAt(300);
    AddBlock(slice, e2DSliceVectorType_Hatch, 3, 1, {M2DSliceVector(0, 0, 10000, 0)});
    auto stack = StackOf({slice}, 300);
    auto io = std::make_shared<M2DSliceIO_slm>(false);
    std::shared_ptr<I2DSliceIO> base = io;
    M2DSliceContainerIO out(base);
    EXPECT_FALSE(out.WriteContainer(*stack, dir.WFile("bare.slm"), 10000, 1, nullptr));
    EXPECT_NE(io->GetFailureReason().find("PartID"), std::string::npos) << io->GetFailureReason();

    PersistentProperties defaults;
    DescribePart(defaults, 1, L"", {Style()});
    io->SetSourceDefaults(defaults);
    EXPECT_TRUE(out.WriteContainer(*stack, dir.WFile("bare.slm"), 10000, 1, nullptr)) << io->GetFailureReason();
    auto read = ReadSlm(dir.File("bare.slm"));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->GetSlice(0)->GetVectors()->GetFirstVectorBlock()->GetTypeInfo().GetIndex(0), 3);

    // A block with a negative id cannot be written as an LF number: the layer fails (the
    // whole-file driver goes on with the next) and gets no seek table entry.
    M2DSlice bad = SliceAt(300), good = SliceAt(600);
    AddBlock(bad, e2DSliceVectorType_Hatch, -1, 1, {M2DSliceVector(0, 0, 10000, 0)});
    AddBlock(good, e2DSliceVectorType_Hatch, 3, 1, {M2DSliceVector(0, 0, 10000, 0)});
    auto badStack = StackOf({bad, good}, 300);
    out.WriteContainer(*badStack, dir.WFile("bad.slm"), 10000, 1, nullptr);
    EXPECT_NE(io->GetFailureReason().find("layer 0: a block's model or build style id is negative"), std::string::npos)
        << io->GetFailureReason();
    auto partial = ReadSlm(dir.File("bad.slm"));
    ASSERT_TRUE(partial && partial->GetNumSlices() == 1u);
    EXPECT_EQ(partial->GetSlice(0)->GetZ(), 600);
}
