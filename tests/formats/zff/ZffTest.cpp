// ZFF build files: the header and the layer sections byte for byte, attributes that persist on
// reading, the list of distinct settings, round trips and damaged files.
#include <gtest/gtest.h>

#include <stdexcept>

#include "BuildGenerator.h"
#include "FormatTestKit.h"
#include "contracts/M2DSliceBuildParameters.h"
#include "formats/zff/M2DSliceIO_zff.h"
#include "framework/FormatDescriptor.h"
#include "framework/M2DSliceContainerIO.h"
#include "framework/M2DSliceIOFactory.h"
#include "tests/TestSupport.h"

using namespace ts;

namespace {

const std::string kFixedAttributes = "<VectorAttribute name=\"LaserPower\" id=\"6\"></VectorAttribute>\r\n"
                                     "<VectorAttribute name=\"Speed\" id=\"7\"></VectorAttribute>\r\n"
                                     "<VectorAttribute name=\"Focus\" id=\"8\"></VectorAttribute>\r\n"
                                     "<VectorAttribute name=\"PartId\" id=\"11\"></VectorAttribute>\r\n";

// An attribute section: head with size 4, then the value.
kit::Bytes& Attribute(kit::Bytes& b, unsigned id, float value) { return b.u16(id).u32(4).f32(value); }
kit::Bytes& Attribute(kit::Bytes& b, unsigned id, std::int32_t value) { return b.u16(id).u32(4).i32(value); }

bool Documented(const std::exception& e)
{
    return dynamic_cast<const std::out_of_range*>(&e) && std::string(e.what()) == "invalid map<K, T> key";
}

std::unique_ptr<M2DSliceStack> OneLayer(int part)
{
    auto stack = std::make_unique<M2DSliceStack>();
    M2DSlice slice;
    slice.SetZ(500);
    AddContour(slice, {{0, 0}, {12345, 0}, {12345, 20000}}, true, part);
    AddHatches(slice, {M2DSliceVector(2000, 5000, 8000, 5000)}, part);
    stack->AddSlice(slice, false);
    return stack;
}

bool Write(M2DSliceIO_zff& io, const ISource2DSlices& source, const std::string& path, std::int32_t inverse = 1)
{
    std::shared_ptr<I2DSliceIO> shared(&io, [](I2DSliceIO*) {});
    M2DSliceContainerIO driver(shared);
    return driver.WriteContainer(source, Wide(path), 10000, inverse, nullptr);
}

const std::string kReadHeader = "<Header type=\"Zanofab Buildfile\" version=\"1.0\">\r\n"
                                "<Origin>x</Origin>\r\n<Layers>2</Layers>\r\n"
                                "<Bounds xmin=\"-1.5\" ymin=\"0\" xmax=\"2\" ymax=\"3.25\"></Bounds>\r\n"
                                "<Zunit>10000</Zunit>\r\n<Zmin>300</Zmin>\r\n<Zmax>600</Zmax>\r\n"
                                "<LayerThickness>300</LayerThickness>\r\n<Machine>M</Machine>\r\n"
                                "<Material>Ti</Material>\r\n<Part name=\"a\" id=\"1\"></Part>\r\n"
                                "<Part name=\"b\" id=\"7\"></Part>\r\n" +
                                kFixedAttributes + "</Header>\r\n";

// Two layers worked out by hand: settings that persist, a block-only diameter, unknown sections
// at both levels, a contour, and a block without data.
std::string HandMadeFile()
{
    kit::Bytes b;
    b.text(kReadHeader);
    // Layer at 300: 10 + 9 + 58 + 46 = 123 bytes.
    b.u16(1).u32(123).u16(12).u32(4).i32(300);
    b.u16(99).u32(3).text("abc");
    b.u16(4).u32(52);
    Attribute(b, 6, 100.0f);
    Attribute(b, 7, 500.0f);
    Attribute(b, 11, std::int32_t{70000});
    b.u16(5).u32(16).f32(1).f32(2).f32(3).f32(4);
    b.u16(4).u32(40);
    Attribute(b, 34, 0.25f);
    b.u16(99).u32(2).u16(0);
    b.u16(5).u32(16).f32(0.5f).f32(0.5f).f32(1).f32(1);
    // Layer at 600: 10 + 46 + 16 = 72 bytes.
    b.u16(1).u32(72).u16(12).u32(4).i32(600);
    b.u16(2).u32(40);
    Attribute(b, 7, 500.0f);
    b.u16(3).u32(24).f32(0).f32(0).f32(1).f32(0).f32(1).f32(1);
    b.u16(4).u32(10);
    Attribute(b, 6, 200.0f);
    return b;
}

std::vector<const M2DSliceVectorBlock*> Blocks(const M2DSlice& slice)
{
    std::vector<const M2DSliceVectorBlock*> out;
    for (auto* b = slice.GetVectors()->GetFirstVectorBlock(); b; b = b->GetNextVectorBlock())
        out.push_back(b);
    return out;
}

// Writes the blocks of a layer last to first.
struct ReverseSort : I2DSliceOperatorSort
{
    void Sort(const std::vector<std::shared_ptr<const M2DSlice>>& slices,
              std::vector<const M2DSliceVectorBlock*>& blocks) override
    {
        for (const auto& slice : slices)
            for (auto* b = slice->GetVectors()->GetFirstVectorBlock(); b; b = b->GetNextVectorBlock())
                blocks.insert(blocks.begin(), b);
    }
};

} // namespace

TEST(M2DSliceIO_zffWriter, HeaderAndLayerByteExact)
{
    ScratchDir dir;
    auto stack = OneLayer(3);
    M2DSliceIO_zff io;
    ZffMetaData& meta = io.GetMetaData();
    meta.SetOrigin("Test Origin");
    meta.SetMaterial("Ti64");
    meta.SetLayerThickness(300); // the stack of one layer knows no thickness
    ZffVectorAttributes contour;
    contour.SetLaserPower(150.5f);
    contour.SetLaserSpeed(800.0f);
    contour.AddAttribute(9, std::int32_t{70});
    meta.SetAttributes(3, 1, contour); // part 3, contours (base kind 1)
    meta.AddAdditionalHeaderAttribute("Extra", 33);
    meta.AddAdditionalHeaderAttribute("Old", 9);
    meta.AddAdditionalHeaderAttribute("PointDistance", 9);
    const std::string path = dir.File("one.zff");
    ASSERT_TRUE(Write(io, *stack, path)) << io.GetFailureReason();

    kit::Bytes expected;
    expected.text("<Header type=\"Zanofab Buildfile\" version=\"1.0\">\r\n<Origin>Test Origin</Origin>\r\n"
                  "<Layers>1</Layers>\r\n<Bounds xmin=\"0\" ymin=\"0\" xmax=\"1.2345\" ymax=\"2\"></Bounds>\r\n"
                  "<Zunit>10000</Zunit>\r\n<Zmin>500</Zmin>\r\n<Zmax>500</Zmax>\r\n"
                  "<LayerThickness>300</LayerThickness>\r\n<Machine>Unknown</Machine>\r\n"
                  "<Material>Ti64</Material>\r\n<Part name=\"no_name\" id=\"1\"></Part>\r\n" +
                  kFixedAttributes +
                  "<VectorAttribute name=\"PointDistance\" id=\"9\"></VectorAttribute>\r\n"
                  "<VectorAttribute name=\"Extra\" id=\"33\"></VectorAttribute>\r\n</Header>\r\n");
    // Layer: height 10, contour block 6 + 80, hatch block 6 + 62.
    expected.u16(1).u32(164).u16(12).u32(4).i32(500);
    expected.u16(2).u32(80);
    Attribute(expected, 6, 150.5f);
    Attribute(expected, 7, 800.0f);
    Attribute(expected, 8, std::int32_t{0});
    Attribute(expected, 9, std::int32_t{70});
    Attribute(expected, 11, std::int32_t{3}); // the part of the contour's label
    expected.u16(3).u32(24).f32(0).f32(0).f32(1.2345f).f32(0).f32(1.2345f).f32(2);
    expected.u16(4).u32(62);
    Attribute(expected, 6, std::int32_t{0}); // defaults: integers of value 0
    Attribute(expected, 7, std::int32_t{0});
    Attribute(expected, 8, std::int32_t{0});
    Attribute(expected, 11, std::int32_t{3});
    expected.u16(5).u32(16).f32(0.2f).f32(0.5f).f32(0.8f).f32(0.5f);
    EXPECT_TRUE(kit::SameBytes(expected, ReadFile(path)));
}

TEST(M2DSliceIO_zffWriter, StackPartSortedBlocksEmptyLayersAndThickness)
{
    ScratchDir dir;
    // A stack that names its part overrides the labels; blocks go out in the sorter's order.
    auto stack = OneLayer(3);
    stack->GetProperties()->SetValue(L"PartId", std::int32_t{9});
    {
        M2DSlice slice;
        stack->GetSlice(slice, 0);
        AddHatches(slice, {M2DSliceVector(0, 0, 10000, 0)}, 3);
        stack = std::make_unique<M2DSliceStack>();
        stack->GetProperties()->SetValue(L"PartId", std::int32_t{9});
        stack->AddSlice(slice, false);
        M2DSlice empty;
        empty.SetZ(800);
        stack->AddSlice(empty, false);
    }
    M2DSliceIO_zff io;
    io.SetSorting(std::make_shared<ReverseSort>());
    io.GetMetaData().SetLayerThickness(77);
    io.SetWriteOptions({true});
    const std::string path = dir.File("sorted.zff");
    ASSERT_TRUE(Write(io, *stack, path)) << io.GetFailureReason();
    const std::string bytes = ReadFile(path);
    // Two layers, the source's thickness (300) over the metadata's.
    EXPECT_NE(bytes.find("<Layers>2</Layers>\r\n"), std::string::npos);
    EXPECT_NE(bytes.find("<LayerThickness>300</LayerThickness>"), std::string::npos);
    EXPECT_NE(bytes.find("<Zmin>500</Zmin>\r\n<Zmax>800</Zmax>"), std::string::npos);
    const std::size_t data = bytes.find("</Header>\r\n") + 11;
    // Contour, then the second block (1 mm along x), then the first.
    kit::Bytes part;
    Attribute(part, 11, std::int32_t{9});
    kit::Bytes second;
    second.u16(5).u32(16).f32(0).f32(0).f32(1).f32(0);
    const std::size_t at9 = bytes.find(part.s, data);
    const std::size_t atSecond = bytes.find(second.s, data);
    const std::size_t atFirst = bytes.find(kit::Bytes().u16(5).u32(16).f32(0.2f).s, data);
    ASSERT_NE(at9, std::string::npos);
    EXPECT_LT(atSecond, atFirst);
    // The empty layer is a layer section of size 10 holding its height alone.
    EXPECT_TRUE(kit::SameBytes(kit::Bytes().u16(1).u32(10).u16(12).u32(4).i32(800), bytes.substr(bytes.size() - 16)));

    // No slices: the bounds are the initial extremes over Zunit.
    M2DSliceStack none;
    M2DSliceIO_zff empty;
    const std::string emptyPath = dir.File("none.zff");
    ASSERT_TRUE(empty.OpenFile(Wide(emptyPath), I2DSliceIO::Write));
    ASSERT_TRUE(empty.WriteHeader({&none}, 10000, 1));
    ASSERT_TRUE(empty.CloseFile());
    EXPECT_NE(ReadFile(emptyPath).find("<Bounds xmin=\"214748\" ymin=\"214748\" xmax=\"-214748\" ymax=\"-214748\">"
                                       "</Bounds>\r\n<Zunit>10000</Zunit>\r\n<Zmin>2147483647</Zmin>\r\n"
                                       "<Zmax>-2147483648</Zmax>"),
              std::string::npos);
}

TEST(M2DSliceIO_zffReader, AttributesPersistSettingsListAndTargetProperties)
{
    ScratchDir dir;
    const std::string path = dir.File("hand.zff");
    WriteFile(path, HandMadeFile());
    M2DSliceStack stack;
    auto io = std::make_shared<M2DSliceIO_zff>();
    std::shared_ptr<I2DSliceIO> shared = io;
    M2DSliceContainerIO driver(shared);
    I2DSliceIO::ReadOptions options;
    options.VectorBlocks.MergeBlocks = false;
    driver.SetReadOptions(options);
    ASSERT_TRUE(driver.ReadContainer(stack, Wide(path), true, nullptr)) << io->GetFailureReason();
    EXPECT_EQ(io->GetFailureReason(), "");
    ASSERT_EQ(stack.GetNumSlices(), 2u);

    M2DSlice first, second;
    stack.GetSlice(first, 0);
    stack.GetSlice(second, 1);
    EXPECT_EQ(first.GetZ(), 300);
    EXPECT_EQ(second.GetZ(), 600);
    const auto a = Blocks(first), b = Blocks(second);
    ASSERT_EQ(a.size(), 2u);
    ASSERT_EQ(b.size(), 1u); // the block without data makes none
    EXPECT_EQ(a[0]->Vectors, std::vector<M2DSliceVector>{M2DSliceVector(10000, 20000, 30000, 40000)});
    EXPECT_EQ(a[1]->Vectors, std::vector<M2DSliceVector>{M2DSliceVector(5000, 5000, 10000, 10000)});
    // The contour is a chain of vectors without its closing side.
    EXPECT_EQ(b[0]->Vectors, (std::vector<M2DSliceVector>{M2DSliceVector(0, 0, 10000, 0), M2DSliceVector(10000, 0, 10000, 10000)}));
    EXPECT_EQ(second.GetSliceBorder()->GetNumContours(), 0u);
    EXPECT_EQ(a[0]->GetTypeInfo().GetType(), e2DSliceVectorType_Hatch);
    EXPECT_EQ(b[0]->GetTypeInfo().GetType(), e2DSliceVectorType_Border);
    // Part 70000 is cut to 16 bits, and persists into the next layer.
    for (const auto* block : {a[0], a[1], b[0]})
        EXPECT_EQ(PartOf(*block), 70000 - 65536);
    // The diameter holds for its block only: the contour of layer 2 (power 100 from layer 1)
    // shares the first setting.
    EXPECT_EQ(a[0]->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Parameter), 0);
    EXPECT_EQ(a[1]->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Parameter), 1);
    EXPECT_EQ(b[0]->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Parameter), 0);

    const auto& settings = io->GetBuildProperties();
    ASSERT_EQ(settings.size(), 3u); // the block without data registers power 200
    EXPECT_EQ(settings[0].LaserPower, 100.0f);
    EXPECT_EQ(settings[0].LaserSpeed, 500.0f);
    EXPECT_EQ(settings[0].LaserDiameter, -1.0f);
    EXPECT_EQ(settings[0].ExtraValue, -1);
    EXPECT_EQ(settings[1].LaserDiameter, 0.25f);
    EXPECT_EQ(settings[2].LaserPower, 200.0f);
    EXPECT_EQ(io->GetIndexOfProperties(settings[1]), 1);
    build_properties unknown;
    EXPECT_EQ(io->GetIndexOfProperties(unknown), -1);

    PersistentProperties& p = *stack.GetProperties();
    std::int32_t value = 0;
    EXPECT_TRUE(p.GetValue(L"JobXMin", value) && value == -15000);
    EXPECT_TRUE(p.GetValue(L"JobYMax", value) && value == 32500);
    EXPECT_TRUE(p.GetValue(L"SliceThickness", value) && value == 300);
    EXPECT_TRUE(p.GetValue(L"JobZMax", value) && value == 600);
    EXPECT_TRUE(p.GetValue(L"ZUnit", value) && value == 10000);
    std::wstring text;
    EXPECT_TRUE(p.GetValue(L"Material", text) && text == L"Ti");
    IndexedProperties<PersistentProperties> parts;
    ASSERT_TRUE(p.GetValue(L"PartNames", parts));
    ASSERT_EQ(parts.GetNum(), 2u);
    EXPECT_TRUE(parts.Get(1).GetValue(L"PartID", value) && value == 2);
    EXPECT_TRUE(parts.Get(1).GetValue(L"PartName", text) && text == L"b");
    IndexedProperties<PersistentProperties> scan;
    ASSERT_TRUE(p.GetValue(L"ScanParametersGeneric", scan));
    ASSERT_EQ(scan.GetNum(), 3u);
    double power = 0;
    EXPECT_TRUE(scan.Get(2).GetValue(L"LaserPower", power) && power == 200.0);
    const M2DSliceBuildParameters* styles = M2DSliceBuildParameters::Get(&p, false);
    ASSERT_NE(styles, nullptr);
    ASSERT_EQ(styles->GetNumInstances(), 3u);
    EXPECT_EQ(styles->GetLookupIds().First, 0);
    EXPECT_EQ(styles->GetInstance(1).GetID(), 1);
    EXPECT_EQ(styles->GetInstance(1).GetLaserDiameter(), 0.25);
    EXPECT_EQ(styles->GetInstance(0).GetLaserDiameter(), 0.0); // none given
    EXPECT_EQ(styles->GetInstance(0).GetSpeed(), 500.0);

    // A scan measures what the read built.
    M2DSliceIO_zff scanner;
    ASSERT_TRUE(scanner.OpenFile(Wide(path), I2DSliceIO::Read) && scanner.ReadHeader(nullptr));
    M2DSliceContainerScanInfo info;
    ASSERT_TRUE(scanner.ScanLayer(info, nullptr, true));
    EXPECT_EQ(info.Z, 300);
    EXPECT_EQ(info.NumVectorBlocks, 2u);
    EXPECT_EQ(info.Area, first.GetXYArea(true));
    ASSERT_TRUE(scanner.ScanLayer(info, nullptr, true));
    EXPECT_FALSE(scanner.ScanLayer(info, nullptr, true));
    EXPECT_EQ(scanner.GetFailureReason(), "") << "the end of the layers is no failure";
}

TEST(M2DSliceIO_zffReader, BadHeadersAndMissingElements)
{
    ScratchDir dir;
    const std::string path = dir.File("bad.zff");
    const auto readHeader = [&](const std::string& bytes, ITarget2DSlices* target) {
        WriteFile(path, bytes);
        M2DSliceIO_zff io;
        EXPECT_TRUE(io.OpenFile(Wide(path), I2DSliceIO::Read));
        const bool ok = io.ReadHeader(target);
        return std::make_pair(ok, io.GetFailureReason());
    };
    std::string wrong = kReadHeader;
    wrong[31] = '\'';
    EXPECT_FALSE(readHeader(wrong, nullptr).first);
    EXPECT_FALSE(readHeader(kReadHeader.substr(0, kReadHeader.size() - 4), nullptr).first) << "no end";
    const auto noEnd = readHeader(kReadHeader.substr(0, 60), nullptr);
    EXPECT_NE(noEnd.second.find("</Header>"), std::string::npos) << noEnd.second;
    // The first "</Header>" ends the header: what follows is layer data.
    const std::string twice = kReadHeader + "</Header>\r\n";
    {
        WriteFile(path, twice);
        M2DSliceIO_zff io;
        ASSERT_TRUE(io.OpenFile(Wide(path), I2DSliceIO::Read) && io.ReadHeader(nullptr));
        M2DSlice slice;
        EXPECT_FALSE(io.ReadLayer(slice, nullptr, true));
        EXPECT_NE(io.GetFailureReason(), "");
    }
    std::string broken = kReadHeader;
    broken.replace(broken.find("</Zmin>"), 7, "</Zmax>");
    EXPECT_FALSE(readHeader(broken, nullptr).first);

    // Missing elements throw the map's error: the thickness always, the rest with a target.
    std::string noThickness = kReadHeader;
    noThickness.replace(noThickness.find("<LayerThickness>"), 36, "");
    EXPECT_THROW(
        try { readHeader(noThickness, nullptr); } catch (const std::out_of_range& e) {
            EXPECT_STREQ(e.what(), "invalid map<K, T> key");
            throw;
        },
        std::out_of_range);
    std::string noMaterial = kReadHeader;
    noMaterial.replace(noMaterial.find("<Material>"), 22, "");
    EXPECT_TRUE(readHeader(noMaterial, nullptr).first);
    M2DSliceStack target;
    EXPECT_THROW(readHeader(noMaterial, &target), std::out_of_range);
    std::string noZunit = HandMadeFile();
    noZunit.replace(noZunit.find("<Zunit>"), 22, "");
    WriteFile(path, noZunit);
    M2DSliceIO_zff io;
    ASSERT_TRUE(io.OpenFile(Wide(path), I2DSliceIO::Read) && io.ReadHeader(nullptr));
    M2DSlice slice;
    EXPECT_THROW(io.ReadLayer(slice, nullptr, true), std::out_of_range);
}

TEST(M2DSliceIO_zffRoundTrip, RichBuildThroughTheDriverAndDamagedCopies)
{
    ScratchDir dir;
    BuildGenerator build(BuildShape::Rich(4, 3));
    const auto parts = build.SplitByPart();
    std::vector<const ISource2DSlices*> sources;
    for (const auto& part : parts)
        sources.push_back(part.get());
    const std::string path = dir.File("rich.zff");
    std::string reason;
    auto read = kit::RoundTrip(44, sources, path, 10000, 1, &reason);
    ASSERT_TRUE(read) << reason;
    const FormatDescriptor* zff = FormatRegistry::ForCode(44);
    ASSERT_NE(zff, nullptr);
    kit::ExpectSameBuild(sources, *read, zff->Losses, 1);

    // Closer than the kit looks: each contour of n points becomes n - 1 vectors of its
    // part, then the hatch blocks follow with their vectors, all within one unit.
    M2DSliceSourceVector joined;
    joined.SetVector(sources);
    M2DSliceConstDataItems items;
    M2DSlice got;
    for (std::uint64_t i = 0; i < joined.GetNumSlices(); ++i)
    {
        SCOPED_TRACE("layer " + std::to_string(i));
        joined.GetSliceItems(items, i);
        read->GetSlice(got, i);
        std::vector<std::pair<int, std::vector<M2DSliceVector>>> want;
        for (const auto& slice : items.Slices)
            for (const M2DSliceContour& contour : *slice->GetSliceBorder())
            {
                std::vector<M2DSliceVector> chain;
                const Points p = PointsOf(contour);
                for (std::size_t k = 1; k < p.size(); ++k)
                    chain.emplace_back(p[k - 1].first, p[k - 1].second, p[k].first, p[k].second);
                want.emplace_back(PartOf(contour), chain);
            }
        for (const auto& slice : items.Slices)
            for (auto* b = slice->GetVectors()->GetFirstVectorBlock(); b; b = b->GetNextVectorBlock())
                want.emplace_back(PartOf(*b), b->Vectors);
        const auto blocks = Blocks(got);
        ASSERT_EQ(blocks.size(), want.size());
        for (std::size_t k = 0; k < want.size(); ++k)
        {
            EXPECT_EQ(PartOf(*blocks[k]), want[k].first);
            ASSERT_EQ(blocks[k]->Vectors.size(), want[k].second.size());
            for (std::size_t v = 0; v < want[k].second.size(); ++v)
            {
                const M2DSliceVector& a = want[k].second[v];
                const M2DSliceVector& b = blocks[k]->Vectors[v];
                EXPECT_TRUE(std::abs(a.x1 - b.x1) <= 1 && std::abs(a.y1 - b.y1) <= 1 && std::abs(a.x2 - b.x2) <= 1 &&
                            std::abs(a.y2 - b.y2) <= 1);
            }
        }
    }

    kit::SweepOptions options;
    options.Documented = Documented;
    options.MaxCases = 1200;
    const std::string bytes = ReadFile(path);
    kit::SweepTruncations(44, bytes, options);
    kit::SweepCorruptions(44, bytes, options);
    kit::SweepCorruptions(44, HandMadeFile(), options);
}

TEST(M2DSliceIO_zffFactory, CodesSniffAndHatchedFlag)
{
    for (short code : {44, 45, 46})
    {
        std::unique_ptr<I2DSliceIO> io(M2DSliceIOFactory::CreateSliceIO(code));
        auto* zff = dynamic_cast<M2DSliceIO_zff*>(io.get());
        ASSERT_NE(zff, nullptr) << code;
        EXPECT_TRUE(zff->GetHatched());
    }
    EXPECT_FALSE(M2DSliceIO_zff().GetHatched());
    short code = 0;
    const std::string head = kReadHeader;
    EXPECT_TRUE(FormatRegistry::Sniff(reinterpret_cast<const unsigned char*>(head.data()), head.size(), code));
    EXPECT_EQ(code, 44);
    std::string other = head;
    other[20] = 'X';
    EXPECT_FALSE(FormatRegistry::Sniff(reinterpret_cast<const unsigned char*>(other.data()), other.size(), code));
}
