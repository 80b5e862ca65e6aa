// WZA job files: header and sections worked out field by field, layer tags and their
// quirks both ways, version gates, the digest, and round trips.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstring>

#include "FormatTestKit.h"
#include "BuildGenerator.h"
#include "contracts/M2DSliceBuildParameters.h"
#include "contracts/M2DSliceStack.h"
#include "formats/wza/M2DSliceIO_wza.h"
#include "framework/M2DSliceContainerIO.h"
#include "framework/M2DSliceContainerIterator.h"
#include "framework/M2DSliceIOFactory.h"
#include "tests/TestSupport.h"

using namespace WZADataStructures;

namespace {

using Vectors = std::vector<M2DSliceVector>;

std::string Md5Hex(const std::string& bytes)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_md5(), nullptr);
    std::string hex;
    for (unsigned i = 0; i < size; ++i)
    {
        char b[3];
        std::snprintf(b, sizeof b, "%02x", digest[i]);
        hex += b;
    }
    return hex;
}

M2DSliceVectorBlock* AddBlock(M2DSlice& slice, const Vectors& vectors, int part, int parameter = 0,
                              int contourIndex = 0)
{
    M2DSliceVectorBlock* block = slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
    block->Vectors = vectors;
    M2DSliceVectorTypeInfo label(e2DSliceVectorType_Hatch);
    label.SetIndex(e2DSliceVectorTypeIndex_Part, part);
    label.SetIndex(e2DSliceVectorTypeIndex_Parameter, parameter);
    label.SetIndex(e2DSliceVectorTypeIndex_4, contourIndex);
    block->SetTypeInfo(label);
    return block;
}

// Writes the layers (height, slice) with the writer through its public operations and gives
// the file's bytes.
std::string WriteLayers(M2DSliceIO_wza& io, const std::string& path, std::vector<M2DSlice> slices)
{
    M2DSliceStack source;
    const std::vector<const ISource2DSlices*> sources = {&source};
    EXPECT_TRUE(io.OpenFile(ts::Wide(path), I2DSliceIO::Write));
    EXPECT_TRUE(io.WriteHeader(sources, 10000, 1)) << io.GetFailureReason();
    for (M2DSlice& slice : slices)
    {
        M2DSliceConstDataItems items;
        items.AddSlice(std::make_shared<const M2DSlice>(slice));
        EXPECT_TRUE(io.WriteLayer(sources, items)) << io.GetFailureReason();
    }
    EXPECT_TRUE(io.WriteFooter(sources)) << io.GetFailureReason();
    EXPECT_TRUE(io.CloseFile());
    return ts::ReadFile(path);
}

M2DSlice SliceAt(std::int32_t z)
{
    M2DSlice slice;
    slice.SetZ(z);
    return slice;
}

// The header of a writer left at its defaults apart from the version and the slice height:
// flags 0x10 and a meta section of four empty texts.
kit::Bytes DefaultHeader(std::uint32_t version, float sliceHeight, std::uint32_t sliceCount, double date)
{
    kit::Bytes meta;
    for (const char* d : {"Computer ID", "SP Version", "Material", "Machine Type"})
        meta.text(d).u8(0).u8(5).u8(0);
    kit::Bytes body;
    body.u8(0).f64(date).u32(0).u8(0x10).text("META").u32(4).u32(static_cast<std::uint32_t>(meta.s.size()));
    body.text(meta.s).f32(sliceHeight).u32(sliceCount).u32(0).u8(0);
    kit::Bytes header;
    header.text("SiAMODeL").u32(version).u32(static_cast<std::uint32_t>(body.s.size())).text(body.s);
    return header;
}

double DateAt(const std::string& file, std::size_t offset)
{
    double date = 0;
    std::memcpy(&date, file.data() + offset, 8);
    return date;
}

class WzaTest : public ::testing::Test
{
protected:
    ts::ScratchDir _dir;
};

} // namespace

// The header with every section, byte for byte: machine settings of the four kinds, meta items
// with a build strategy per listed part, preforms whose count stays 4 * entries + 2 although
// one entry has no text item, and monitoring texts.
TEST_F(WzaTest, HeaderWithEverySectionByteForByte)
{
    std::vector<SettingVariant> settings = {Setting<unsigned>(3, 7), Setting<double>(4, 1.5), Setting<bool>(5, true),
                                            Setting<std::string>(6, "x")};
    std::list<WZAPartStructure> parts(3);
    auto it = parts.begin();
    it->Id = 7, it->Name = L"P\u00e4", it->BuildStrategy = L"BS";
    (++it)->Id = 8, it->Name = L"sub", it->IsSubpart = true, it->BuildStrategy = L"hidden";
    (++it)->Id = 9, it->Name = L"Q", it->BuildStrategy = L"T";
    auto monitoring = std::make_unique<MeltPoolMonitoringSettings>();
    monitoring->Enabled = true;
    monitoring->Texts = {L"m1", L"m2"};
    auto preforms = std::make_unique<PreformsSettings>();
    preforms->Enabled = true;
    preforms->PreformValue = 2.5;
    preforms->PreformEntries = {{1.0, 2.0, 3.0, 0}, {4.0, 5.0, 6.0, 1}};
    M2DSliceIO_wza io(1401, L"Job", L"Ti64", L"PC1", L"2.1", 300, L"tail", L"M290", 77, std::move(settings),
                      std::move(parts), nullptr, nullptr, std::move(monitoring), std::move(preforms));
    EXPECT_TRUE(settings.empty());
    EXPECT_TRUE(parts.empty());
    const std::string path = _dir.File("all.wza");
    const std::string file = WriteLayers(io, path, {});

    kit::Bytes ms;
    ms.u32(3).u8(2).u32(7).u32(4).u8(4).f64(1.5).u32(5).u8(1).u8(1).u32(6).u8(5).text("x").u8(0);
    kit::Bytes meta;
    const std::pair<const char*, const char*> items[] = {{"Computer ID", "PC1"},          {"SP Version", "2.1"},
                                                         {"Material", "Ti64"},            {"Build Strategy Part 0", "BS"},
                                                         {"Build Strategy Part 1", "T"}, {"Machine Type", "M290"}};
    for (const auto& [d, v] : items)
        meta.text(d).u8(0).u8(5).text(v).u8(0);
    kit::Bytes pfs;
    pfs.u32(10).u8(4).f64(2.5).u32(20).u8(2).u32(2);
    pfs.u32(1000).u8(5).text("RP-d4").u8(0).u32(1020).u8(4).f64(1.0).u32(1030).u8(4).f64(2.0).u32(1040).u8(4).f64(3.0);
    pfs.u32(2020).u8(4).f64(4.0).u32(2030).u8(4).f64(5.0).u32(2040).u8(4).f64(6.0);
    kit::Bytes mons;
    mons.u32(0).u8(2).u32(2).u32(1).u8(5).text("m1").u8(0).u32(1001).u8(5).text("m2").u8(0);

    const double date = DateAt(file, 8 + 4 + 4 + 4);
    kit::Bytes body;
    body.text("Job").u8(0).f64(date).u32(77).u8(0x20 | 0x10 | 0x08 | 0x04);
    body.text("MS").u32(4).u32(static_cast<std::uint32_t>(ms.s.size())).text(ms.s);
    body.text("META").u32(6).u32(static_cast<std::uint32_t>(meta.s.size())).text(meta.s);
    body.text("PFS").u32(10).u32(static_cast<std::uint32_t>(pfs.s.size())).text(pfs.s);
    body.text("MONS").u32(3).u32(static_cast<std::uint32_t>(mons.s.size())).text(mons.s);
    body.f32(0.03f).u32(0).u32(2).u32(7).text("P\xc3\xa4").u8(0).u32(9).text("Q").u8(0).text("tail").u8(0);
    kit::Bytes expected;
    expected.text("SiAMODeL").u32(1401).u32(static_cast<std::uint32_t>(body.s.size())).text(body.s).u64(0);
    expected.text(Md5Hex(expected.s));
    EXPECT_TRUE(kit::SameBytes(expected, file));

    // Days since 2000-01-01 local time: somewhere in this century, and now.
    const double now = (std::time(nullptr) - 946684800) / 86400.0;
    EXPECT_NEAR(date, now, 1.0);

    // Reading: every value keeps its NUL, part names lose theirs; the preform count of ten
    // makes the reader take the next bytes ("MONS" and the count's first byte) for one more item.
    M2DSliceIO_wza reader;
    ASSERT_TRUE(reader.OpenFile(ts::Wide(path), I2DSliceIO::Read));
    reader.ReadHeader(nullptr);
    const auto& p = reader.GetHeaderProperties();
    EXPECT_EQ(p.at("PREAMBLE"), "SiAMODeL");
    EXPECT_EQ(p.at("VERSION"), "1401");
    EXPECT_EQ(p.at("NAME"), std::string("Job\0", 4));
    EXPECT_EQ(p.at("MACHINE_TYPE_ID"), "77");
    EXPECT_EQ(p.at("FLAGS"), "60");
    EXPECT_EQ(p.at("MACHINE_MARKER"), "MS");
    EXPECT_EQ(p.at("MACHINE_COUNT"), "4");
    EXPECT_EQ(p.at("MACHINE_VALUE_0"), "7");
    EXPECT_EQ(p.at("MACHINE_VALUE_1"), "1.500000");
    EXPECT_EQ(p.at("MACHINE_VALUE_2"), "1");
    EXPECT_EQ(p.at("MACHINE_VALUE_3"), std::string("x\0", 2));
    EXPECT_EQ(p.at("META_DESC_3"), std::string("Build Strategy Part 0\0", 22));
    EXPECT_EQ(p.at("META_VALUE_5"), std::string("M290\0", 5));
    EXPECT_EQ(p.at("PREFORM_COUNT"), "10");
    EXPECT_EQ(p.at("PREFORM_ID_9"), std::to_string(ByteOrder::LoadLE<std::uint32_t>("MONS")));
    EXPECT_EQ(p.at("PREFORM_TYPE_9"), "3"); // the low byte of the monitoring count: no value
    EXPECT_EQ(p.count("PREFORM_VALUE_9"), 0u);
    reader.CloseFile();
}

// A writer without settings, preforms or monitoring writes flags 0x10 only; a disabled
// section stays out even when its record exists; SliceHeight 0 makes the divisor 1, so a
// default writer puts one record per internal unit of height.
TEST_F(WzaTest, DefaultWriterAndEmptyRecords)
{
    M2DSliceIO_wza io;
    std::vector<M2DSlice> slices = {SliceAt(3), SliceAt(5)};
    AddBlock(slices[0], {M2DSliceVector(0, 0, 10000, 0)}, 0);
    AddBlock(slices[1], {M2DSliceVector(0, 0, 10000, 0)}, 0);
    const std::string file = WriteLayers(io, _dir.File("d.wza"), slices);
    EXPECT_EQ(io.GetLayerCount(), 7u); // 3 empty, the layer, 2 empty, the layer

    const double date = DateAt(file, 17);
    kit::Bytes layer;
    layer.text("SLC").u32(54).text("WRZ").u32(0).u32(43);
    layer.text("G").u32(0).text("S").f32(0).text("P").f32(0).text("F").f32(0).text("E").u8(0);
    layer.text("M").u32(2).f32(0).f32(0).f32(1).f32(0);
    kit::Bytes records;
    for (int i = 0; i < 3; ++i)
        records.text("SLC").u32(0);
    records.text(layer.s).text("SLC").u32(0).text("SLC").u32(0).text(layer.s);
    kit::Bytes expected = DefaultHeader(4000, 0.0f, 7, date);
    expected.u64(records.s.size()).text(records.s);
    expected.text(Md5Hex(expected.s));
    EXPECT_TRUE(kit::SameBytes(expected, file));

    // Writing again with the same instance continues the layer count.
    std::vector<M2DSlice> again = {SliceAt(0)};
    AddBlock(again[0], {M2DSliceVector(0, 0, 1, 1)}, 0);
    WriteLayers(io, _dir.File("again.wza"), again);
    EXPECT_EQ(io.GetLayerCount(), 8u);

    // With SliceHeight 100, z 400 after z 100 leaves two empty records; z 150 none.
    M2DSliceIO_wza pitched;
    pitched.SetSliceHeight(100);
    std::vector<M2DSlice> pitches = {SliceAt(100), SliceAt(400), SliceAt(450)};
    for (M2DSlice& s : pitches)
        AddBlock(s, {M2DSliceVector(0, 0, 1, 1)}, 0);
    const std::string f2 = WriteLayers(pitched, _dir.File("p.wza"), pitches);
    EXPECT_EQ(pitched.GetLayerCount(), 5u);
    EXPECT_EQ(ByteOrder::LoadLE<std::uint32_t>(f2.data() + DefaultHeader(4000, 0.01f, 5, 0).s.size() - 9), 5u);
}

// Tags of one layer worked out by hand: a first block is never C; a repeat of code 2000 is C;
// codes ending in 1 take the contour index before any comparison; a short vector keeps the
// vector delay; a block without vectors still opens its part's section; a part without a
// table entry writes zeros and, with code 0, neither L nor W.
TEST_F(WzaTest, LayerTagsByteForByte)
{
    std::list<WZAPartStructure> parts(1);
    WZAPartStructure& part = parts.front();
    part.Id = 1;
    ScanValues hatch;
    hatch.LaserDiameter = 0.1f, hatch.Speed = 1000, hatch.Power = 200, hatch.TypeCode = 2000;
    ScanValues border;
    border.LaserDiameter = 0.2f, border.Speed = 100, border.Power = 150, border.TypeCode = 1001;
    border.VectorDelay = 5, border.EntityDelay = 7;
    part.ScanValuesByKey = {{0, hatch}, {1, border}};
    M2DSliceIO_wza io(4000, L"", L"", L"", L"", 100, L"", L"", 0, {}, std::move(parts), nullptr, nullptr, nullptr,
                      nullptr);

    M2DSlice slice = SliceAt(300);
    AddBlock(slice, {M2DSliceVector(0, 0, 10000, 0)}, 1, 0);
    AddBlock(slice, {M2DSliceVector(0, 0, 10000, 10000), M2DSliceVector(20000, 0, 30000, 0)}, 1, 0);
    AddBlock(slice, {M2DSliceVector(0, 0, 4, 0)}, 1, 1, 3); // 16 < (5 * 0.01 * 100)^2: short
    AddBlock(slice, {}, 2, 0);
    AddBlock(slice, {M2DSliceVector(0, 0, 10000, 0), M2DSliceVector(10000, 0, 10000, 10000)}, 2, 0);
    const std::string file = WriteLayers(io, _dir.File("tags.wza"), {slice});

    kit::Bytes part1;
    part1.text("G").u32(2000).text("S").f32(1000).text("P").f32(200).text("F").f32(0.1f).text("E").u8(0);
    part1.text("L").u32(0).text("W").u32(0);
    part1.text("M").u32(2).f32(0).f32(0).f32(1).f32(0);
    part1.text("C").text("H").u32(4).f32(0).f32(0).f32(1).f32(1).f32(2).f32(0).f32(3).f32(0);
    part1.text("G").u32(1003).text("S").f32(100).text("P").f32(150).text("F").f32(0.2f).text("E").u8(0);
    part1.text("L").u32(5).text("W").u32(7);
    part1.text("M").u32(2).f32(0).f32(0).f32(0.0004f).f32(0);
    kit::Bytes part2;
    part2.text("G").u32(0).text("S").f32(0).text("P").f32(0).text("F").f32(0).text("E").u8(0);
    part2.text("M").u32(3).f32(0).f32(0).f32(1).f32(0).f32(1).f32(1);
    kit::Bytes body;
    body.text("WRZ").u32(1).u32(static_cast<std::uint32_t>(part1.s.size())).text(part1.s);
    body.text("WRZ").u32(2).u32(static_cast<std::uint32_t>(part2.s.size())).text(part2.s);
    kit::Bytes records;
    records.text("SLC").u32(0).text("SLC").u32(0); // (300 - 100 - 0) / 100 missing
    records.text("SLC").u32(static_cast<std::uint32_t>(body.s.size())).text(body.s);
    const std::size_t first = file.find("SLC");
    ASSERT_NE(first, std::string::npos);
    EXPECT_TRUE(kit::SameBytes(records, file.substr(first, records.s.size())));
    EXPECT_EQ(file.size(), first + records.s.size() + 32);

    // Read back: types from the codes, the part, numbers from the tags, delays only on M.
    M2DSliceStack stack;
    M2DSliceContainerIO in(54);
    ASSERT_TRUE(in.ReadContainer(stack, _dir.WFile("tags.wza"), true));
    ASSERT_EQ(stack.GetNumSlices(), 3u);
    const auto last = stack.GetSlice(2);
    EXPECT_EQ(last->GetZ(), 200); // heights from 0 in steps of SliceHeight
    ASSERT_EQ(last->GetVectors()->GetNumVectorBlocks(), 4u);
    const int delay = M2DSliceVectorTypeInfo::GetNumberID(L"VectorDelay");
    const int entity = M2DSliceVectorTypeInfo::GetNumberID(L"EntityDelay");
    const auto& b0 = last->GetVectors()->GetVectorBlock(0)->GetTypeInfo();
    const auto& b1 = last->GetVectors()->GetVectorBlock(1)->GetTypeInfo();
    const auto& b2 = last->GetVectors()->GetVectorBlock(2)->GetTypeInfo();
    const auto& b3 = last->GetVectors()->GetVectorBlock(3)->GetTypeInfo();
    EXPECT_EQ(b0.GetType(), e2DSliceVectorType_Hatch);
    EXPECT_EQ(b0, b1 == b0 ? b0 : b1); // C restores the group: same label, H without delays
    EXPECT_EQ(b1.GetType(), e2DSliceVectorType_Hatch);
    EXPECT_EQ(b1.GetNumber(e2DSliceVectorTypeNumber_0), 200.0);
    EXPECT_EQ(b1.GetNumber(e2DSliceVectorTypeNumber_1), 1000.0);
    EXPECT_FLOAT_EQ(static_cast<float>(b1.GetNumber(e2DSliceVectorTypeNumber_2)), 0.1f);
    EXPECT_EQ(b2.GetType(), e2DSliceVectorType_Other); // 1003 is no multiple of 1000
    EXPECT_EQ(b2.GetNumber(delay), 5.0);
    EXPECT_EQ(b2.GetNumber(entity), 7.0);
    EXPECT_EQ(b1.GetNumber(delay), 0.0);
    EXPECT_EQ(b3.GetType(), e2DSliceVectorType_None); // code 0: unchanged
    EXPECT_EQ(b3.GetIndex(e2DSliceVectorTypeIndex_Part), 2);
    EXPECT_EQ(b0.GetIndex(e2DSliceVectorTypeIndex_Parameter), 0);
    EXPECT_EQ(b2.GetIndex(e2DSliceVectorTypeIndex_Parameter), 1);
    EXPECT_EQ(last->GetVectors()->GetVectorBlock(2)->Vectors[0], M2DSliceVector(0, 0, 4, 0));
    EXPECT_EQ(last->GetVectors()->GetVectorBlock(3)->Vectors,
              (Vectors{M2DSliceVector(0, 0, 10000, 0), M2DSliceVector(10000, 0, 10000, 10000)}));
    // The build parameters went into the target, one instance per distinct group.
    const M2DSliceBuildParameters* bp = M2DSliceBuildParameters::Get(static_cast<ITarget2DSlices&>(stack).GetProperties(), false);
    ASSERT_NE(bp, nullptr);
    EXPECT_EQ(bp->GetNumInstances(), 3u);
    EXPECT_EQ(bp->GetLookupIds().First, 0);
    EXPECT_EQ(bp->GetInstance(1).GetSpeed(), 100.0);
}

// Version gates of the tags, the machine without extra tags, pulsing, subparts, a first part
// of -1 that opens no section, and the C only for the listed codes.
TEST_F(WzaTest, TagsByVersionMachineAndPart)
{
    ScanValues v;
    v.Speed = 1, v.Power = 2, v.LaserDiameter = 3, v.TypeCode = 2000, v.PulsingEnabled = true;
    v.PulsingDuration = 4, v.PulsingPeriod = 5, v.EntityDelay = 6;
    auto tagsOf = [&](unsigned version, unsigned machine, int partId, std::int32_t subpart, unsigned code) {
        std::list<WZAPartStructure> parts(2);
        parts.front().Id = partId;
        parts.front().SubpartIndex = 0;
        parts.back().Id = partId;
        parts.back().SubpartIndex = 1;
        parts.back().IsSubpart = true;
        ScanValues values = v;
        values.TypeCode = code;
        parts.back().ScanValuesByKey[0] = values;
        values.Speed = 9; // the part itself differs from its subpart
        parts.front().ScanValuesByKey[0] = values;
        M2DSliceIO_wza io(version, L"", L"", L"", L"", 10, L"", L"", machine, {}, std::move(parts), nullptr, nullptr,
                          nullptr, nullptr);
        M2DSlice slice = SliceAt(10);
        const int sub = M2DSliceVectorTypeInfo::GetIndexID(M2DSliceIO_wza::WZA_SUBPART_INDEX.c_str());
        for (int i = 0; i < 2; ++i)
            AddBlock(slice, {M2DSliceVector(0, 0, 1, 0)}, partId)->GetTypeInfoUpdate().SetIndex(sub, subpart);
        const std::string file = WriteLayers(io, _dir.File("v.wza"), {slice});
        const std::size_t at = file.rfind("SLC") + 7;
        return file.substr(at, file.size() - 32 - at);
    };
    auto group = [&](float speed, bool pulsing, bool delays, unsigned code) {
        kit::Bytes b;
        b.text("G").u32(code).text("S").f32(speed).text("P").f32(2).text("F").f32(3);
        if (pulsing)
            b.text("E").u8(1).text("O").u32(4).text("K").u32(5);
        if (delays)
            b.text("L").u32(0).text("W").u32(6);
        return b.s;
    };
    const std::string path = kit::Bytes().text("M").u32(2).f32(0).f32(0).f32(0.0001f).f32(0).s;
    auto section = [](int id, const std::string& tags) {
        return kit::Bytes().text("WRZ").u32(static_cast<std::uint32_t>(id)).u32(static_cast<std::uint32_t>(tags.size())).text(tags).s;
    };
    // The second block repeats the first: C, and its entity delay drops to 0 for the equal code.
    const std::string second = kit::Bytes().text("C").text("W").u32(0).s + path;
    EXPECT_TRUE(kit::SameBytes(section(1, group(9, true, true, 2000) + path + second), tagsOf(4000, 0, 1, 0, 2000)));
    EXPECT_TRUE(kit::SameBytes(section(1, group(9, true, false, 2000) + path + "C" + path), tagsOf(3999, 0, 1, 0, 2000)));
    EXPECT_TRUE(kit::SameBytes(section(1, group(9, false, false, 2000) + path + "C" + path), tagsOf(2999, 0, 1, 0, 2000)));
    EXPECT_TRUE(kit::SameBytes(section(1, group(9, false, false, 2000) + path + "C" + path),
                               tagsOf(4000, M2DSliceIO_wza::kMachineWithoutExtraTags, 1, 0, 2000)));
    // The subpart's entry is found by its index.
    EXPECT_TRUE(kit::SameBytes(section(1, group(1, true, true, 2000) + path + second), tagsOf(4000, 0, 1, 1, 2000)));
    // Code 1000 repeats its whole group (but not the unchanged delays).
    EXPECT_TRUE(kit::SameBytes(section(1, group(9, true, true, 1000) + path + group(9, true, false, 1000) +
                                              kit::Bytes().text("W").u32(0).s + path),
                               tagsOf(4000, 0, 1, 0, 1000)));
    // A first block of part -1 opens no section.
    EXPECT_TRUE(kit::SameBytes(group(9, true, true, 2000) + path + second, tagsOf(4000, 0, -1, 0, 2000)));
}

// Hand-made layer records: a part id cut to 16 bits, C after a section head, pulsing values
// kept within a section when E is false, H of count 1 and M of count 0, unknown bytes skipped,
// and one or two stray bytes that end a section's tag loop.
TEST_F(WzaTest, ReadsTheQuirksOfTheTags)
{
    auto fileWith = [](const std::string& layers, std::uint32_t version = 4000) {
        kit::Bytes tail;
        tail.u8(0).f64(0).u32(0).u8(0).f32(0.5f).u32(1).u32(1).u32(70000).text("Part").u8(0).text("t").u8(0);
        kit::Bytes b;
        b.text("SiAMODeL").u32(version).u32(static_cast<std::uint32_t>(tail.s.size())).text(tail.s).u64(0);
        b.text(layers);
        return b.s + Md5Hex(b.s);
    };
    kit::Bytes s1, s2;
    s1.text("G").u32(2000).text("S").f32(7).text("E").u8(1).text("O").u32(4).text("K").u32(5);
    s1.text("H").u32(2).f32(1).f32(2).f32(3).f32(4).text("E").u8(0).text("?").text("H").u32(1);
    s2.text("C").text("M").u32(0).f32(9).f32(9);
    kit::Bytes body;
    body.text("WRZ").u32(70000).u32(static_cast<std::uint32_t>(s1.s.size())).text(s1.s);
    body.text("WRZ").u32(3).u32(static_cast<std::uint32_t>(s2.s.size())).text(s2.s);
    kit::Bytes layer;
    layer.text("SLC").u32(static_cast<std::uint32_t>(body.s.size())).text(body.s);
    const std::string path = _dir.File("q.wza");
    ts::WriteFile(path, fileWith(layer.s));

    M2DSliceIO_wza io;
    ASSERT_TRUE(io.OpenFile(ts::Wide(path), I2DSliceIO::Read));
    ASSERT_TRUE(io.ReadHeader(nullptr)) << io.GetFailureReason();
    EXPECT_EQ(io.GetHeaderProperties().at("SLICE_HEIGHT"), "5000");
    EXPECT_EQ(io.GetPartsById().at(70000), "Part");
    M2DSlice slice;
    ASSERT_TRUE(io.ReadLayer(slice, nullptr, true)) << io.GetFailureReason();
    const M2DSliceVectorLayer& v = *slice.GetVectors();
    ASSERT_EQ(v.GetNumVectorBlocks(), 3u);
    const int pulsing = M2DSliceVectorTypeInfo::GetFlagID(L"PulsingEnabled");
    const int duration = M2DSliceVectorTypeInfo::GetNumberID(L"PulsingDuration");
    EXPECT_EQ(v.GetVectorBlock(0)->Vectors, (Vectors{M2DSliceVector(10000, 20000, 30000, 40000)}));
    EXPECT_EQ(v.GetVectorBlock(0)->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Part), 4464);
    EXPECT_TRUE(v.GetVectorBlock(0)->GetTypeInfo().GetFlag(pulsing));
    EXPECT_EQ(v.GetVectorBlock(1)->GetNumVectors(), 0u); // H of count 1
    EXPECT_FALSE(v.GetVectorBlock(1)->GetTypeInfo().GetFlag(pulsing));
    EXPECT_EQ(v.GetVectorBlock(1)->GetTypeInfo().GetNumber(duration), 4.0);
    // C at the head of the next section brings the previous section's values back.
    const auto& restored = v.GetVectorBlock(2)->GetTypeInfo();
    EXPECT_EQ(restored.GetIndex(e2DSliceVectorTypeIndex_Part), 3);
    EXPECT_EQ(restored.GetNumber(e2DSliceVectorTypeNumber_1), 7.0);
    EXPECT_EQ(restored.GetIndex(e2DSliceVectorTypeIndex_Parameter),
              v.GetVectorBlock(1)->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Parameter));
    EXPECT_EQ(v.GetVectorBlock(2)->GetNumVectors(), 0u); // M of count 0: one point, no vector
    EXPECT_FALSE(io.ReadLayer(slice, nullptr, true));
    EXPECT_EQ(io.GetFailureReason(), "");
    io.CloseFile();

    // A stray byte at a section's end stops its loop; the next "WRZ" is then misread.
    kit::Bytes stray;
    stray.text("G").u32(2000).text("Z");
    kit::Bytes b2;
    b2.text("WRZ").u32(1).u32(static_cast<std::uint32_t>(stray.s.size())).text(stray.s);
    b2.text("WRZ").u32(1).u32(0);
    kit::Bytes l2;
    l2.text("SLC").u32(static_cast<std::uint32_t>(b2.s.size())).text(b2.s);
    ts::WriteFile(path, fileWith(l2.s));
    M2DSliceIO_wza io2;
    ASSERT_TRUE(io2.OpenFile(ts::Wide(path), I2DSliceIO::Read));
    ASSERT_TRUE(io2.ReadHeader(nullptr));
    EXPECT_FALSE(io2.ReadLayer(slice, nullptr, true));
    EXPECT_NE(io2.GetFailureReason().find("WRZ"), std::string::npos) << io2.GetFailureReason();
    io2.CloseFile();

    // A missing or cut digest reads like a whole one.
    const std::string whole = fileWith(layer.s);
    for (std::size_t cut : {0, 10, 32})
    {
        ts::WriteFile(path, whole.substr(0, whole.size() - cut));
        M2DSliceContainerIterator it(ts::Wide(path), M2DSliceIOFactory::GetSliceIO(54), true, 0, true);
        ASSERT_TRUE(it.IsValid()) << cut;
        EXPECT_EQ(it.GetNumSlices(), 1u) << cut;
    }
}

// Heights on reading: the records carry none, so a scan counts them from 0 in steps of the
// header's slice height (a file written from height 500 with slice height 500 scans one layer
// lower), a slice height of 0 gives every layer height 0, and a read agrees with the scan.
TEST_F(WzaTest, HeightsCountedFromZero)
{
    for (std::int32_t pitch : {500, 0})
    {
        SCOPED_TRACE(pitch);
        M2DSliceIO_wza writer;
        writer.SetSliceHeight(pitch);
        std::vector<M2DSlice> slices = {SliceAt(500), SliceAt(1000), SliceAt(1500)};
        for (M2DSlice& slice : slices)
            AddBlock(slice, {M2DSliceVector(0, 0, 100, 0), M2DSliceVector(0, 9, 100, 9)}, 1);
        const std::string path = _dir.File("h.wza");
        if (!pitch) // slice height 0: every internal unit a layer, 2 + 3 empty records
        {
            slices = {SliceAt(2), SliceAt(5)};
            for (M2DSlice& slice : slices)
                AddBlock(slice, {M2DSliceVector(0, 0, 100, 0)}, 1);
        }
        WriteLayers(writer, path, slices);

        std::vector<std::int32_t> scanned, read;
        M2DSliceIO_wza scanner;
        ASSERT_TRUE(scanner.OpenFile(ts::Wide(path), I2DSliceIO::Read));
        ASSERT_TRUE(scanner.ReadHeader(nullptr));
        M2DSliceContainerScanInfo info;
        while (scanner.ScanLayer(info, nullptr, true))
        {
            scanned.push_back(info.Z);
            info.Clear();
        }
        EXPECT_EQ(scanner.GetFailureReason(), "");
        scanner.CloseFile();
        M2DSliceIO_wza reader;
        ASSERT_TRUE(reader.OpenFile(ts::Wide(path), I2DSliceIO::Read));
        ASSERT_TRUE(reader.ReadHeader(nullptr));
        M2DSlice slice;
        while (reader.ReadLayer(slice, nullptr, true))
            read.push_back(slice.GetZ());
        reader.CloseFile();
        const std::vector<std::int32_t> expected =
            pitch ? std::vector<std::int32_t>{0, 500, 1000} : std::vector<std::int32_t>(7, 0);
        EXPECT_EQ(scanned, expected);
        EXPECT_EQ(read, expected);
    }
}

// Versions both ways: what each reader version accepts, which files are old format, where
// the header data and the 32-bit data length are; and writers of versions below 1401, whose
// newest layout their own reading rules cannot follow.
TEST_F(WzaTest, VersionsBothWays)
{
    auto fileOf = [](std::uint32_t version, bool headerData, bool wideLength) {
        kit::Bytes tail;
        tail.u8(0).f64(0);
        if (headerData)
            tail.u32(5).u8(0);
        tail.f32(0.1f).u32(1).u32(0).u8(0);
        kit::Bytes b;
        b.text("SiAMODeL").u32(version).u32(static_cast<std::uint32_t>(tail.s.size())).text(tail.s);
        if (wideLength)
            b.u64(0);
        else
            b.u32(0);
        kit::Bytes tags;
        tags.text("G").u32(301).text("H").u32(2).f32(1).f32(1).f32(2).f32(2);
        kit::Bytes body;
        body.text("WRZ").u32(0).u32(static_cast<std::uint32_t>(tags.s.size())).text(tags.s);
        b.text("SLC").u32(static_cast<std::uint32_t>(body.s.size())).text(body.s);
        return b.s;
    };
    struct Case
    {
        std::uint32_t Version;
        bool Old;
        e2DSliceVectorType Type; // of code 301
    };
    for (const Case& c : {Case{1000, true, e2DSliceVectorType_Hatch}, Case{1299, true, e2DSliceVectorType_Hatch},
                          Case{1300, true, e2DSliceVectorType_Hatch}, Case{1399, true, e2DSliceVectorType_Hatch},
                          Case{1400, false, e2DSliceVectorType_Other}, Case{1401, false, e2DSliceVectorType_Other},
                          Case{4000, false, e2DSliceVectorType_Other}})
    {
        const std::string path = _dir.File("v" + std::to_string(c.Version) + ".wza");
        ts::WriteFile(path, fileOf(c.Version, c.Version >= 1401, c.Version >= 1300));
        M2DSliceIO_wza io;
        ASSERT_TRUE(io.OpenFile(ts::Wide(path), I2DSliceIO::Read));
        ASSERT_TRUE(io.ReadHeader(nullptr)) << c.Version << io.GetFailureReason();
        EXPECT_EQ(io.IsOldFormat(), c.Old) << c.Version;
        EXPECT_EQ(io.GetHeaderProperties().count("FLAGS"), c.Version >= 1401 ? 1u : 0u) << c.Version;
        M2DSlice slice;
        ASSERT_TRUE(io.ReadLayer(slice, nullptr, true)) << c.Version << io.GetFailureReason();
        ASSERT_EQ(slice.GetVectors()->GetNumVectorBlocks(), 1u);
        EXPECT_EQ(slice.GetVectors()->GetFirstVectorBlock()->GetTypeInfo().GetType(), c.Type) << c.Version;
        // Blocks are merged on reading old files only.
        EXPECT_EQ(io.GetReadOptions().VectorBlocks.MergeBlocks, c.Old) << c.Version;
        io.CloseFile();
    }
    // Rejected: below 1000, above the reader's version.
    for (std::uint32_t version : {999u, 4001u})
    {
        const std::string path = _dir.File("bad.wza");
        ts::WriteFile(path, fileOf(version, true, true));
        M2DSliceIO_wza io;
        ASSERT_TRUE(io.OpenFile(ts::Wide(path), I2DSliceIO::Read));
        EXPECT_FALSE(io.ReadHeader(nullptr)) << version;
        EXPECT_EQ(io.GetHeaderProperties().at("VERSION"), std::to_string(version));
        io.CloseFile();
    }
    M2DSliceIO_wza older(3000, L"", L"", L"", L"", 0, L"", L"", 0, {}, {}, nullptr, nullptr, nullptr, nullptr);
    ts::WriteFile(_dir.File("new.wza"), fileOf(3001, true, true));
    ASSERT_TRUE(older.OpenFile(_dir.WFile("new.wza"), I2DSliceIO::Read));
    EXPECT_FALSE(older.ReadHeader(nullptr));
    older.CloseFile();

    // Writers: every version writes the newest header; from 1401 on it reads back.
    for (unsigned version : {1000u, 1299u, 1300u, 1399u, 1400u, 1401u, 2999u, 3000u, 3999u, 4000u})
    {
        std::list<WZAPartStructure> parts(1);
        parts.front().ScanValuesByKey[0].TypeCode = 2000;
        M2DSliceIO_wza io(version, L"Job", L"", L"", L"", 100, L"", L"", 0, {}, std::move(parts), nullptr, nullptr,
                          nullptr, nullptr);
        M2DSlice slice = SliceAt(100);
        AddBlock(slice, {M2DSliceVector(0, 0, 10000, 10000), M2DSliceVector(0, 10000, 10000, 0)}, 0);
        const std::string path = _dir.File("w.wza");
        WriteLayers(io, path, {slice});
        M2DSliceStack stack;
        M2DSliceContainerIO in(54);
        const bool read = in.ReadContainer(stack, ts::Wide(path), true);
        if (version >= 1401)
        {
            ASSERT_TRUE(read) << version << in.GetSliceIO()->GetFailureReason();
            ASSERT_EQ(stack.GetNumSlices(), 1u);
            EXPECT_EQ(stack.GetSlice(0)->GetVectors()->GetTotalNumVectors(), 2u);
        }
        else
            EXPECT_TRUE(!read || stack.GetNumSlices() == 0 || !in.GetSliceIO()->GetFailureReason().empty()) << version;
    }
}

// The digest: MD5 of everything before it, and the file-body check the tool uses.
TEST_F(WzaTest, DigestOfTheFileBody)
{
    const std::string path = _dir.File("x.bin");
    ts::WriteFile(path, std::string(32, 'a'));
    std::string stored;
    EXPECT_EQ(M2DSliceIO_wza::DigestOfFileBody(ts::Wide(path), &stored), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(stored, std::string(32, 'a'));
    ts::WriteFile(path, "abc" + std::string(32, '0'));
    EXPECT_EQ(M2DSliceIO_wza::DigestOfFileBody(ts::Wide(path)), "900150983cd24fb0d6963f7d28e17f72");
    ts::WriteFile(path, "short");
    EXPECT_EQ(M2DSliceIO_wza::DigestOfFileBody(ts::Wide(path)), "");
}

// A file far larger than the writer's buffer, with every header section and empty records
// between layers: the digest equals an MD5 worked out here over the finished bytes, and the
// lengths and counts patched after the fact (some of them far behind the write position by
// then) hold what the bytes say.
TEST_F(WzaTest, DigestAndPatchesOfALargeFile)
{
    std::vector<SettingVariant> settings = {Setting<unsigned>(1, 2), Setting<std::string>(3, "s")};
    auto monitoring = std::make_unique<MeltPoolMonitoringSettings>();
    monitoring->Enabled = true;
    monitoring->Texts = {L"m"};
    auto preforms = std::make_unique<PreformsSettings>();
    preforms->Enabled = true;
    preforms->PreformEntries = {{1.0, 2.0, 3.0, 0}};
    M2DSliceIO_wza io(4000, L"Big", L"", L"", L"", 100, L"", L"", 5, std::move(settings), {}, nullptr, nullptr,
                      std::move(monitoring), std::move(preforms));
    // Layers at 100, 400 (two empty records before it) and 500; the first two hold 40000
    // hatches each, 640000 bytes of coordinates, in two parts.
    std::vector<M2DSlice> slices = {SliceAt(100), SliceAt(400), SliceAt(500)};
    for (std::size_t l = 0; l < 2; ++l)
        for (int part = 1; part <= 2; ++part)
        {
            Vectors hatches;
            for (int i = 0; i < 20000; ++i)
                hatches.emplace_back(i, part, i + 7, part + 3 * static_cast<int>(l)); // not joined
            AddBlock(slices[l], hatches, part);
        }
    AddBlock(slices[2], {M2DSliceVector(0, 0, 5, 5)}, 1);
    const std::string file = WriteLayers(io, _dir.File("big.wza"), slices);
    ASSERT_GT(file.size(), 1280000u);

    const std::size_t body = file.size() - 32;
    EXPECT_EQ(file.substr(body), Md5Hex(file.substr(0, body)));
    auto u32At = [&](std::size_t at) { return ByteOrder::LoadLE<std::uint32_t>(file.data() + at); };

    // The header ends with slice height, slice count, part count 0 and the empty tail text.
    const std::size_t headerEnd = 16 + u32At(12);
    ASSERT_LT(headerEnd + 8, body);
    EXPECT_EQ(file[headerEnd - 1], '\0');
    EXPECT_EQ(u32At(headerEnd - 5), 0u);
    EXPECT_EQ(u32At(headerEnd - 9), 5u); // layer, two empty records, two layers
    const std::size_t dataStart = headerEnd + 8;
    EXPECT_EQ(ByteOrder::LoadLE<std::uint64_t>(file.data() + headerEnd), body - dataStart);

    // Records and part sections, each length counting what follows its field.
    std::vector<std::uint32_t> bodies;
    std::size_t at = dataStart;
    while (at < body)
    {
        ASSERT_EQ(file.compare(at, 3, "SLC"), 0) << at;
        const std::uint32_t length = u32At(at + 3);
        bodies.push_back(length);
        std::size_t section = at + 7;
        at = section + length;
        ASSERT_LE(at, body);
        while (section < at)
        {
            ASSERT_EQ(file.compare(section, 3, "WRZ"), 0) << section;
            section += 11 + u32At(section + 7);
        }
        EXPECT_EQ(section, at);
    }
    EXPECT_EQ(at, body);
    ASSERT_EQ(bodies.size(), 5u);
    EXPECT_GT(bodies[0], 640000u);
    EXPECT_EQ(bodies[1], 0u);
    EXPECT_EQ(bodies[2], 0u);
    EXPECT_EQ(bodies[3], bodies[0]);
    EXPECT_LT(bodies[4], 100u);

    // The sections' counts and lengths, patched while the header was written: they start
    // after "Big", the date, the machine type and the flags, at 33.
    struct Section
    {
        const char* Marker;
        std::size_t At;
        std::uint32_t Count, Length;
    };
    const Section sections[] = {
        {"MS", 33, 2, 9 + 7},                 // a u32 item and the text "s"
        {"META", 59, 4, 14 + 13 + 11 + 15},   // four descriptions with empty texts
        {"PFS", 124, 6, 13 + 9 + 11 + 3 * 13}, // value, count, "RP-d4" and three doubles
        {"MONS", 207, 2, 9 + 7},              // the count and the text "m"
    };
    for (const Section& s : sections)
    {
        SCOPED_TRACE(s.Marker);
        const std::size_t size = std::strlen(s.Marker);
        ASSERT_EQ(file.compare(s.At, size, s.Marker), 0);
        EXPECT_EQ(u32At(s.At + size), s.Count);
        EXPECT_EQ(u32At(s.At + size + 4), s.Length);
    }
    EXPECT_EQ(file[0x20], 0x20 | 0x10 | 0x08 | 0x04);
    EXPECT_EQ(headerEnd, 207u + 4 + 8 + 16 + 4 + 4 + 4 + 1); // monitoring, then the header's end
}

// The shared build through the whole-file driver and back: vector blocks, parts and heights
// (read from 0, one SliceHeight below where they were written); damaged copies end cleanly.
TEST_F(WzaTest, RoundTripAndDamage)
{
    const BuildShape shape = BuildShape::Rich(5, 3);
    BuildGenerator build(shape);
    std::string reason;
    auto prepare = [&](I2DSliceIO& io) { dynamic_cast<M2DSliceIO_wza&>(io).SetSliceHeight(shape.LayerThickness); };
    const std::string path = _dir.File("rt.wza");
    std::unique_ptr<M2DSliceStack> read = kit::RoundTrip(54, {&build}, path, 10000, 1000, &reason, prepare);
    ASSERT_TRUE(read) << reason;
    M2DSliceStack shifted;
    for (std::uint64_t i = 0; i < read->GetNumSlices(); ++i)
    {
        M2DSlice slice = *read->GetSlice(i);
        slice.SetZ(slice.GetZ() + shape.LayerThickness);
        shifted.AddSlice(slice, true);
    }
    kit::ExpectSameBuild({&build}, shifted, FormatRegistry::ForCode(54)->Losses, 1);

    const std::string bytes = ts::ReadFile(path);
    EXPECT_EQ(M2DSliceIO_wza::DigestOfFileBody(ts::Wide(path)), bytes.substr(bytes.size() - 32));

    // A small file for the sweeps: one layer of two parts.
    BuildGenerator small(BuildShape::Rich(1, 2));
    ASSERT_TRUE(kit::RoundTrip(54, {&small}, path, 10000, 1000, &reason, prepare)) << reason;
    const std::string smallBytes = ts::ReadFile(path);
    kit::SweepTruncations(54, smallBytes);
    kit::SweepCorruptions(54, smallBytes);
}

// The tool: a CLI sample converts to WZA without a settings file (slice height from the
// input's layer thickness, one part per part id with default scan values), reads back with its
// layers and blocks, and `check` names a digest that does not match.
TEST_F(WzaTest, ToolConvertsAndChecksTheDigest)
{
    if (std::string(SLICEIO_TOOL_PATH).empty())
        GTEST_SKIP() << "no tool built";
    auto run = [](const std::string& args, int* code = nullptr) {
        std::string out;
        std::FILE* pipe = popen(("'" SLICEIO_TOOL_PATH "' " + args + " 2>&1").c_str(), "r");
        char buffer[4096];
        for (std::size_t n; pipe && (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
            out.append(buffer, n);
        const int status = pipe ? pclose(pipe) : -1;
        if (code)
            *code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return out;
    };
    const std::string cli = _dir.File("s.cli"), wza = _dir.File("s.wza"), back = _dir.File("back.cli");
    int code = 0;
    run("sample '" + cli + "'", &code);
    ASSERT_EQ(code, 0);
    const std::string converted = run("convert '" + cli + "' '" + wza + "'", &code);
    ASSERT_EQ(code, 0) << converted;
    EXPECT_NE(converted.find("slices of 0.05 mm"), std::string::npos) << converted;
    const std::string info = run("info '" + wza + "'", &code);
    EXPECT_NE(info.find("WZA job file (code 54)"), std::string::npos) << info;
    EXPECT_NE(info.find("MD5 digest:       matches"), std::string::npos) << info;
    EXPECT_NE(info.find("layers:           20"), std::string::npos) << info;
    EXPECT_NE(info.find("vector blocks:    160"), std::string::npos) << info; // 100 contours as vectors
    EXPECT_NE(info.find("lowest height:    0.0000 mm"), std::string::npos) << info; // one layer below the input
    run("check '" + wza + "'", &code);
    EXPECT_EQ(code, 0);
    run("convert '" + wza + "' '" + back + "'", &code);
    EXPECT_EQ(code, 0);

    // The default group: a part's blocks share parameter index 0, so the first block seen (a
    // contour, code 1000) decides it, at 1000 mm/s, 200 W, 0.1 mm.
    std::string bytes = ts::ReadFile(wza);
    for (std::uint32_t code : {1000u})
        EXPECT_NE(bytes.find(kit::Bytes().text("G").u32(code).text("S").f32(1000).text("P").f32(200).text("F").f32(0.1f).s),
                  std::string::npos) << code;
    bytes[bytes.size() / 2] ^= 0x20;
    ts::WriteFile(wza, bytes);
    const std::string check = run("check '" + wza + "'", &code);
    EXPECT_EQ(code, 1);
    EXPECT_NE(check.find("MD5 digest at the end does not match"), std::string::npos) << check;
}
