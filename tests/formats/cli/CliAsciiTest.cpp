// ASCII CLI, code 56: the text written line by line, the stricter header check, and the quirks
// callers meet (a resolution of 6 read two ways, an empty layer counted but not written).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <sstream>

#include "BuildGenerator.h"
#include "FormatTestKit.h"
#include "formats/cli/M2DSliceIO_cli_ascii.h"
#include "formats/cli/NumberText.h"
#include "framework/ConvertKernels.h"
#include "framework/LocalClock.h"
#include "framework/M2DSliceContainerIO.h"
#include "framework/M2DSliceContainerIterator.h"
#include "framework/M2DSliceIOFactory.h"
#include "tests/TestSupport.h"

using namespace ts;

namespace {

std::string Today()
{
    std::tm local{};
    LocalNow(local);
    char date[16];
    std::strftime(date, sizeof date, "%d%m%y", &local);
    return date;
}

std::string Header(const std::string& units, const std::string& dimension, int layers)
{
    return "$$HEADERSTART\n$$ASCII\n$$UNITS/" + units + "\n$$VERSION/200\n$$LABEL/1,part1\n$$DATE/" + Today() +
           "\n$$DIMENSION/" + dimension + "\n$$LAYERS/" + std::to_string(layers) + "\n$$HEADEREND\n$$GEOMETRYSTART\n";
}

bool Write(const M2DSliceStack& stack, const std::string& path, std::int32_t resolution, int modelStart = 1)
{
    auto io = std::make_shared<M2DSliceIO_cli_ascii>();
    io->SetModelStartIndex(modelStart);
    std::shared_ptr<I2DSliceIO> base = io;
    M2DSliceContainerIO driver(base);
    return driver.WriteContainer(stack, Wide(path), 10000, resolution, nullptr);
}

// Reads the header of a hand-written file with the given reader; the reason when refused.
std::string HeaderReason(I2DSliceIO& io, const std::string& path, const std::string& text)
{
    WriteFile(path, text);
    EXPECT_TRUE(io.OpenFile(Wide(path), I2DSliceIO::Read));
    const bool ok = io.ReadHeader(nullptr);
    io.CloseFile();
    return ok ? "" : io.GetFailureReason();
}

} // namespace

TEST(M2DSliceIO_cli_ascii, WritesTheTextLineByLine)
{
    ScratchDir dir;
    // Squares of 5 mm at (1 mm, 2 mm) growing by 0.1 mm, with two hatch lines, at 0.5 and 1 mm.
    const auto stack = MakeStack({5000, 10000});
    ASSERT_TRUE(Write(*stack, dir.File("a.cli"), 1000));
    // Steps of 1/1000 mm; the closed contour from the point before the first, backwards, with
    // the first repeated; hatches x1, y1, x2, y2.
    const std::string expected =
        Header("0.001", "1,2,0.5,6.1,7.1,1", 2) +
        "$$LAYER/500\n"
        "$$POLYLINE/1,1,5,6000,2000,6000,7000,1000,7000,1000,2000,6000,2000\n"
        "$$HATCHES/1,2,1000,3660,6000,3660,1000,5320,6000,5320\n"
        "$$LAYER/1000\n"
        "$$POLYLINE/1,1,5,6100,2000,6100,7100,1000,7100,1000,2000,6100,2000\n"
        "$$HATCHES/1,2,1000,3700,6100,3700,1000,5400,6100,5400\n"
        "$$GEOMETRYEND\n";
    EXPECT_TRUE(kit::SameBytes(expected, ReadFile(dir.File("a.cli"))));

    // A model start index of 5 numbers the slices from 5; the label line stays.
    ASSERT_TRUE(Write(*MakeStack({5000}), dir.File("b.cli"), 1000, 5));
    const std::string b = ReadFile(dir.File("b.cli"));
    EXPECT_NE(b.find("$$LABEL/1,part1\n"), std::string::npos);
    EXPECT_NE(b.find("$$POLYLINE/5,1,5,"), std::string::npos);
    EXPECT_NE(b.find("$$HATCHES/5,2,"), std::string::npos);

    // Any coordinate prints as a default stream prints value / step: general form, six digits.
    {
        std::vector<M2DSliceVector> vectors;
        std::uint64_t seed = 7;
        const auto next = [&seed] {
            seed = seed * 6364136223846793005ull + 1442695040888963407ull;
            return static_cast<int>(seed >> 33) - (1 << 30);
        };
        for (int i = 0; i < 20000; ++i)
            vectors.emplace_back(next(), next() >> (i % 31), next() >> 20, i);
        M2DSliceStack odd;
        M2DSlice slice;
        slice.SetZ(12345);
        AddHatches(slice, vectors);
        odd.AddSlice(slice, true);
        ASSERT_TRUE(Write(odd, dir.File("odd.cli"), 7));
        std::ostringstream line;
        const double c = 10000.0 / 7;
        line << "$$LAYER/" << 12345 / c << "\n$$HATCHES/1," << vectors.size();
        for (const M2DSliceVector& v : vectors)
            line << "," << v.x1 / c << "," << v.y1 / c << "," << v.x2 / c << "," << v.y2 / c;
        const std::string text = ReadFile(dir.File("odd.cli"));
        const std::size_t at = text.find("$$LAYER/");
        EXPECT_TRUE(kit::SameBytes(line.str() + "\n$$GEOMETRYEND\n", text.substr(at)));
    }

    // One block of 70,000 hatches is one line.
    M2DSliceStack big;
    M2DSlice slice;
    slice.SetZ(1000);
    AddHatches(slice, std::vector<M2DSliceVector>(70000, M2DSliceVector(0, 0, 10, 10)));
    big.AddSlice(slice, true);
    ASSERT_TRUE(Write(big, dir.File("c.cli"), 1000));
    const std::string c = ReadFile(dir.File("c.cli"));
    EXPECT_NE(c.find("$$HATCHES/1,70000,"), std::string::npos);
    EXPECT_EQ(std::count(c.begin(), c.end(), '\n'), 13);
}

TEST(M2DSliceIO_cli_ascii, HeaderCheckIsStrict)
{
    ScratchDir dir;
    const std::string path = dir.File("h.cli");
    M2DSliceIO_cli_ascii io;
    const std::string body = "$$LAYER/1\n$$LAYER/2\n$$LAYER/3\n";
    const auto head = [](const std::string& version, const std::string& dims, const std::string& layers) {
        return "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$VERSION/" + version + "\n$$DIMENSION/" + dims + "\n$$LAYERS/" +
               layers + "\n$$HEADEREND\n";
    };
    EXPECT_EQ(HeaderReason(io, path, head("200", "0,0,1,1,1,3", "3") + body), "");
    EXPECT_EQ(HeaderReason(io, path, head("199", "0,0,1,1,1,3", "3") + body),
              "header: \"$$VERSION/\" is 199, below 200");
    EXPECT_EQ(HeaderReason(io, path, head("200", "0,0,1,1,1", "3") + body),
              "header: \"$$DIMENSION/\" has 5 values, not 6");
    EXPECT_EQ(HeaderReason(io, path, head("200", "0,0,1,1,1,3", "4") + body),
              "header: \"$$LAYERS/\" says 4 but the file has 3 \"$$LAYER/\" lines");
    EXPECT_EQ(HeaderReason(io, path, "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$VERSION/200\n$$LAYERS/0\n$$HEADEREND\n"),
              "header: the header has no \"$$DIMENSION/\"");
    // The looser reader of code 0 takes the last one.
    M2DSliceIO_cli loose;
    EXPECT_EQ(HeaderReason(loose, path, "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$VERSION/200\n$$LAYERS/0\n$$HEADEREND\n"), "");

    // The header's values reach the target's properties, in internal units; one layer divides
    // by zero and is accepted.
    WriteFile(path, head("200", "1,2,0.5,6,7,1.5", "3") + body);
    M2DSliceStack stack;
    M2DSliceContainerIO driver(56);
    ASSERT_TRUE(driver.ReadContainer(stack, Wide(path), true, nullptr));
    std::int32_t value = 0;
    EXPECT_TRUE(stack.GetProperties()->GetValue(L"SliceThickness", value));
    EXPECT_EQ(value, 5000);
    EXPECT_TRUE(stack.GetProperties()->GetValue(L"JobXMax", value));
    EXPECT_EQ(value, 60000);
    EXPECT_TRUE(stack.GetProperties()->GetValue(L"JobZMin", value));
    EXPECT_EQ(value, 5000);
    EXPECT_EQ(stack.GetNumSlices(), 3u);
    EXPECT_EQ(HeaderReason(io, path, head("200", "0,0,1,1,1,1", "1") + "$$LAYER/1\n"), "");
}

TEST(M2DSliceIO_cli_ascii, RoundTripsAndItsQuirksStay)
{
    ScratchDir dir;
    BuildGenerator build(BuildShape::Rich(4, 1));
    std::string reason;
    const auto stack = kit::RoundTrip(56, {&build}, dir.File("r.cli"), 10000, 1000, &reason);
    ASSERT_TRUE(stack) << reason;
    kit::ExpectSameBuild({&build}, *stack, FormatRegistry::ForCode(56)->Losses | FormatLoss_OpenContours, 5);

    // The lazy reader reaches each layer by its index, in any order, as a reader going through
    // the layers one after the other has it.
    std::vector<M2DSlice> inOrder;
    {
        M2DSliceIO_cli_ascii reader;
        ASSERT_TRUE(reader.OpenFile(dir.WFile("r.cli"), I2DSliceIO::Read) && reader.ReadHeader(nullptr));
        for (M2DSlice slice; reader.ReadLayer(slice, nullptr, true);)
            inOrder.push_back(slice);
        reader.CloseFile();
    }
    M2DSliceContainerIterator it(dir.WFile("r.cli"), 56, true, 0, true);
    ASSERT_TRUE(it.IsValid());
    ASSERT_EQ(it.GetNumSlices(), 4u);
    ASSERT_EQ(inOrder.size(), 4u);
    for (std::uint64_t i : {3u, 0u, 2u, 2u, 1u, 3u})
    {
        M2DSlice slice;
        it.GetSlice(slice, i);
        ExpectSameSlice(inOrder[i], slice, "iterator layer " + std::to_string(i));
    }

    // A resolution of 6 writes "$$UNITS/0.166667": code 0 rounds 1 / 0.166667 to 6, code 56
    // truncates it to 5, so the same file reads at two scales.
    ASSERT_TRUE(Write(*MakeStack({6000}), dir.File("six.cli"), 6));
    for (const auto& [code, resolution] : {std::pair<short, int>{0, 6}, {56, 5}})
    {
        auto io = M2DSliceIOFactory::GetSliceIO(code);
        ASSERT_TRUE(io->OpenFile(dir.WFile("six.cli"), I2DSliceIO::Read) && io->ReadHeader(nullptr)) << code;
        M2DSliceContainerIOProperties properties;
        io->GetIoProperties(properties);
        EXPECT_EQ(properties.InverseResolution, resolution) << code;
        io->CloseFile();
    }

    // A layer with nothing in it is counted in "$$LAYERS/" but not written, and code 56 then
    // refuses the file that code 0 reads.
    auto withEmpty = MakeStack({5000, 15000});
    M2DSlice empty;
    empty.SetZ(10000);
    withEmpty->AddSlice(empty, true);
    ASSERT_TRUE(Write(*withEmpty, dir.File("e.cli"), 1000));
    const std::string text = ReadFile(dir.File("e.cli"));
    EXPECT_NE(text.find("$$LAYERS/3\n"), std::string::npos);
    M2DSliceStack strict, loose;
    EXPECT_FALSE(M2DSliceContainerIO(56).ReadContainer(strict, dir.WFile("e.cli"), true, nullptr));
    EXPECT_TRUE(M2DSliceContainerIO(0).ReadContainer(loose, dir.WFile("e.cli"), true, nullptr));
    EXPECT_EQ(loose.GetNumSlices(), 2u);

    kit::SweepOptions options;
    options.MaxCases = 400;
    options.Documented = [](const std::exception& e) {
        return dynamic_cast<const std::invalid_argument*>(&e) || dynamic_cast<const std::out_of_range*>(&e);
    };
    const std::string bytes = ReadFile(dir.File("r.cli"));
    kit::SweepTruncations(56, bytes, options);
    kit::SweepCorruptions(56, bytes, options);
}

// Numbers in layer lines are read as the string conversions read each piece: odd spellings,
// long decimals, a carriage return before the line's end; a bad piece throws their exceptions.
TEST(M2DSliceIO_cli_ascii, NumbersReadAsTheStringConversionsReadThem)
{
    ScratchDir dir;
    const std::string path = dir.File("n.cli");
    const std::string head = "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$VERSION/200\n$$DIMENSION/0,0,0,1,1,1\n"
                             "$$LAYERS/1\n$$HEADEREND\n$$GEOMETRYSTART\n$$LAYER/0.5\n";
    std::vector<std::string> pieces = {"-0", "0", "1.", ".5", "-.5", "007", "1e3", "1.5E-2", " 5", "+5", "5 ", "0x10",
                                       "123456789012345", "1234567890123456", "0.123456789012345", "0.1234567890123456",
                                       "-98765.4321098765", "12345678901234567890", "0.00005", "-0.00015", "2.5e-4"};
    std::uint64_t seed = 99;
    for (int i = 0; i < 4000; ++i)
    {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        std::string digits = std::to_string(seed >> (seed % 40));
        const std::size_t point = (seed >> 8) % (digits.size() + 1);
        if (point < digits.size())
            digits.insert(point, ".");
        pieces.push_back((seed & 1 ? "-" : "") + digits);
    }
    while (pieces.size() % 4 != 3)
        pieces.push_back("1");
    pieces.push_back("7\r"); // the line's last piece
    std::string line = "$$HATCHES/1," + std::to_string(pieces.size() / 4);
    for (const std::string& piece : pieces)
        line += "," + piece;
    WriteFile(path, head + line + "\n$$HATCHES/2,1,1,2,3,4\r\n$$GEOMETRYEND\n");
    M2DSliceStack stack;
    ASSERT_TRUE(M2DSliceContainerIO(56).ReadContainer(stack, Wide(path), true, nullptr));
    const M2DSliceVectorLayer& vectors = *stack.GetSlice(0)->GetVectors();
    ASSERT_EQ(vectors.GetNumVectorBlocks(), 2u);
    const auto& read = vectors.GetVectorBlock(0)->Vectors;
    ASSERT_EQ(read.size() * 4, pieces.size());
    for (std::size_t i = 0; i < pieces.size(); ++i)
    {
        const M2DSliceVector& v = read[i / 4];
        const int got[4] = {v.x1, v.y1, v.x2, v.y2};
        EXPECT_EQ(got[i % 4], ConvertKernels::Round(std::stod(pieces[i]) * 10000.0)) << "\"" << pieces[i] << "\"";
    }
    EXPECT_EQ(vectors.GetVectorBlock(1)->Vectors.at(0).y2, 40000);

    // Bad pieces: the exception and its text.
    const auto failure = [&](const std::string& bad) -> std::string {
        WriteFile(path, head + bad + "\n");
        M2DSliceStack ignored;
        try
        {
            M2DSliceContainerIO(56).ReadContainer(ignored, Wide(path), true, nullptr);
        }
        catch (const std::invalid_argument& e)
        {
            return std::string("invalid_argument: ") + e.what();
        }
        catch (const std::out_of_range& e)
        {
            return std::string("out_of_range: ") + e.what();
        }
        return "none";
    };
    EXPECT_EQ(failure("$$HATCHES/1,1,1,2,x,4"), "invalid_argument: invalid stod argument");
    EXPECT_EQ(failure("$$HATCHES/1,1,1,2,,4"), "invalid_argument: invalid stod argument");
    EXPECT_EQ(failure("$$HATCHES/1,1,1,2,1e999,4"), "out_of_range: stod argument out of range");
    EXPECT_EQ(failure("$$HATCHES/1,2,1,2,3,4"), "out_of_range: invalid vector subscript");
    EXPECT_EQ(failure("$$HATCHES/1,2,1,2,3,4,5,6,7,"), "invalid_argument: invalid stod argument");
    EXPECT_EQ(failure("$$HATCHES/1,99999999999,1"), "out_of_range: stoi argument out of range");
    EXPECT_EQ(failure("$$POLYLINE/z,1,1,0,0"), "invalid_argument: invalid stoi argument");
    EXPECT_EQ(failure("$$POLYLINE/"), "invalid_argument: invalid stoi argument");
    EXPECT_EQ(failure("$$POLYLINE/1,1,2,0,0,5"), "out_of_range: invalid vector subscript");
    EXPECT_EQ(failure("$$POLYLINE/1,1,1,0,0,junk after the count"), "none");
}

// The fast general form gives printf's "%g" text for every value: quotients of coordinates by
// the usual steps, values at the edges of the fixed form, near powers of ten and rounding
// ties, and raw bit patterns over the whole range.
TEST(NumberText, FormatsAsPrintfGeneral)
{
    std::size_t checked = 0, wrong = 0;
    const auto check = [&](double value) {
        char expected[64], got[NumberText::kGeneralMax + 1] = {};
        std::snprintf(expected, sizeof expected, "%g", value);
        *NumberText::FormatGeneral(got, value) = '\0';
        ++checked;
        if (std::strcmp(expected, got) != 0 && ++wrong <= 10)
            ADD_FAILURE() << "value " << std::hexfloat << value << ": \"" << got << "\" not \"" << expected << "\"";
    };
    for (double v : {0.0, -0.0, 1.0, -1.0, 0.5, 1e-4, 1e-5, 9.99999e-5, 0.0001000005, 999999.0, 999999.4, 999999.5,
                     999999.6, 1e6, 123456.5, 12345.65, 0.1234565, 2.5, 100000.0, 99999.95, 0.00099999995,
                     std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
                     std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::denorm_min(),
                     std::numeric_limits<double>::max()})
        check(v);
    for (int e = -6; e <= 7; ++e)
    {
        const double p = std::pow(10.0, e);
        double below = p, above = p;
        for (int k = 0; k < 50; ++k)
        {
            check(below = std::nextafter(below, 0.0));
            check(above = std::nextafter(above, 1e300));
            check(-above);
            check(p * (1 - 5e-7) + k * p * 1e-9); // around the rounding of the sixth digit
        }
    }
    std::uint64_t seed = 12345;
    const auto next = [&seed] {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        return seed;
    };
    const double steps[] = {1.0, 10.0, 10000.0 / 7, 10000.0 / 6, 10000.0 / 3, 100.0, 0.1, 10000.0 / 254};
    for (int i = 0; i < 400000; ++i)
    {
        const std::uint64_t r = next();
        const int x = static_cast<int>(r >> 32) >> static_cast<int>(r % 31);
        check(x / steps[i % 8]);
        // Halves and other short fractions, where the sixth digit can sit on a tie.
        check(static_cast<double>(static_cast<int>(r >> 40) % 2000000) / (i % 2 ? 2.0 : 16.0));
        double bits;
        const std::uint64_t raw = next();
        std::memcpy(&bits, &raw, sizeof bits);
        check(bits);
        // Values from 1e-5 to 1e7 spread evenly in their exponent.
        check(std::pow(10.0, -5 + 12 * (next() >> 11) * 0x1p-53));
    }
    EXPECT_EQ(wrong, 0u) << "of " << checked;
}
