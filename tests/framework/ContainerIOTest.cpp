#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "TestFormat.h"
#include "TestSlices.h"
#include "framework/I2DSliceIOFileSizeEstimate.h"
#include "framework/M2DSliceContainerIO.h"

using namespace TestSlices;

namespace {

const std::int32_t kMM = MUnit::GetIE();

// What the CLI reader gives back for a written slice: each closed contour starts at its
// last corner and repeats it at the end, and every item carries the id of its source.
M2DSlice AsReadBack(const M2DSlice& written, std::int32_t id)
{
    M2DSlice slice;
    slice.SetZ(written.GetZ());
    for (std::size_t i = 0; i < written.GetSliceBorder()->GetNumContours(); ++i)
    {
        std::vector<M2DSlicePoint> points = ContourPoints(*written.GetSliceBorder()->GetContour(i));
        points.insert(points.begin(), points.back());
        AddContour(slice, points, true, id);
    }
    for (std::size_t i = 0; i < written.GetVectors()->GetNumVectorBlocks(); ++i)
        AddHatches(slice, written.GetVectors()->GetVectorBlock(i)->Vectors, id);
    return slice;
}

// Counts the calls a load makes on its target.
class CountingTarget : public M2DSliceStack
{
public:
    bool StartAddingSlices() override
    {
        ++Starts;
        return true;
    }
    bool StopAddingSlices() override
    {
        ++Stops;
        return true;
    }
    int Starts = 0;
    int Stops = 0;
};

// Asks to stop once it has been pulsed `limit` times.
class CancelAfter : public ZanSDK::Common::IProgressDelegate
{
public:
    explicit CancelAfter(int limit) : _limit(limit) {}
    void OnStart(const std::string& text, bool indeterminate) override
    {
        Text = text;
        Indeterminate = indeterminate;
    }
    void OnPulse() override { ++Pulses; }
    void OnFinish() override { Finished = true; }
    bool IsCancelled() const override { return Pulses >= _limit; }

    std::string Text;
    bool Indeterminate = false;
    int Pulses = 0;
    bool Finished = false;

private:
    int _limit;
};

std::unique_ptr<M2DSliceStack> Load(unsigned short code, const std::wstring& path)
{
    auto stack = std::make_unique<M2DSliceStack>();
    M2DSliceContainerIO driver(code);
    EXPECT_TRUE(driver.ReadContainer(*stack, path, true));
    return stack;
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
        ASSERT_TRUE(driver.GetSliceIO());
        EXPECT_EQ(code, driver.GetSliceIO()->GetFileType());
        ASSERT_TRUE(driver.WriteContainer(*stack, Wide(path), kMM, 100, nullptr));

        M2DSliceContainerIOProperties properties;
        driver.GetSliceIO()->GetIoProperties(properties);
        EXPECT_EQ(3u, properties.NumLayers);
        EXPECT_EQ(5000, properties.LayerThickness);
        EXPECT_EQ(100, properties.InverseResolution);
        EXPECT_EQ(10000, properties.Dimensions.XMin);
        EXPECT_EQ(60000, properties.Dimensions.XMax);
        EXPECT_EQ(20000, properties.Dimensions.YMin);
        EXPECT_EQ(70000, properties.Dimensions.YMax);
        EXPECT_EQ(5000, properties.Dimensions.ZMin);
        EXPECT_EQ(15000, properties.Dimensions.ZMax);

        // The header placeholders are patched with the real extents (mm) and layer count.
        const std::string bytes = ReadFileBytes(path);
        EXPECT_NE(std::string::npos, bytes.find("$$DIMENSION/1.000000000000000,2.000000000000000,0.500000000000000,"
                                                "6.000000000000000,7.000000000000000,1.500000000000000\n"
                                                "$$LAYERS/000003\n$$HEADEREND"));

        auto loaded = Load(code, Wide(path));
        ASSERT_EQ(3u, loaded->GetNumSlices());
        for (std::uint64_t i = 0; i < 3; ++i)
            ExpectSameSlice(AsReadBack(*stack->GetSlice(i), 0), *loaded->GetSlice(i), "layer " + std::to_string(i));

        // The same driver starts the next file from fresh properties.
        ASSERT_TRUE(driver.WriteContainer(*MakeStack({30000, 32000}, 20000, 30000), dir.WFile("next.cli"), kMM, 100,
                                          nullptr));
        EXPECT_NE(std::string::npos, ReadFileBytes(dir.File("next.cli"))
                                         .find("$$DIMENSION/2.000000000000000,3.000000000000000,3.000000000000000,"));
    }
}

TEST(M2DSliceContainerIO, SourcesAreMergedLayerByLayer)
{
    ScratchDir dir;
    auto a = MakeStack({5000, 10000, 15000}, 10000, 10000, 40000);
    auto b = MakeStack({10000, 20000}, 100000, 10000, 30000);
    M2DSliceContainerIO driver(0);
    ASSERT_TRUE(driver.WriteContainers({a.get(), b.get()}, dir.WFile("two.cli"), kMM, 100, nullptr));

    auto loaded = Load(0, dir.WFile("two.cli"));
    ASSERT_EQ(4u, loaded->GetNumSlices());
    ExpectSameSlice(AsReadBack(*a->GetSlice(0), 0), *loaded->GetSlice(0), "a only");
    ExpectSameSlice(AsReadBack(*a->GetSlice(2), 0), *loaded->GetSlice(2), "a only, above b's gap");

    // At the shared height both parts come in source order, each with its own id.
    M2DSlice both = AsReadBack(*a->GetSlice(1), 0);
    M2DSlice fromB = AsReadBack(*b->GetSlice(0), 1);
    AddContour(both, ContourPoints(*fromB.GetSliceBorder()->GetContour(0)), true, 1);
    AddHatches(both, fromB.GetVectors()->GetVectorBlock(0)->Vectors, 1);
    ExpectSameSlice(both, *loaded->GetSlice(1), "shared height");
    ExpectSameSlice(AsReadBack(*b->GetSlice(1), 1), *loaded->GetSlice(3), "b only");
}

TEST(M2DSliceContainerIO, SplitSaveWritesEveryFileWithAllSlices)
{
    ScratchDir dir;
    std::filesystem::create_directories(dir.File("a"));
    auto stack = MakeStack({5000, 10000, 15000});
    auto format = std::make_shared<RecordingCli>();
    format->SetOptions({true, 300}); // every layer breaks the limit: one range each
    std::vector<I2DSliceIOFileSizeEstimate::EstimatedRange> ranges;
    ASSERT_TRUE(format->EstimateFileRanges(*stack, ranges));
    ASSERT_EQ(3u, ranges.size());

    std::shared_ptr<I2DSliceIO> io = format;
    M2DSliceContainerIO driver(io);
    ASSERT_TRUE(driver.WriteContainer(*stack, dir.WFile("a/job.cli"), kMM, 100, nullptr));
    EXPECT_FALSE(std::filesystem::exists(dir.File("a/job.cli")));
    EXPECT_EQ((std::vector<std::uint64_t>{1, 1, 1}), format->HeaderLayerCounts);
    for (const char* name : {"a/job(1,3).cli", "a/job(2,3).cli", "a/job(3,3).cli"})
    {
        SCOPED_TRACE(name);
        ASSERT_TRUE(std::filesystem::exists(dir.File(name)));
        EXPECT_NE(std::string::npos, ReadFileBytes(dir.File(name)).find("$$LAYERS/000003\n"));
        auto loaded = Load(0, dir.WFile(name));
        ASSERT_EQ(3u, loaded->GetNumSlices());
        for (std::uint64_t i = 0; i < 3; ++i)
            ExpectSameSlice(AsReadBack(*stack->GetSlice(i), 0), *loaded->GetSlice(i));
    }
}

TEST(M2DSliceContainerIO, SplitSaveWithOneRangeKeepsThePath)
{
    ScratchDir dir;
    auto stack = MakeStack({5000, 10000, 15000});
    M2DSliceContainerIO driver(35);
    dynamic_cast<I2DSliceIOFileSizeEstimate&>(*driver.GetSliceIO()).SetOptions({true, 5000000});
    ASSERT_TRUE(driver.WriteContainer(*stack, dir.WFile("job"), kMM, 100, nullptr));
    EXPECT_TRUE(std::filesystem::exists(dir.File("job")));
    EXPECT_FALSE(std::filesystem::exists(dir.File("job(1,1)")));
    EXPECT_EQ(3u, Load(35, dir.WFile("job"))->GetNumSlices());
}

TEST(M2DSliceContainerIO, PriorityWritesGroupsInKeyOrder)
{
    ScratchDir dir;
    auto a = MakeStack({5000, 10000});
    auto b = MakeStack({5000, 10000, 15000});
    auto c = MakeStack({20000});
    auto format = std::make_shared<RecordingCli>();
    std::shared_ptr<I2DSliceIO> io = format;
    M2DSliceContainerIO driver(io);
    const std::map<std::uint64_t, std::vector<const ISource2DSlices*>> groups{{7, {c.get()}}, {2, {a.get()}},
                                                                              {4, {b.get()}}};
    ASSERT_TRUE(driver.WriteContainersWithPriority(groups, dir.WFile("prio.cli"), kMM, 100, nullptr));

    EXPECT_EQ((std::vector<std::uint64_t>{2, 4, 7}), format->ContainerKeys);
    EXPECT_EQ((std::vector<std::uint64_t>{3}), format->HeaderLayerCounts); // the largest single source
    auto loaded = Load(0, dir.WFile("prio.cli"));
    std::vector<int> heights;
    for (std::uint64_t i = 0; i < loaded->GetNumSlices(); ++i)
        heights.push_back(loaded->GetSliceZPosition(i));
    EXPECT_EQ((std::vector<int>{5000, 10000, 5000, 10000, 15000, 20000}), heights);
    EXPECT_NE(std::string::npos, ReadFileBytes(dir.File("prio.cli")).find("$$LAYERS/000006\n"));
}

TEST(M2DSliceContainerIO, CallOrderAndLayerBookkeeping)
{
    ScratchDir dir;
    auto format = std::make_shared<TestFormat>();
    std::shared_ptr<I2DSliceIO> io = format;
    M2DSliceContainerIO driver(io);
    auto stack = MakeStack({5000, 10000, 15000});
    ASSERT_TRUE(driver.WriteContainer(*stack, dir.WFile("t.tst"), kMM, 1, nullptr));
    EXPECT_EQ((std::vector<std::string>{"open 1", "header 1", "layer 5000", "layer 10000", "layer 15000", "footer",
                                        "close"}),
              format->calls);
    EXPECT_EQ(3u, format->Properties().NumLayers); // counted from 0 after the header

    // Within a group, sources are joined by index: slices of one layer that disagree in
    // height drop the layer silently and leave it uncounted.
    format->calls.clear();
    auto a = MakeStack({5000, 10000});
    auto b = MakeStack({6000, 10000});
    auto c = MakeStack({20000});
    ASSERT_TRUE(driver.WriteContainersWithPriority({{3, {a.get(), b.get()}}, {1, {c.get()}}}, dir.WFile("p.tst"),
                                                   kMM, 1, nullptr));
    EXPECT_EQ((std::vector<std::string>{"open 1", "header 3", "container 1", "layer 20000", "container 3",
                                        "layer 10000", "footer", "close"}),
              format->calls);
    EXPECT_EQ(2u, format->Properties().NumLayers);

    format->calls.clear();
    M2DSliceStack target;
    ASSERT_TRUE(driver.ReadContainer(target, dir.WFile("p.tst"), true));
    EXPECT_EQ((std::vector<std::string>{"open 0", "read header", "read footer", "close"}), format->calls);
    ASSERT_EQ(2u, target.GetNumSlices());
    EXPECT_EQ(20000, target.GetSliceZPosition(0));
    EXPECT_EQ(10000, target.GetSliceZPosition(1));
}

TEST(M2DSliceContainerIO, NothingToWriteOrNoFormatGivesFalse)
{
    ScratchDir dir;
    M2DSliceStack empty;
    M2DSliceContainerIO driver(0);
    EXPECT_FALSE(driver.WriteContainer(empty, dir.WFile("empty.cli"), kMM, 1, nullptr));
    EXPECT_FALSE(driver.WriteContainers({}, dir.WFile("none.cli"), kMM, 1, nullptr));
    EXPECT_FALSE(std::filesystem::exists(dir.File("empty.cli")));
    EXPECT_FALSE(std::filesystem::exists(dir.File("none.cli")));

    auto stack = MakeStack({5000});
    M2DSliceContainerIO unknown(7);
    EXPECT_FALSE(unknown.GetSliceIO());
    unknown.SetFileBufferSize(1024);
    unknown.SetReadOptions(I2DSliceIO::ReadOptions());
    M2DSliceStack target;
    EXPECT_FALSE(unknown.WriteContainer(*stack, dir.WFile("x.cli"), kMM, 1, nullptr));
    EXPECT_FALSE(unknown.WriteContainersWithPriority({{0, {stack.get()}}}, dir.WFile("x.cli"), kMM, 1, nullptr));
    EXPECT_FALSE(std::filesystem::exists(dir.File("x.cli")));
    ASSERT_TRUE(driver.WriteContainer(*stack, dir.WFile("good.cli"), kMM, 1, nullptr));
    EXPECT_FALSE(unknown.ReadContainer(target, dir.WFile("good.cli"), true));
}

TEST(M2DSliceContainerIO, BadPathsAndUnitsFail)
{
    ScratchDir dir;
    auto stack = MakeStack({5000, 10000});
    M2DSliceContainerIO driver(0);
    EXPECT_FALSE(driver.WriteContainer(*stack, dir.WFile("missing/job.cli"), kMM, 1, nullptr));
    EXPECT_FALSE(driver.WriteContainer(*stack, dir.WFile("units.cli"), 1, 1, nullptr));
    EXPECT_FALSE(driver.WriteContainersWithPriority({{0, {stack.get()}}}, dir.WFile("missing/p.cli"), kMM, 1,
                                                    nullptr));
    EXPECT_FALSE(driver.WriteContainersWithPriority({{0, {stack.get()}}}, dir.WFile("units2.cli"), 7, 1, nullptr));
    if (std::filesystem::exists("/dev/full"))
    {
        EXPECT_FALSE(driver.WriteContainer(*stack, L"/dev/full", kMM, 1, nullptr));
        EXPECT_FALSE(driver.WriteContainersWithPriority({{0, {stack.get()}}}, L"/dev/full", kMM, 1, nullptr));
    }

    CountingTarget target;
    EXPECT_FALSE(driver.ReadContainer(target, dir.WFile("missing.cli"), true));
    WriteFileBytes(dir.File("garbage.cli"), "not a slice file");
    EXPECT_FALSE(driver.ReadContainer(target, dir.WFile("garbage.cli"), true));
    EXPECT_EQ(0, target.Starts); // a failed header never starts the target
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
    EXPECT_EQ(5u, whole.GetNumSlices());
    EXPECT_EQ(1, whole.Starts);
    EXPECT_EQ(0, whole.Stops); // a successful load is left to its caller to stop

    // The reporter is asked after each slice has been added and pulsed after that.
    auto cancel = std::make_shared<CancelAfter>(2);
    CountingTarget part;
    EXPECT_FALSE(recording.ReadContainer(part, dir.WFile("five.cli"), true, cancel));
    EXPECT_EQ(3u, part.GetNumSlices());
    EXPECT_EQ("Loading slices", cancel->Text);
    EXPECT_TRUE(cancel->Indeterminate);
    EXPECT_TRUE(cancel->Finished);
    EXPECT_FALSE(format->IsFileOpen());
    EXPECT_EQ(0, part.Stops);

    // The same load without vectors brings the contours only.
    M2DSliceStack contoursOnly;
    EXPECT_TRUE(recording.ReadContainer(contoursOnly, dir.WFile("five.cli"), false));
    ASSERT_EQ(5u, contoursOnly.GetNumSlices());
    EXPECT_EQ(0u, contoursOnly.GetSlice(4)->GetVectors()->GetNumVectorBlocks());
    EXPECT_EQ(1u, contoursOnly.GetSlice(4)->GetSliceBorder()->GetNumContours());
}
