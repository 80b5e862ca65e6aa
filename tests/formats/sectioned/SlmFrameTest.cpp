// The frame of an SLM file byte by byte: LF numbers, the header, models and build styles, a
// layer, the seek table and the checksum of a small build worked out by hand.
#include "SlmTestSupport.h"

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

std::string Encoded(std::uint64_t v, bool fixed, int capacity = 8)
{
    unsigned char b[8] = {};
    const int n = Sectioned::EncodeLF(v, b, capacity, fixed);
    return std::string(reinterpret_cast<char*>(b), static_cast<std::size_t>(n));
}

// Exposes the checksum of an open file.
struct SlmProbe : M2DSliceIO_slm
{
    SlmProbe() : M2DSliceIO_slm(false) {}
    using M2DSliceIO_slm::_WriteChecksumSection;
};

} // namespace

TEST(SlmNumbersTest, MinimalAndFixedFormsAndTheirLimits)
{
    // The minimal form: n counts the shifts by 8 until the value is 31 or less.
    const std::pair<std::uint64_t, std::string> cases[] = {
        {0, Hex({0x00})},           {5, Hex({0x05})},          {31, Hex({0x1F})},
        {32, Hex({0x20, 0x20})},    {42, Hex({0x20, 0x2A})},   {200, Hex({0x20, 0xC8})},
        {8191, Hex({0x3F, 0xFF})},  {8192, Hex({0x40, 0x20, 0x00})},
        {10000, Hex({0x40, 0x27, 0x10})},
        {Sectioned::kLFMax, Hex({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})},
    };
    for (const auto& c : cases)
    {
        EXPECT_TRUE(kit::SameBytes(c.second, Encoded(c.first, false))) << c.first;
        EXPECT_EQ(Sectioned::LFSize(c.first), static_cast<int>(c.second.size())) << c.first;
        std::int64_t back = -1;
        ByteCursor in(c.second);
        EXPECT_TRUE(Sectioned::DecodeLF(in, back) && in.AtEnd() && static_cast<std::uint64_t>(back) == c.first);
    }
    // The fixed form is always eight bytes.
    EXPECT_TRUE(kit::SameBytes(Hex({0xE0, 0, 0, 0, 0, 0, 0, 0}), Encoded(0, true)));
    EXPECT_TRUE(kit::SameBytes(Hex({0xE0, 0, 0, 0, 0, 0, 0x01, 0x0E}), Encoded(270, true)));
    // Beyond the largest value, or a form longer than the room, nothing is written.
    EXPECT_EQ(Encoded(Sectioned::kLFMax + 1, false), "");
    EXPECT_EQ(Encoded(Sectioned::kLFMax + 1, true), "");
    EXPECT_EQ(Encoded(8192, false, 2), ""); // n = 2 is not less than a capacity of 2
    EXPECT_EQ(Encoded(8192, false, 3), Hex({0x40, 0x20, 0x00}));
    // A number cut short fails and says so through the cursor.
    std::int64_t v = 0;
    const std::string cutBytes = Hex({0x40, 0x20});
    ByteCursor cut(cutBytes);
    EXPECT_FALSE(Sectioned::DecodeLF(cut, v));
    EXPECT_TRUE(cut.Failed());
}

TEST(SlmFrameTest, ChecksumOfAnOpenFileCoversAllButItsLastFourBytes)
{
    ts::ScratchDir dir;
    const std::string small = "\x15\x04\xFF\xFF";
    ts::WriteFile(dir.File("small"), small);
    MFile file;
    ASSERT_TRUE(file.OPEN_UPDATE(dir.WFile("small").c_str()));
    EXPECT_TRUE(SlmProbe::_WriteChecksumSection(file)); // four bytes or fewer: the placeholder stays
    file.CLOSE();
    EXPECT_EQ(ts::ReadFile(dir.File("small")), small);

    const std::string body = "abcdefghij\x15\x04";
    ts::WriteFile(dir.File("big"), body + "\xFF\xFF\xFF\xFF");
    ASSERT_TRUE(file.OPEN_UPDATE(dir.WFile("big").c_str()));
    EXPECT_TRUE(SlmProbe::_WriteChecksumSection(file));
    file.CLOSE();
    EXPECT_TRUE(kit::SameBytes(body + Bytes().u32(Crc(body, body.size())).s, ts::ReadFile(dir.File("big"))));
}

// One part (id 2, "P") with one build style, one layer at 0.03 mm holding a hatch block and a
// polygon block of two chains. Every byte below is counted from the tables of the format.
TEST(SlmFrameTest, SmallBuildByteForByte)
{
    ts::ScratchDir dir;
    M2DSlice slice = SliceAt(300);
    AddBlock(slice, e2DSliceVectorType_Hatch, 3, 2, {M2DSliceVector(10000, 20000, 30000, 20000)});
    AddBlock(slice, e2DSliceVectorType_Border, 3, 2,
             {M2DSliceVector(0, 0, 10000, 0), M2DSliceVector(10000, 0, 10000, 10000),
              M2DSliceVector(50000, 0, 60000, 0)});
    auto stack = StackOf({slice}, 300);
    DescribePart(*stack->GetProperties(), 2, L"P", {Style()});
    const std::string file = WriteSlm({stack.get()}, dir.File("small.slm"), [](M2DSliceIO_slm& io) {
        io.SetFileGuid(L"g");
        io.SetProductInformation(L"N", L"1");
    });
    ASSERT_EQ(file.size(), 295u);

    // The creation time is the one thing not fixed in advance: "%Y-%m-%d %H:%M:%S".
    const std::string time = file.substr(76, 19);
    EXPECT_TRUE(std::regex_match(time, std::regex("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d"))) << time;

    Bytes e;
    e.text(Hex({0x01, 0xE0, 0, 0, 0, 0, 0, 0, 0xB2}));                      // header, 178 bytes
    e.text(Hex({0x02, 0x0E})).text("SLM-Layerfile").u8(0);                   // file id
    e.text(Hex({0x03, 0x02, 0x01, 0x0A}));                                   // version 1.10
    e.text(Hex({0x20, 0x2A, 0x02})).text("g").u8(0);                         // GUID, UTF-8
    e.text(Hex({0x1B, 0x03, 0x40, 0x27, 0x10}));                             // z unit 10000
    e.text(Hex({0x04, 0x08, 0xE0, 0, 0, 0, 0, 0, 0x01, 0x0E}));              // seek table at 270
    e.text(Hex({0x20, 0x2C, 0xE0, 0, 0, 0, 0, 0, 0, 0x25}));                 // file history, 37
    e.text(Hex({0x20, 0x2D, 0x04})).u16('N').u16(0);                         // product name
    e.text(Hex({0x20, 0x2E, 0x04})).u16('1').u16(0);                         // product version
    e.text(Hex({0x20, 0x2F, 0x14})).text(time).u8(0);                        // creation time
    e.text(Hex({0x20, 0x26, 0x02})).u16(0);                                  // material comment
    e.text(Hex({0x20, 0x24, 0x02})).u16(0);                                  // material name
    e.text(Hex({0x05, 0xE0, 0, 0, 0, 0, 0, 0, 0x48}));                       // model, 72
    e.text(Hex({0x06, 0x01, 0x02}));                                         // model id 2
    e.text(Hex({0x07, 0x04})).u16('P').u16(0);                               // model name
    e.text(Hex({0x16, 0x01, 0x02}));                                         // top slice 300 / 300 + 1
    e.text(Hex({0x20, 0x25, 0x02})).u16(0);                                  // strategy name
    e.text(Hex({0x20, 0x27, 0x02})).u16(0);                                  // strategy comment
    e.text(Hex({0x20, 0x30, 0x01})).text("1");                               // protection
    e.text(Hex({0x0D, 0x20, 0x2B}));                                         // build style, 43
    e.text(Hex({0x0E, 0x01, 0x03}));                                         // style id 3
    e.text(Hex({0x0F, 0x04})).f32(1000.0f);                                  // speed
    e.text(Hex({0x10, 0x04})).f32(200.0f);                                   // power
    e.text(Hex({0x11, 0x04})).f32(0.5f);                                     // focus
    e.text(Hex({0x19, 0x02, 0x20, 0x46}));                                   // point distance 70
    e.text(Hex({0x1A, 0x02, 0x20, 0x50}));                                   // exposure time 80
    e.text(Hex({0x20, 0x22, 0x04})).i32(1);                                  // laser index
    e.text(Hex({0x20, 0x28, 0x04})).u16('c').u16(0);                         // style name, last
    ASSERT_EQ(e.s.size(), 187u);
    e.text(Hex({0x0A, 0x20, 0x50}));                                         // layer, 80
    e.text(Hex({0x0C, 0x16, 0x12, 0x02, 0x02, 0x03, 0x14, 0x10}));           // hatch: ids, 16 bytes
    e.f32(1.0f).f32(2.0f).f32(3.0f).f32(2.0f);                               // start x, y, end x, y
    e.text(Hex({0x0B, 0x1E, 0x12, 0x02, 0x02, 0x03, 0x13, 0x18}));           // chain of 2: 2 x 8 + 8
    e.f32(0.0f).f32(0.0f).f32(1.0f).f32(0.0f).f32(1.0f).f32(1.0f);
    e.text(Hex({0x0B, 0x16, 0x12, 0x02, 0x02, 0x03, 0x13, 0x10}));           // chain of 1
    e.f32(5.0f).f32(0.0f).f32(6.0f).f32(0.0f);
    ASSERT_EQ(e.s.size(), 270u);
    e.text(Hex({0x08, 0xE0, 0, 0, 0, 0, 0, 0, 0x0A}));                       // seek table, 10
    e.text(Hex({0x09, 0x08, 0x17, 0x02, 0x20, 0xBB, 0x18, 0x02, 0x21, 0x2C})); // at 187, z 300
    e.text(Hex({0x15, 0x04}));
    e.u32(Crc(e.s, e.s.size())); // the checksum covers the section head 15 04 too
    EXPECT_TRUE(kit::SameBytes(e.s, file));
}

TEST(SlmFrameTest, MagicFollowsTheFileTypeAndEmptyTextsKeepTheirTerminators)
{
    ts::ScratchDir dir;
    M2DSlice slice = SliceAt(100);
    AddBlock(slice, e2DSliceVectorType_Hatch, 3, 1, {M2DSliceVector(0, 0, 1, 1)});
    auto stack = StackOf({slice}, 100);
    DescribePart(*stack->GetProperties(), 1, L"", {Style()});
    // An object whose file type is not 47 writes the MTT magic; both read back.
    const std::string mtt = WriteSlm({stack.get()}, dir.File("a.slm"), [](M2DSliceIO_slm& io) { io.SetFileType(0); });
    EXPECT_EQ(mtt.substr(9, 16), std::string("\x02\x0EMTT-Layerfile\0", 16));
    const std::string slm = WriteSlm({stack.get()}, dir.File("b.slm"));
    EXPECT_EQ(slm.substr(9, 16), std::string("\x02\x0ESLM-Layerfile\0", 16));
    // An empty GUID is one NUL; an empty product name one NUL unit.
    EXPECT_EQ(slm.substr(29, 4), Hex({0x20, 0x2A, 0x01, 0x00}));
    EXPECT_EQ(slm.substr(58, 5), Hex({0x20, 0x2D, 0x02, 0x00, 0x00}));
    for (const char* name : {"a.slm", "b.slm"})
    {
        auto read = ReadSlm(dir.File(name));
        ASSERT_TRUE(read && read->GetNumSlices() == 1u) << name;
        EXPECT_EQ(read->GetSlice(0)->GetVectors()->GetTotalNumVectors(), 1u);
    }
    M2DSliceIO_slm reader(false);
    ASSERT_TRUE(reader.OpenFile(dir.WFile("b.slm"), I2DSliceIO::Read));
    ASSERT_TRUE(reader.ReadHeader(nullptr));
    EXPECT_EQ(reader.GetHeaderInfo().at("File ID String"), "SLM-Layerfile");
    EXPECT_EQ(reader.GetHeaderInfo().at("File Version"), "1.10");
    EXPECT_EQ(reader.GetHeaderInfo().at("Layer Z Unit"), "10000");
    EXPECT_EQ(reader.GetFileGuid(), L"");
}
