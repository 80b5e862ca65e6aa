// Reading SLM files made by hand, generating parameters from the XML files, round trips of
// the shared build, and damaged files.
#include "SlmTestSupport.h"

#include <boost/property_tree/xml_parser.hpp>

#include "tests/kit/BuildGenerator.h"

using namespace slmtest;
using kit::Bytes;

namespace {

// A file of one layer at z 300 holding one hatch vector from (1, 2) to (3, 2) mm, with an
// unknown section in the header; the checksum is not read.
std::string HandMadeFile(const std::string& fileId = "SLM-Layerfile", std::uint8_t tableAt = 0x3B)
{
    Bytes b;
    b.text("\x01\x1F");
    b.text("\x02\x0E").text(fileId).u8(0);
    b.text("\x20\x3C\x02\xAA\xBB");
    b.text(std::string("\x04\x08\xE0\0\0\0\0\0\0", 9)).u8(tableAt);
    b.text("\x0A\x18\x0C\x16\x12\x02\x01\x03\x14\x10").f32(1).f32(2).f32(3).f32(2);
    b.text("\x08\x0A\x09\x08\x17\x02\x20\x21\x18\x02\x21\x2C");
    b.text("\x15\x04").u32(0);
    return b.s;
}

bool ReadsHeader(const std::string& path)
{
    M2DSliceIO_slm reader(false);
    return reader.OpenFile(ts::Wide(path), I2DSliceIO::Read) && reader.ReadHeader(nullptr);
}

} // namespace

TEST(SlmReadTest, HandMadeFileAndTheHeadersThatAreRefused)
{
    ts::ScratchDir dir;
    ts::WriteFile(dir.File("hand.slm"), HandMadeFile());
    auto read = ReadSlm(dir.File("hand.slm"));
    ASSERT_TRUE(read && read->GetNumSlices() == 1u);
    const M2DSlice& slice = *read->GetSlice(0);
    EXPECT_EQ(slice.GetZ(), 300);
    ASSERT_EQ(slice.GetVectors()->GetNumVectorBlocks(), 1u);
    const M2DSliceVectorBlock& block = *slice.GetVectors()->GetFirstVectorBlock();
    EXPECT_EQ(block.Vectors, std::vector<M2DSliceVector>{M2DSliceVector(10000, 20000, 30000, 20000)});
    EXPECT_EQ(block.GetTypeInfo().GetType(), 1); // style 3
    EXPECT_EQ(block.GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Part), 1);
    EXPECT_EQ(block.GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Parameter), 0); // no model names style 3

    // "MTT-Layerfile" reads too; another text, a file id of 512 bytes or more, or a pointer
    // that does not reach section 8 do not.
    ts::WriteFile(dir.File("mtt.slm"), HandMadeFile("MTT-Layerfile"));
    EXPECT_TRUE(ReadsHeader(dir.File("mtt.slm")));
    ts::WriteFile(dir.File("other.slm"), HandMadeFile("XYZ-Layerfile"));
    EXPECT_FALSE(ReadsHeader(dir.File("other.slm")));
    ts::WriteFile(dir.File("pointer.slm"), HandMadeFile("SLM-Layerfile", 0x21));
    EXPECT_FALSE(ReadsHeader(dir.File("pointer.slm")));
    std::string longId = HandMadeFile();
    longId.replace(2, 2, "\x42\x00", 2); // section 2 claims 512 bytes
    ts::WriteFile(dir.File("long.slm"), longId);
    EXPECT_FALSE(ReadsHeader(dir.File("long.slm")));
    M2DSliceIO_slm reader(false);
    ASSERT_TRUE(reader.OpenFile(dir.WFile("pointer.slm"), I2DSliceIO::Read));
    EXPECT_FALSE(reader.ReadHeader(nullptr));
    EXPECT_NE(reader.GetFailureReason().find("no seek table"), std::string::npos) << reader.GetFailureReason();
}

TEST(SlmReadTest, GeneratingParametersComeFromTheMaterialDatabaseAndTheConfiguration)
{
    ts::ScratchDir dir;
    ts::WriteFile(dir.File("config.xml"), R"(<?xml version="1.0"?>
<Config>
  <VectorType Id="3">
    <Parameter Key="Hatch.Power" Unit="W"/>
    <Parameter Key="Missing.Key" Unit="x"/>
    <Parameter Key="" Unit="y"/>
  </VectorType>
  <VectorType Id="9"><Parameter Key="Hatch.Power" Unit="W"/></VectorType>
</Config>)");
    const std::string database = R"(<?xml version="1.0"?>
<SLMMaterialDatabase><Categories>
  <Category Name="Steel"><Shortcuts><BuildStrategy Name="Fast"><Hatch><Power>1</Power></Hatch></BuildStrategy></Shortcuts></Category>
  <Category Name="Ti64"><Shortcuts>
    <BuildStrategy Name="Slow"><Hatch><Power>2</Power></Hatch></BuildStrategy>
    <BuildStrategy Name="Fast"><Hatch><Power>250</Power></Hatch></BuildStrategy>
  </Shortcuts></Category>
</Categories></SLMMaterialDatabase>)";
    M2DSlice slice = SliceAt(300);
    AddBlock(slice, e2DSliceVectorType_Hatch, 3, 1, {M2DSliceVector(0, 0, 10000, 0)});
    auto stack = StackOf({slice}, 300);
    DescribePart(*stack->GetProperties(), 1, L"A", {Style()});
    auto prepare = [&](M2DSliceIO_slm& io) {
        io.SetUsedMaterialName(L"Ti64");
        io.SetUsedBuildStrategyName(L"Fast");
        io.SetParameterXml(database);
        io.SetConfigXml(dir.File("config.xml"));
    };
    const std::string file = WriteSlm({stack.get()}, dir.File("gen.slm"), prepare);
    auto utf16 = [](const std::string& t) {
        Bytes b;
        for (char c : t)
            b.u16(static_cast<unsigned char>(c));
        return b.u16(0).s;
    };
    const std::string expected = Bytes()
                                     .text(std::string("\x20\x29\xE0\0\0\0\0\0\0\x32", 10)) // map entry, 50
                                     .text("\x20\x2B\x01\x03")                            // for style 3
                                     .text(std::string("\x20\x23\xE0\0\0\0\0\0\0\x24", 10)) // parameter, 36
                                     .text(utf16("Hatch.Power"))
                                     .text(utf16("250"))
                                     .text(utf16("W"))
                                     .s;
    const std::size_t at = file.find(std::string("\x20\x29\xE0", 3));
    ASSERT_NE(at, std::string::npos);
    EXPECT_TRUE(kit::SameBytes(expected, file.substr(at, expected.size())));
    // The map entry closes the model, which closes the header.
    EXPECT_EQ(at + expected.size(), 9 + static_cast<std::size_t>(static_cast<unsigned char>(file[8])));
    EXPECT_NE(file.find(std::string("\x20\x24\x0A", 3) + utf16("Ti64")), std::string::npos); // material
    EXPECT_NE(file.find(std::string("\x20\x25\x0A", 3) + utf16("Fast")), std::string::npos); // strategy

    // Without the configuration path there are no generating parameters; a configuration
    // that cannot be opened is the parser's error.
    const std::string plain = WriteSlm({stack.get()}, dir.File("plain.slm"), [&](M2DSliceIO_slm& io) {
        prepare(io);
        io.SetConfigXml("");
    });
    EXPECT_EQ(plain.find(std::string("\x20\x29\xE0", 3)), std::string::npos);
    auto io = std::make_shared<M2DSliceIO_slm>(false);
    prepare(*io);
    io->SetConfigXml(dir.File("missing.xml"));
    std::shared_ptr<I2DSliceIO> base = io;
    M2DSliceContainerIO out(base);
    try
    {
        out.WriteContainer(*stack, dir.WFile("missing.slm"), 10000, 1, nullptr);
        ADD_FAILURE() << "no exception";
    }
    catch (const boost::property_tree::xml_parser_error& e)
    {
        EXPECT_NE(std::string(e.what()).find("cannot open file"), std::string::npos) << e.what();
    }
}

TEST(SlmReadTest, SharedBuildRoundTripsItsVectorsExactlyInMillimetres)
{
    ts::ScratchDir dir;
    BuildGenerator build(BuildShape::Rich(5, 3));
    const auto parts = build.SplitByPart();
    std::vector<const ISource2DSlices*> sources;
    for (const auto& part : parts)
        sources.push_back(part.get());
    PersistentProperties defaults;
    DescribePart(defaults, 1, L"", {Style()});
    auto prepare = [&](I2DSliceIO& io) { dynamic_cast<M2DSliceIO_slm&>(io).SetSourceDefaults(defaults); };
    std::string reason;
    const auto stack = kit::RoundTrip(47, sources, dir.File("rich.slm"), 10000, 1, &reason, prepare);
    ASSERT_TRUE(stack) << reason;
    kit::ExpectSameBuild(sources, *stack, FormatRegistry::ForCode(47)->Losses, 0);

    // Every hatch vector comes back exactly, with its part, in the order written.
    M2DSliceSourceVector joined;
    joined.SetVector(sources);
    ASSERT_EQ(stack->GetNumSlices(), joined.GetNumSlices());
    for (std::uint64_t i = 0; i < joined.GetNumSlices(); ++i)
    {
        std::vector<std::pair<int, M2DSliceVector>> want, got;
        auto collect = [](const M2DSlice& s, std::vector<std::pair<int, M2DSliceVector>>& out) {
            for (const M2DSliceVectorBlock* b = s.GetVectors()->GetFirstVectorBlock(); b; b = b->GetNextVectorBlock())
                for (const M2DSliceVector& v : b->Vectors)
                    out.emplace_back(b->GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Part), v);
        };
        collect(*joined.GetSlice(i), want);
        collect(*stack->GetSlice(i), got);
        ASSERT_FALSE(want.empty());
        EXPECT_TRUE(want == got) << "layer " << i;
    }

    kit::SweepOptions options;
    options.MaxCases = 500;
    options.Make = [] { return std::make_shared<M2DSliceIO_slm>(false); };
    const std::string bytes = ts::ReadFile(dir.File("rich.slm"));
    kit::SweepTruncations(47, bytes, options);
    kit::SweepCorruptions(47, bytes, options);
}
