// The whole-file driver: saving one, several or grouped sources, split saves, and loading.
#include <filesystem>
#include <map>

#include "framework/M2DSliceContainerIO.h"
#include "tests/framework/TestFormat.h"

using namespace ts;

namespace {

const std::int32_t kMM = MUnit::GetIE();
using Calls = std::vector<std::string>;

// What the CLI reader gives back for a written slice: each closed contour starts at its
// last corner and repeats it at the end, and every item carries the id of its source.
M2DSlice AsReadBack(const M2DSlice& written, int part, M2DSlice slice = M2DSlice())
{
    slice.SetZ(written.GetZ());
    for (const M2DSliceContour& contour : *written.GetSliceBorder())
    {
        Points points = PointsOf(contour);
        points.insert(points.begin(), points.back());
        AddContour(slice, points, true, part);
    }
    for (std::size_t i = 0; i < written.GetVectors()->GetNumVectorBlocks(); ++i)
        AddHatches(slice, written.GetVectors()->GetVectorBlock(i)->Vectors, part);
    return slice;
}

// Counts the calls a load makes on its target.
class CountingTarget : public M2DSliceStack
{
public:
    bool StartAddingSlices() override { return ++Starts; }
    bool StopAddingSlices() override { return ++Stops; }
    int Starts = 0;
    int Stops = 0;
};

// Asks to stop once it has been pulsed twice.
class CancelAfterTwo : public ZanSDK::Common::IProgressDelegate
{
public:
    void OnStart(const std::string& text, bool indeterminate) override { Started = text + (indeterminate ? " (indeterminate)" : ""); }
    void OnPulse() override { ++Pulses; }
    void OnFinish() override { Finished = true; }
    bool IsCancelled() const override { return Pulses >= 2; }
    std::string Started;
    int Pulses = 0;
    bool Finished = false;
};

void ExpectLoadsAs(const M2DSliceStack& written, unsigned short code, const std::wstring& path)
{
    M2DSliceStack loaded;
    ASSERT_TRUE(M2DSliceContainerIO(code).ReadContainer(loaded, path, true));
    ASSERT_EQ(written.GetNumSlices(), loaded.GetNumSlices());
    for (std::uint64_t i = 0; i < written.GetNumSlices(); ++i)
        ExpectSameSlice(AsReadBack(*written.GetSlice(i), 0), *loaded.GetSlice(i), "layer " + std::to_string(i));
}

} // namespace

TEST(M2DSliceContainerIO, RoundTripLongAndShortForms)
{
    ScratchDir dir;
    // Heights 0.5, 1.0, 1.5 mm; squares from (1, 2) mm of 4.0, 4.5 and 5.0 mm.
    auto stack = MakeStack({5000, 10000, 15000}, 10000, 20000, 40000, 5000);
    for (unsigned short code : {0, 35})
    {
        SCOPED_TRACE(code);
        const std::string path = dir.File("job" + std::to_string(code) + ".cli");
        M2DSliceContainerIO driver(code);
        ASSERT_TRUE(driver.GetSliceIO() && driver.WriteContainer(*stack, Wide(path), kMM, 100, nullptr));
        EXPECT_EQ(code, driver.GetSliceIO()->GetFileType());

        M2DSliceContainerIOProperties p;
        driver.GetSliceIO()->GetIoProperties(p);
        const auto& d = p.Dimensions;
        EXPECT_EQ(std::make_tuple(p.NumLayers, p.LayerThickness, p.InverseResolution, d.XMin, d.XMax, d.YMin, d.YMax,
                                  d.ZMin, d.ZMax),
                  std::make_tuple(3u, 5000, 100, 10000, 60000, 20000, 70000, 5000, 15000));
        // The header placeholders are patched with the real extents (mm) and layer count.
        EXPECT_NE(std::string::npos,
                  ReadFile(path).find("$$DIMENSION/1.000000000000000,2.000000000000000,0.500000000000000,"
                                      "6.000000000000000,7.000000000000000,1.500000000000000\n"
                                      "$$LAYERS/000003\n$$HEADEREND"));
        ExpectLoadsAs(*stack, code, Wide(path));

        // The same driver starts the next file from fresh properties.
        ASSERT_TRUE(driver.WriteContainer(*MakeStack({30000, 32000}, 20000, 30000), dir.WFile("next.cli"), kMM, 100,
                                          nullptr));
        EXPECT_NE(std::string::npos, ReadFile(dir.File("next.cli"))
                                         .find("$$DIMENSION/2.000000000000000,3.000000000000000,3.000000000000000,"));
    }
}

TEST(M2DSliceContainerIO, SourcesAreMergedLayerByLayer)
{
    ScratchDir dir;
    auto a = MakeStack({5000, 10000, 15000}, 10000, 10000, 40000);
    auto b = MakeStack({10000, 20000}, 100000, 10000, 30000);
    ASSERT_TRUE(M2DSliceContainerIO(0).WriteContainers({a.get(), b.get()}, dir.WFile("two.cli"), kMM, 100, nullptr));

    M2DSliceStack loaded;
    ASSERT_TRUE(M2DSliceContainerIO(0).ReadContainer(loaded, dir.WFile("two.cli"), true));
    ASSERT_EQ(4u, loaded.GetNumSlices());
    ExpectSameSlice(AsReadBack(*a->GetSlice(0), 0), *loaded.GetSlice(0), "a only");
    // At the shared height both parts come in source order, each with its own id.
    ExpectSameSlice(AsReadBack(*b->GetSlice(0), 1, AsReadBack(*a->GetSlice(1), 0)), *loaded.GetSlice(1), "shared");
    ExpectSameSlice(AsReadBack(*a->GetSlice(2), 0), *loaded.GetSlice(2), "a only, above b's gap");
    ExpectSameSlice(AsReadBack(*b->GetSlice(1), 1), *loaded.GetSlice(3), "b only");
}

TEST(M2DSliceContainerIO, SplitSaveNamesOneFilePerRange)
{
    ScratchDir dir;
    std::filesystem::create_directories(dir.File("a"));
    auto stack = MakeStack({5000, 10000, 15000});
    auto format = std::make_shared<RecordingCli>();
    format->SetOptions({true, 300}); // every layer breaks the limit: one range each
    std::shared_ptr<I2DSliceIO> io = format;
    ASSERT_TRUE(M2DSliceContainerIO(io).WriteContainer(*stack, dir.WFile("a/job.cli"), kMM, 100, nullptr));
    EXPECT_FALSE(std::filesystem::exists(dir.File("a/job.cli")));
    EXPECT_EQ((std::vector<std::uint64_t>{1, 1, 1}), format->HeaderLayerCounts);
    // Each file holds all the slices.
    for (const char* name : {"a/job(1,3).cli", "a/job(2,3).cli", "a/job(3,3).cli"})
    {
        SCOPED_TRACE(name);
        EXPECT_NE(std::string::npos, ReadFile(dir.File(name)).find("$$LAYERS/000003\n"));
        ExpectLoadsAs(*stack, 0, dir.WFile(name));
    }

    // A single range keeps the path as it was.
    M2DSliceContainerIO driver(35);
    dynamic_cast<I2DSliceIOFileSizeEstimate&>(*driver.GetSliceIO()).SetOptions({true, 5000000});
    ASSERT_TRUE(driver.WriteContainer(*stack, dir.WFile("job"), kMM, 100, nullptr));
    EXPECT_FALSE(std::filesystem::exists(dir.File("job(1,1)")));
    ExpectLoadsAs(*stack, 35, dir.WFile("job"));
}

TEST(M2DSliceContainerIO, CallOrderAndLayerBookkeeping)
{
    ScratchDir dir;
    auto format = std::make_shared<TestFormat>();
    std::shared_ptr<I2DSliceIO> io = format;
    M2DSliceContainerIO driver(io);
    ASSERT_TRUE(driver.WriteContainer(*MakeStack({5000, 10000, 15000}), dir.WFile("t.tst"), kMM, 1, nullptr));
    EXPECT_EQ((Calls{"open 1", "header 1", "layer 5000", "layer 10000", "layer 15000", "footer", "close"}),
              format->calls);
    EXPECT_EQ(3u, format->Properties().NumLayers); // counted from 0 after the header

    // Groups go in rising key order. Within a group, sources are joined by index: slices of
    // one layer that disagree in height drop the layer silently and leave it uncounted. The
    // header is written for the layer count of the largest single source.
    format->calls.clear();
    auto a = MakeStack({5000, 10000}), b = MakeStack({6000, 10000});
    auto c = MakeStack({20000}), d = MakeStack({1000, 2000, 3000});
    ASSERT_TRUE(driver.WriteContainersWithPriority({{3, {a.get(), b.get()}}, {1, {c.get()}}, {7, {d.get()}}},
                                                   dir.WFile("p.tst"), kMM, 1, nullptr));
    EXPECT_EQ((Calls{"open 1", "header 4", "container 1", "layer 20000", "container 3", "layer 10000", "container 7",
                     "layer 1000", "layer 2000", "layer 3000", "footer", "close"}),
              format->calls);
    EXPECT_EQ(std::make_pair(std::uint64_t{3}, std::uint64_t{5}),
              std::make_pair(format->headerLayers, format->Properties().NumLayers));

    format->calls.clear();
    M2DSliceStack target;
    ASSERT_TRUE(driver.ReadContainer(target, dir.WFile("p.tst"), true));
    EXPECT_EQ((Calls{"open 0", "read header", "read footer", "close"}), format->calls);
    ASSERT_EQ(5u, target.GetNumSlices());
    EXPECT_EQ(std::make_pair(20000, 10000), std::make_pair(target.GetSliceZPosition(0), target.GetSliceZPosition(1)));
}

TEST(M2DSliceContainerIO, NothingToWriteBadPathsAndNoFormatGiveFalse)
{
    ScratchDir dir;
    M2DSliceStack empty, target;
    auto stack = MakeStack({5000, 10000});
    M2DSliceContainerIO driver(0);
    EXPECT_FALSE(driver.WriteContainer(empty, dir.WFile("empty.cli"), kMM, 1, nullptr) ||
                 driver.WriteContainers({}, dir.WFile("none.cli"), kMM, 1, nullptr));
    EXPECT_FALSE(std::filesystem::exists(dir.File("empty.cli")) || std::filesystem::exists(dir.File("none.cli")));
    // A missing directory, a unit no format takes, a device that refuses every byte.
    for (const auto& [path, unit] : {std::make_pair(dir.WFile("missing/job.cli"), kMM),
                                     std::make_pair(dir.WFile("units.cli"), 1), std::make_pair(dir.WFile("u.cli"), 7),
                                     std::make_pair(std::wstring(L"/dev/full"), kMM)})
    {
        EXPECT_FALSE(driver.WriteContainer(*stack, path, unit, 1, nullptr)) << unit;
        EXPECT_FALSE(driver.WriteContainersWithPriority({{0, {stack.get()}}}, path, unit, 1, nullptr)) << unit;
    }

    // A factory code without a format: every operation fails.
    M2DSliceContainerIO unknown(7);
    EXPECT_FALSE(unknown.GetSliceIO());
    unknown.SetFileBufferSize(1024);
    unknown.SetReadOptions(I2DSliceIO::ReadOptions());
    EXPECT_FALSE(unknown.WriteContainer(*stack, dir.WFile("x.cli"), kMM, 1, nullptr) ||
                 unknown.WriteContainersWithPriority({{0, {stack.get()}}}, dir.WFile("x.cli"), kMM, 1, nullptr));
    EXPECT_FALSE(std::filesystem::exists(dir.File("x.cli")));
    ASSERT_TRUE(driver.WriteContainer(*stack, dir.WFile("good.cli"), kMM, 1, nullptr));
    EXPECT_FALSE(unknown.ReadContainer(target, dir.WFile("good.cli"), true));

    CountingTarget counting;
    EXPECT_FALSE(driver.ReadContainer(counting, dir.WFile("missing.cli"), true));
    WriteFile(dir.File("garbage.cli"), "not a slice file");
    EXPECT_FALSE(driver.ReadContainer(counting, dir.WFile("garbage.cli"), true));
    EXPECT_EQ(0, counting.Starts); // a failed header never starts the target
}

TEST(M2DSliceContainerIO, LoadLeavesTargetOpenAndCanBeCancelled)
{
    ScratchDir dir;
    auto stack = MakeStack({5000, 10000, 15000, 20000, 25000});
    auto format = std::make_shared<RecordingCli>();
    std::shared_ptr<I2DSliceIO> io = format;
    M2DSliceContainerIO recording(io);
    ASSERT_TRUE(recording.WriteContainer(*stack, dir.WFile("five.cli"), kMM, 100, nullptr));

    CountingTarget whole;
    EXPECT_TRUE(recording.ReadContainer(whole, dir.WFile("five.cli"), true));
    EXPECT_EQ(std::make_tuple(5u, 1, 0), std::make_tuple(whole.GetNumSlices(), whole.Starts, whole.Stops))
        << "slices, starts, stops: a load is left to its caller to stop";

    // The reporter is asked after each slice has been added and pulsed after that.
    auto cancel = std::make_shared<CancelAfterTwo>();
    CountingTarget part;
    EXPECT_FALSE(recording.ReadContainer(part, dir.WFile("five.cli"), true, cancel));
    EXPECT_EQ(std::make_tuple(3u, 0, true, false),
              std::make_tuple(part.GetNumSlices(), part.Stops, cancel->Finished, format->IsFileOpen()))
        << "slices, target stops, reporter finished, file open";
    EXPECT_EQ("Loading slices (indeterminate)", cancel->Started);

    // The same load without vectors brings the contours only.
    M2DSliceStack contoursOnly;
    EXPECT_TRUE(recording.ReadContainer(contoursOnly, dir.WFile("five.cli"), false));
    ASSERT_EQ(5u, contoursOnly.GetNumSlices());
    ExpectSameSlice(AsReadBack(MakeSquareSlice(25000, 10000, 20000, 54000, 0), 0), *contoursOnly.GetSlice(4));
}
