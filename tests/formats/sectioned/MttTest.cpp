// MTT layer files: a small build byte by byte, the quirks that set them apart from SLM files
// (truncated coordinates, no laser index or names, the style table, the top slice with
// supports, write orders, one layer section per height), the compressed form, round trips
// and damaged files.
#include "SlmTestSupport.h"

#include <cmath>

#include "formats/sectioned/M2DSliceIO_mtt.h"
#include "framework/M2DSliceContainerIterator.h"
#include "tests/kit/BuildGenerator.h"

using namespace slmtest;
using kit::Bytes;

namespace {

std::string Hex(std::initializer_list<unsigned> bytes)
{
    std::string s;
    for (unsigned b : bytes)
        s += static_cast<char>(b);
    return s;
}

// Writes the sources with an MTT object (code 51) through M2DSliceContainerIO in
// millimetres; the bytes, or empty with the reason in the test log.
std::string WriteMtt(const std::vector<const ISource2DSlices*>& sources, const std::string& path,
                     const std::function<void(M2DSliceIO_mtt&)>& prepare = nullptr, bool compressed = false)
{
    return WriteSectioned<M2DSliceIO_mtt>(sources, path, 51, prepare, compressed);
}

std::unique_ptr<M2DSliceStack> ReadAs(const std::string& path, short code)
{
    auto stack = std::make_unique<M2DSliceStack>();
    M2DSliceContainerIO in(code);
    I2DSliceIO::ReadOptions options;
    options.VectorBlocks.MergeBlocks = false;
    in.SetReadOptions(options);
    if (!in.ReadContainer(*stack, ts::Wide(path), true, nullptr))
    {
        ADD_FAILURE() << "read failed: " << in.GetSliceIO()->GetFailureReason();
        return nullptr;
    }
    return stack;
}

// The first start x of each block of a slice, in order, in whole millimetres.
std::vector<int> BlockOrder(const M2DSlice& slice)
{
    std::vector<int> xs;
    for (const M2DSliceVectorBlock* b = slice.GetVectors()->GetFirstVectorBlock(); b; b = b->GetNextVectorBlock())
        xs.push_back(b->Vectors.empty() ? -1 : b->Vectors.front().x1 / 10000);
    return xs;
}

// A file of one layer at z 300 holding one hatch vector of the given floats (model 1,
// style 3), with the MTT header of sections 2 and 4 only; the checksum is not read.
std::string HandMadeMtt(float x1, float y1, float x2, float y2)
{
    Bytes b;
    b.text("\x01\x1A");
    b.text("\x02\x0E").text("MTT-Layerfile").u8(0);
    b.text(std::string("\x04\x08\xE0\0\0\0\0\0\0\x36", 10)); // seek table at 54
    b.text("\x0A\x18\x0C\x16\x12\x02\x01\x03\x14\x10").f32(x1).f32(y1).f32(x2).f32(y2);
    b.text("\x08\x09\x09\x07\x17\x01\x1C\x18\x02\x21\x2C"); // the layer at 28, z 300
    b.text("\x15\x04").u32(0);
    return b.s;
}

} // namespace

// One part (id 2, named "P" up to a NUL) with one build style, one layer at 0.03 mm holding a
// hatch block and a polygon block with flag 4. Every byte below is counted from the tables of
// the format.
TEST(MttFrameTest, SmallBuildByteForByte)
{
    ts::ScratchDir dir;
    M2DSlice slice = SliceAt(300);
    AddBlock(slice, e2DSliceVectorType_Hatch, 3, 2, {M2DSliceVector(10000, 20000, 30000, 20000)});
    M2DSliceVectorBlock* border = AddBlock(slice, e2DSliceVectorType_Border, 3, 2,
                                           {M2DSliceVector(0, 0, 10000, 0), M2DSliceVector(10000, 0, 10000, 10000)});
    M2DSliceVectorTypeInfo label = border->GetTypeInfo();
    label.SetFlag(4, true); // an SLM writer would write sections 33, 14 and 32 here
    border->SetTypeInfo(label);
    auto stack = StackOf({slice}, 300);
    DescribePart(*stack->GetProperties(), 2, std::wstring(L"P\0x", 3), {Style()});
    const std::string file = WriteMtt({stack.get()}, dir.File("small.mtt"));

    Bytes e;
    e.text(Hex({0x01, 0xE0, 0, 0, 0, 0, 0, 0, 0x57}));                 // header, 87 bytes
    e.text(Hex({0x02, 0x0E})).text("MTT-Layerfile").u8(0);              // file id
    e.text(Hex({0x03, 0x02, 0x01, 0x00}));                              // version 1.0
    e.text(Hex({0x1B, 0x03, 0x40, 0x27, 0x10}));                        // z unit 10000
    e.text(Hex({0x04, 0x08, 0xE0, 0, 0, 0, 0, 0, 0, 0x9B}));            // seek table at 155
    e.text(Hex({0x05, 0xE0, 0, 0, 0, 0, 0, 0, 0x2B}));                  // model, 43
    e.text(Hex({0x06, 0x01, 0x02}));                                    // model id 2
    e.text(Hex({0x07, 0x04})).u16('P').u16(0);                          // name up to its NUL
    e.text(Hex({0x16, 0x01, 0x01}));                                    // top slice: one slice
    e.text(Hex({0x0D, 0x1D}));                                          // build style, 29
    e.text(Hex({0x0E, 0x01, 0x03}));                                    // style id 3
    e.text(Hex({0x0F, 0x04})).f32(1000.0f);                             // speed
    e.text(Hex({0x10, 0x04})).f32(200.0f);                              // power
    e.text(Hex({0x11, 0x04})).f32(0.5f);                                // focus
    e.text(Hex({0x19, 0x02, 0x20, 0x46}));                              // point distance 70
    e.text(Hex({0x1A, 0x02, 0x20, 0x50}));                              // exposure time 80, no 34 or 40
    ASSERT_EQ(e.s.size(), 96u);
    e.text(Hex({0x0A, 0x20, 0x38}));                                    // layer, 56: two bytes
    e.text(Hex({0x0C, 0x16, 0x12, 0x02, 0x02, 0x03, 0x14, 0x10}));      // hatch: ids, 16 bytes
    e.f32(1.0f).f32(2.0f).f32(3.0f).f32(2.0f);
    e.text(Hex({0x0B, 0x1E, 0x12, 0x02, 0x02, 0x03, 0x13, 0x18}));      // polygon: section 18 all the same
    e.f32(0.0f).f32(0.0f).f32(1.0f).f32(0.0f).f32(1.0f).f32(1.0f);
    ASSERT_EQ(e.s.size(), 155u);
    e.text(Hex({0x08, 0xE0, 0, 0, 0, 0, 0, 0, 0x0A}));                  // seek table, 10
    e.text(Hex({0x09, 0x08, 0x17, 0x02, 0x20, 0x60, 0x18, 0x02, 0x21, 0x2C})); // at 96, z 300
    e.text(Hex({0x15, 0x04}));
    e.u32(Crc(e.s, e.s.size()));
    EXPECT_TRUE(kit::SameBytes(e.s, file));
    // The file id is MTT's whatever the file-type code says.
    EXPECT_EQ(WriteMtt({stack.get()}, dir.File("as47.mtt"), [](M2DSliceIO_mtt& io) { io.SetFileType(47); }), file);

    // Read back as MTT: style 3 is a type 1 block whichever section it came in; index 0 is the
    // style id, 2 the model, 1 the property index.
    auto read = ReadAs(dir.File("small.mtt"), 51);
    ASSERT_TRUE(read && read->GetNumSlices() == 1u);
    EXPECT_EQ(read->GetSlice(0)->GetZ(), 300);
    ASSERT_EQ(read->GetSlice(0)->GetVectors()->GetNumVectorBlocks(), 2u);
    for (const M2DSliceVectorBlock* b = read->GetSlice(0)->GetVectors()->GetFirstVectorBlock(); b;
         b = b->GetNextVectorBlock())
    {
        EXPECT_EQ(b->GetTypeInfo().GetType(), 1);
        EXPECT_EQ(b->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Parameter), 3);
        EXPECT_EQ(b->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Part), 2);
        EXPECT_EQ(b->GetTypeInfo().GetIndex(1), 0);
        EXPECT_FALSE(b->GetTypeInfo().GetFlag(4));
    }

    // The same build styles read back without laser index and names: the build parameters
    // carry the style as instance 3, without "BuildStyleID" and "VectorTypeName".
    const M2DSliceBuildParameters* parameters = M2DSliceBuildParameters::Get(read->GetProperties(), false);
    ASSERT_TRUE(parameters && parameters->GetNumInstances() == 1u);
    const auto& instance = parameters->GetInstance(0);
    EXPECT_EQ(instance.GetID(), 3);
    EXPECT_EQ(instance.GetName(), L"");
    EXPECT_EQ(instance.GetSpeed(), 1000.0);
    std::int32_t index = -1, model = 0, any = 0;
    std::wstring name;
    EXPECT_TRUE(instance.GetProperties().GetValue(L"LaserIndex", index) && index == 0);
    EXPECT_TRUE(instance.GetProperties().GetValue(L"ModelID", model) && model == 2);
    EXPECT_FALSE(instance.GetProperties().GetValue(L"BuildStyleID", any));
    EXPECT_FALSE(instance.GetProperties().GetValue(L"VectorTypeName", name));
    Indexed styles;
    ASSERT_TRUE(read->GetProperties()->GetValue(L"SLMBuildStyles", styles));
    ASSERT_EQ(styles.GetNum(), 1u);
    EXPECT_TRUE(styles.Get(0).GetValue(L"LaserIndex", index) && index == 0);
    EXPECT_TRUE(styles.Get(0).GetValue(L"SLMBuildStyleID", index) && index == 3);
    EXPECT_FALSE(styles.Get(0).GetValue(L"SLMBuildStyleName", name));

    // The SLM reader takes the file too: its header says what it is.
    M2DSliceIO_slm slm(false);
    ASSERT_TRUE(slm.OpenFile(dir.WFile("small.mtt"), I2DSliceIO::Read));
    ASSERT_TRUE(slm.ReadHeader(nullptr));
    EXPECT_EQ(slm.GetHeaderInfo().at("File ID String"), "MTT-Layerfile");
    EXPECT_EQ(slm.GetHeaderInfo().at("File Version"), "1.0");
    slm.CloseFile();
    auto asSlm = ReadAs(dir.File("small.mtt"), 47);
    ASSERT_TRUE(asSlm && asSlm->GetNumSlices() == 1u);
    EXPECT_EQ(asSlm->GetSlice(0)->GetVectors()->GetTotalNumVectors(), 3u);
}

TEST(MttReadTest, CoordinatesTruncateTowardZeroWhereSlmRounds)
{
    ts::ScratchDir dir;
    // 1.9999 units, its negative, and two values a float holds exactly.
    ts::WriteFile(dir.File("hand.mtt"), HandMadeMtt(0.00019999f, -0.00019999f, 0.5f, -0.25f));
    auto mtt = ReadAs(dir.File("hand.mtt"), 51);
    auto slm = ReadAs(dir.File("hand.mtt"), 47);
    ASSERT_TRUE(mtt && slm && mtt->GetNumSlices() == 1u && slm->GetNumSlices() == 1u);
    EXPECT_EQ(mtt->GetSlice(0)->GetVectors()->GetFirstVectorBlock()->Vectors,
              std::vector<M2DSliceVector>{M2DSliceVector(1, -1, 5000, -2500)});
    EXPECT_EQ(slm->GetSlice(0)->GetVectors()->GetFirstVectorBlock()->Vectors,
              std::vector<M2DSliceVector>{M2DSliceVector(2, -2, 5000, -2500)});
    // The box follows the vectors read.
    const M2DSliceXYArea& box = mtt->GetSlice(0)->GetXYArea(false);
    EXPECT_EQ(std::make_tuple(box.XMin, box.YMin, box.XMax, box.YMax), std::make_tuple(1, -2500, 5000, -1));
    // A scan measures the same box from the extreme floats alone.
    M2DSliceContainerIterator it(dir.WFile("hand.mtt"), 51, true, 0, true);
    ASSERT_TRUE(it.IsValid() && it.GetNumSlices() == 1u);
    const M2DSliceXYArea scanned = it.GetXYArea(0);
    EXPECT_EQ(std::make_tuple(scanned.XMin, scanned.YMin, scanned.XMax, scanned.YMax),
              std::make_tuple(1, -2500, 5000, -1));
    // Beyond the int range a coordinate is held at its ends, and NaN reads 0.
    ts::WriteFile(dir.File("far.mtt"), HandMadeMtt(1e30f, -1e30f, std::nanf(""), 0.0f));
    auto far = ReadAs(dir.File("far.mtt"), 51);
    ASSERT_TRUE(far && far->GetNumSlices() == 1u);
    EXPECT_EQ(far->GetSlice(0)->GetVectors()->GetFirstVectorBlock()->Vectors,
              std::vector<M2DSliceVector>{M2DSliceVector(INT32_MAX, INT32_MIN, 0, 0)});
}

TEST(MttReadTest, BuildStyleIdsGiveTheirVectorTypes)
{
    // One hatch block per style id; the table of the format, flag 1 on the support styles.
    const std::vector<std::pair<int, int>> table = {
        {1, 9},  {12, 9}, {42, 9}, {2, 7},  {10, 7}, {13, 7}, {20, 7}, {22, 7}, {78, 7}, {3, 1},
        {16, 1}, {19, 1}, {72, 1}, {4, 2},  {6, 2},  {74, 2}, {75, 2}, {76, 2}, {21, 10}, {77, 10},
        {24, 8}, {71, 4}, {73, 4}, {0, 6},  {5, 6},  {17, 6}, {60, 6}, {61, 6}, {70, 6}, {100, 6},
    };
    ts::ScratchDir dir;
    M2DSlice slice = SliceAt(100);
    for (std::size_t i = 0; i < table.size(); ++i)
        AddBlock(slice, e2DSliceVectorType_Hatch, table[i].first, 1,
                 {M2DSliceVector(static_cast<int>(i) * 10000, 0, static_cast<int>(i) * 10000, 10000)});
    auto stack = StackOf({slice}, 100);
    DescribePart(*stack->GetProperties(), 1, L"", {Style()});
    ASSERT_FALSE(WriteMtt({stack.get()}, dir.File("types.mtt")).empty());
    auto read = ReadAs(dir.File("types.mtt"), 51);
    ASSERT_TRUE(read && read->GetNumSlices() == 1u);
    std::size_t i = 0;
    for (const M2DSliceVectorBlock* b = read->GetSlice(0)->GetVectors()->GetFirstVectorBlock(); b;
         b = b->GetNextVectorBlock(), ++i)
    {
        ASSERT_LT(i, table.size());
        const int id = table[i].first;
        EXPECT_EQ(b->GetTypeInfo().GetType(), table[i].second) << "style " << id;
        EXPECT_EQ(b->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Parameter), id);
        EXPECT_EQ(b->GetTypeInfo().GetFlag(1), id == 16 || id == 17 || id == 19) << "style " << id;
        // No other attribute: SLM's extra flags and indexes are not set.
        for (int flag : {2, 3, 4, 8, 9})
            EXPECT_FALSE(b->GetTypeInfo().GetFlag(flag)) << "style " << id << " flag " << flag;
    }
    EXPECT_EQ(i, table.size());
}

TEST(MttWriteTest, TopSliceCountsSupportSlicesBelowAndAboveThePart)
{
    ts::ScratchDir dir;
    std::vector<M2DSlice> partSlices;
    for (int z : {100, 200, 300})
    {
        partSlices.push_back(SliceAt(z));
        AddBlock(partSlices.back(), e2DSliceVectorType_Hatch, 3, 1, {M2DSliceVector(0, 0, 10000, 0)});
    }
    auto part = StackOf(partSlices, 100);
    DescribePart(*part->GetProperties(), 1, L"A", {Style()});
    // Non-empty support slices at 0 and 50 (below), 400 and 500 (above); empty ones at 60 and
    // 450 and one inside the part's range do not count.
    std::vector<M2DSlice> slices;
    for (int z : {0, 50, 60, 200, 400, 450, 500})
    {
        M2DSlice s = SliceAt(z);
        if (z != 60 && z != 450)
            AddBlock(s, e2DSliceVectorType_Hatch, 19, 1, {M2DSliceVector(0, 0, 0, 10000)});
        slices.push_back(s);
    }
    auto support = StackOf(slices, 50);
    Style wall;
    wall.Id = 19;
    DescribePart(*support->GetProperties(), 1, L"", {wall}, true);
    // A model of supports alone has no part: its top slice is 0.
    M2DSlice lonelySlice = SliceAt(100);
    AddBlock(lonelySlice, e2DSliceVectorType_Hatch, 19, 7, {M2DSliceVector(0, 0, 0, 10000)});
    auto lonely = StackOf({lonelySlice}, 100);
    DescribePart(*lonely->GetProperties(), 7, L"", {wall}, true);
    ASSERT_FALSE(WriteMtt({part.get(), support.get(), lonely.get()}, dir.File("top.mtt")).empty());

    M2DSliceIO_mtt reader(false);
    ASSERT_TRUE(reader.OpenFile(dir.WFile("top.mtt"), I2DSliceIO::Read));
    ASSERT_TRUE(reader.ReadHeader(nullptr));
    const auto& models = reader.GetModelTable();
    ASSERT_EQ(models.size(), 2u);
    EXPECT_EQ(models.at(1)->ModelTopSlice, 3 + 2 + 2);
    EXPECT_EQ(models.at(7)->ModelTopSlice, 0);
    // The wall support's style 19 joins the part's style 3 in model 1.
    EXPECT_EQ(models.at(1)->BuildStyles.size(), 2u);
    reader.CloseFile();
}

TEST(MttWriteTest, WriteOrdersAndNegativeHeights)
{
    ts::ScratchDir dir;
    // Two sources of one model at one height, each a border then a hatch; the hatch's label
    // carries index 6 = 5, so only an order entry equal to it as a whole matches it.
    auto make = [](int x) {
        M2DSlice slice = SliceAt(100);
        AddBlock(slice, e2DSliceVectorType_Border, 3, 1, {M2DSliceVector(x * 10000, 0, x * 10000, 10000)});
        M2DSliceVectorBlock* hatch =
            AddBlock(slice, e2DSliceVectorType_Hatch, 3, 1, {M2DSliceVector((x + 1) * 10000, 0, (x + 1) * 10000, 10000)});
        M2DSliceVectorTypeInfo label = hatch->GetTypeInfo();
        label.SetIndex(6, 5);
        hatch->SetTypeInfo(label);
        return slice;
    };
    M2DSlice below = SliceAt(-100); // a negative height writes nothing and the write goes on
    AddBlock(below, e2DSliceVectorType_Hatch, 3, 1, {M2DSliceVector(0, 0, 1, 1)});
    auto a = StackOf({below, make(0)}, 100);
    auto b = StackOf({make(10)}, 100);
    DescribePart(*a->GetProperties(), 1, L"A", {Style()});
    DescribePart(*b->GetProperties(), 1, L"B", {Style()});
    M2DSliceVectorTypeInfo hatchOrder = b->GetSlice(0)->GetVectors()->GetVectorBlock(1)->GetTypeInfo();
    const std::vector<M2DSliceVectorTypeInfo> order = {hatchOrder, M2DSliceVectorTypeInfo(e2DSliceVectorType_Border)};

    auto orderOf = [&](const std::string& name, short code, int writeOrder) {
        auto io = std::shared_ptr<M2DSliceIO_sectioned>(code == 51 ? static_cast<M2DSliceIO_sectioned*>(new M2DSliceIO_mtt(false))
                                                                   : new M2DSliceIO_slm(false));
        io->SetFileType(static_cast<unsigned short>(code));
        io->SetBuildOrder(order);
        io->SetWriteOrder(static_cast<M2DSliceIO_sectioned::EWriteOrder>(writeOrder));
        std::shared_ptr<I2DSliceIO> base = io;
        M2DSliceContainerIO out(base);
        EXPECT_TRUE(out.WriteContainers({a.get(), b.get()}, dir.WFile(name), 10000, 1, nullptr)) << io->GetFailureReason();
        auto read = ReadAs(dir.File(name), code);
        EXPECT_TRUE(read && read->GetNumSlices() == 1u) << name;
        return read && read->GetNumSlices() == 1u ? BlockOrder(*read->GetSlice(0)) : std::vector<int>{};
    };
    // Per slice: each slice's blocks as they come. By build order: the MTT rule matches the
    // hatches by their whole label, ahead of the borders.
    EXPECT_EQ(orderOf("one.mtt", 51, 1), (std::vector<int>{0, 1, 10, 11}));
    EXPECT_EQ(orderOf("zero.mtt", 51, 0), (std::vector<int>{1, 11, 0, 10}));
    // The SLM rule knows no whole-label match: its per-slice pass already puts the borders
    // first, and the hatches follow.
    EXPECT_EQ(orderOf("zero.slm", 47, 0), (std::vector<int>{0, 10, 1, 11}));
    // The negative height left no layer and no entry behind: one seek table entry, at z 100.
    const std::string file = ts::ReadFile(dir.File("one.mtt"));
    const std::int64_t table = SeekTableOffset(file, 36);
    ASSERT_LT(static_cast<std::size_t>(table) + 9, file.size());
    EXPECT_EQ(static_cast<unsigned char>(file[static_cast<std::size_t>(table) + 8]), 8u + 2u); // one entry
}

TEST(MttWriteTest, SortedRegionsPutSupportsFirstWhenAsked)
{
    ts::ScratchDir dir;
    // Two outer contours, at x 0 and x 50 mm; hatches in the second region come first in the
    // slice, then one in the first, then a support block.
    M2DSlice slice = SliceAt(100);
    ts::AddContour(slice, ts::Square(0, 0, 100000));
    ts::AddContour(slice, ts::Square(500000, 0, 100000));
    AddBlock(slice, e2DSliceVectorType_Hatch, 3, 1, {M2DSliceVector(510000, 10000, 520000, 10000)});
    AddBlock(slice, e2DSliceVectorType_Border, 3, 1, {M2DSliceVector(530000, 10000, 540000, 10000)});
    AddBlock(slice, e2DSliceVectorType_Hatch, 3, 1, {M2DSliceVector(10000, 10000, 20000, 10000)});
    AddBlock(slice, e2DSliceVectorType_Border, 3, 1, {M2DSliceVector(30000, 10000, 40000, 10000)});
    AddBlock(slice, e2DSliceVectorType_Hatch, 19, 1, {M2DSliceVector(900000, 0, 900000, 10000)});
    auto stack = StackOf({slice}, 100);
    DescribePart(*stack->GetProperties(), 1, L"", {Style()});
    auto orderOf = [&](bool supportsFirst, int writeOrder) {
        const std::string name = "o" + std::to_string(writeOrder) + (supportsFirst ? "s" : "") + ".mtt";
        WriteMtt({stack.get()}, dir.File(name), [&](M2DSliceIO_mtt& io) {
            io.SetWriteOrder(static_cast<M2DSliceIO_sectioned::EWriteOrder>(writeOrder));
            io.SetSupportsFirst(supportsFirst);
            io.SetBuildOrder({M2DSliceVectorTypeInfo(e2DSliceVectorType_Border),
                              M2DSliceVectorTypeInfo(e2DSliceVectorType_Hatch)});
        });
        auto read = ReadAs(dir.File(name), 51);
        return read && read->GetNumSlices() == 1u ? BlockOrder(*read->GetSlice(0)) : std::vector<int>{};
    };
    // Borders, then hatches, each region by region; supports lead when asked.
    EXPECT_EQ(orderOf(true, 3), (std::vector<int>{90, 3, 53, 1, 51}));
    EXPECT_EQ(orderOf(false, 3), (std::vector<int>{3, 53, 1, 51, 90}));
    // Other orders leave a single slice as it is.
    EXPECT_EQ(orderOf(true, 1), (std::vector<int>{51, 53, 1, 3, 90}));
}

TEST(MttCompressedTest, CompressedOnWriteAndReadBackByEitherReader)
{
    ts::ScratchDir dir;
    BuildGenerator build(BuildShape::Rich(3, 2));
    const auto parts = build.SplitByPart();
    std::vector<const ISource2DSlices*> sources;
    for (const auto& part : parts)
        sources.push_back(part.get());
    PersistentProperties defaults;
    DescribePart(defaults, 1, L"", {Style()});
    auto prepare = [&](M2DSliceIO_mtt& io) { io.SetSourceDefaults(defaults); };
    const std::string plain = WriteMtt(sources, dir.File("plain.mtt"), prepare);
    const std::string coded = WriteMtt(sources, dir.File("coded.mtt"), prepare, true);
    ASSERT_GT(coded.size(), 121u);
    EXPECT_EQ(coded.substr(3, 29), std::string("\x02\x1B[Compressed SLM Buildfile]\0", 29));
    EXPECT_LT(coded.size(), plain.size());
    EXPECT_EQ(Crc(coded, coded.size() - 4), ByteOrder::LoadLE<std::uint32_t>(
                                                 reinterpret_cast<const unsigned char*>(coded.data()) + coded.size() - 4));

    // Decoded, it is an MTT file; the MTT reader and the SLM reader both take it.
    M2DSliceIO_mtt reader(false);
    ASSERT_TRUE(reader.OpenFile(dir.WFile("coded.mtt"), I2DSliceIO::Read));
    ASSERT_TRUE(reader.ReadHeader(nullptr)) << reader.GetFailureReason();
    EXPECT_TRUE(reader.IsCompressed());
    EXPECT_EQ(reader.GetHeaderInfo().at("File ID String"), "MTT-Layerfile");
    reader.CloseFile();
    auto fromPlain = ReadAs(dir.File("plain.mtt"), 51);
    for (short code : {51, 47})
    {
        auto fromCoded = ReadAs(dir.File("coded.mtt"), code);
        ASSERT_TRUE(fromPlain && fromCoded && fromCoded->GetNumSlices() == fromPlain->GetNumSlices()) << code;
        for (std::uint64_t i = 0; i < fromPlain->GetNumSlices(); ++i)
            EXPECT_EQ(fromCoded->GetSlice(i)->GetVectors()->GetTotalNumVectors(),
                      fromPlain->GetSlice(i)->GetVectors()->GetTotalNumVectors());
    }
}

TEST(MttReadTest, SharedBuildRoundTripsAndDamagedFilesFailCleanly)
{
    ts::ScratchDir dir;
    BuildGenerator build(BuildShape::Rich(5, 3));
    const auto parts = build.SplitByPart();
    std::vector<const ISource2DSlices*> sources;
    for (const auto& part : parts)
        sources.push_back(part.get());
    PersistentProperties defaults;
    DescribePart(defaults, 1, L"", {Style()});
    auto prepare = [&](I2DSliceIO& io) { dynamic_cast<M2DSliceIO_mtt&>(io).SetSourceDefaults(defaults); };
    std::string reason;
    const auto stack = kit::RoundTrip(51, sources, dir.File("rich.mtt"), 10000, 1, &reason, prepare);
    ASSERT_TRUE(stack) << reason;
    // Truncation loses at most one unit.
    kit::ExpectSameBuild(sources, *stack, FormatRegistry::ForCode(51)->Losses, 1);

    // The family's recognition tells MTT from SLM.
    const std::string bytes = ts::ReadFile(dir.File("rich.mtt"));
    short code = 0;
    ASSERT_TRUE(FormatRegistry::Sniff(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), code));
    EXPECT_EQ(code, 51);

    kit::SweepOptions options;
    options.MaxCases = 500;
    options.Make = [] { return std::make_shared<M2DSliceIO_mtt>(false); };
    kit::SweepTruncations(51, bytes, options);
    kit::SweepCorruptions(51, bytes, options);
}
