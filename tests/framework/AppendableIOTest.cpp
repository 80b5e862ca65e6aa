#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "TestSlices.h"
#include "framework/M2DSliceContainerAppendableIO.h"

using namespace TestSlices;

namespace {

const std::int32_t kMM = MUnit::GetIE();

std::vector<int> LoadHeights(const std::wstring& path, std::uint64_t* layersWithGeometry = nullptr)
{
    M2DSliceStack stack;
    M2DSliceContainerIO driver(0);
    EXPECT_TRUE(driver.ReadContainer(stack, path, true));
    std::vector<int> heights;
    std::uint64_t complete = 0;
    for (std::uint64_t i = 0; i < stack.GetNumSlices(); ++i)
    {
        auto slice = stack.GetSlice(i);
        heights.push_back(slice->GetZ());
        if (slice->GetSliceBorder()->GetNumContours() == 1 && slice->GetVectors()->GetNumVectorBlocks() == 1)
            ++complete;
    }
    if (layersWithGeometry)
        *layersWithGeometry = complete;
    return heights;
}

std::string ValidationMessage(M2DSliceContainerAppendableIO& writer, std::int32_t z)
{
    try
    {
        writer.WriteContainer(*MakeStack({z}), true, false);
    }
    catch (const std::invalid_argument& e)
    {
        return e.what();
    }
    return "no exception";
}

} // namespace

TEST(M2DSliceContainerAppendableIO, ValidationRefusesHeightsBelowTheLast)
{
    ScratchDir dir;
    M2DSliceContainerAppendableIO writer(0);
    ASSERT_TRUE(writer.InitializeAppendWriter(dir.WFile("v.cli"), kMM, 100, false));
    EXPECT_TRUE(writer.WriteContainer(*MakeStack({10}), true, false));
    EXPECT_TRUE(writer.WriteContainer(*MakeStack({20}), true, false));
    EXPECT_EQ("Slice can't be written on the height 15, due to already appended. It should be started from Z = 20",
              ValidationMessage(writer, 15));
    EXPECT_EQ(2u, writer.GetNumAppendIterations());
    EXPECT_TRUE(writer.WriteContainer(*MakeStack({20, 30}), true, false)); // an equal height passes
    // Heights stored before a refusal stay stored: in a round of 50 then 45, the 50 is kept
    // although the round is refused, and 48 is then refused against it.
    try
    {
        writer.WriteContainer(*MakeStack({50, 45}), true, false);
        ADD_FAILURE() << "45 after 50 passed";
    }
    catch (const std::invalid_argument&)
    {
    }
    EXPECT_EQ("Slice can't be written on the height 48, due to already appended. It should be started from Z = 50",
              ValidationMessage(writer, 48));
    EXPECT_EQ(3u, writer.GetNumAppendIterations());
    EXPECT_TRUE(writer.ReleaseAppendWriter());

    // The last height starts at 0, so a negative first height is refused.
    M2DSliceContainerAppendableIO fresh(0);
    ASSERT_TRUE(fresh.InitializeAppendWriter(dir.WFile("n.cli"), kMM, 100, false));
    EXPECT_EQ("Slice can't be written on the height -5, due to already appended. It should be started from Z = 0",
              ValidationMessage(fresh, -5));
    EXPECT_TRUE(fresh.WriteContainer(*MakeStack({-5}), false, false)); // without validation it goes in
}

TEST(M2DSliceContainerAppendableIO, RoundsAreCountedAndReadBack)
{
    ScratchDir dir;
    M2DSliceContainerAppendableIO writer(0);
    M2DSliceStack empty;
    EXPECT_FALSE(writer.WriteContainer(*MakeStack({1000}), false, false)); // not initialised
    EXPECT_FALSE(writer.ReleaseAppendWriter());
    ASSERT_TRUE(writer.InitializeAppendWriter(dir.WFile("r.cli"), kMM, 100, false));
    // A second initialisation changes nothing, its path included.
    EXPECT_TRUE(writer.InitializeAppendWriter(dir.WFile("other.cli"), 1, 1, false));
    EXPECT_FALSE(std::filesystem::exists(dir.File("other.cli")));

    EXPECT_TRUE(writer.WriteContainer(*MakeStack({1000, 2000, 3000}), true, true));
    EXPECT_FALSE(writer.WriteContainer(empty, true, true));
    EXPECT_TRUE(writer.WriteContainer(*MakeStack({4000, 5000, 6000, 7000}), true, false));
    EXPECT_EQ(2u, writer.GetNumAppendIterations());
    EXPECT_EQ(7u, writer.GetNumWrittenSlices());

    M2DSliceStack target;
    EXPECT_FALSE(writer.ReadContainer(target, dir.WFile("r.cli"), true)); // busy writing
    EXPECT_TRUE(writer.ReleaseAppendWriter());
    EXPECT_FALSE(writer.ReleaseAppendWriter());
    EXPECT_TRUE(writer.ReadContainer(target, dir.WFile("r.cli"), true));
    EXPECT_EQ(7u, target.GetNumSlices());

    // The header was written without sources and patched at the end.
    const std::string bytes = ReadFileBytes(dir.File("r.cli"));
    EXPECT_NE(std::string::npos, bytes.find("$$LABEL/0,part1\n"));
    EXPECT_NE(std::string::npos, bytes.find("$$LAYERS/000007\n$$HEADEREND"));
    EXPECT_EQ((std::vector<int>{1000, 2000, 3000, 4000, 5000, 6000, 7000}), LoadHeights(dir.WFile("r.cli")));
}

TEST(M2DSliceContainerAppendableIO, DestructorFinishesTheFile)
{
    ScratchDir dir;
    {
        M2DSliceContainerAppendableIO writer(35);
        ASSERT_TRUE(writer.InitializeAppendWriter(dir.WFile("d.cli"), kMM, 100, false));
        ASSERT_TRUE(writer.WriteContainer(*MakeStack({1000, 2000, 3000}), false, false));
    }
    EXPECT_NE(std::string::npos, ReadFileBytes(dir.File("d.cli")).find("$$LAYERS/000003\n"));
    std::uint64_t complete = 0;
    EXPECT_EQ((std::vector<int>{1000, 2000, 3000}), LoadHeights(dir.WFile("d.cli"), &complete));
    EXPECT_EQ(3u, complete);
}

TEST(M2DSliceContainerAppendableIO, UnsuitableFormatsAndPathsFail)
{
    ScratchDir dir;
    auto format = std::make_shared<RecordingCli>();
    format->AppendMode = false;
    std::shared_ptr<I2DSliceIO> io = format;
    M2DSliceContainerAppendableIO noAppend(io);
    EXPECT_EQ(io, noAppend.GetSliceIO());
    EXPECT_FALSE(noAppend.InitializeAppendWriter(dir.WFile("a.cli"), kMM, 1, false));
    EXPECT_FALSE(std::filesystem::exists(dir.File("a.cli")));
    // Forcing skips only the first test: the header without sources then fails, and the
    // opened file stays behind.
    EXPECT_FALSE(noAppend.InitializeAppendWriter(dir.WFile("b.cli"), kMM, 1, true));
    EXPECT_TRUE(std::filesystem::exists(dir.File("b.cli")));
    EXPECT_FALSE(format->IsFileOpen());

    M2DSliceContainerAppendableIO unknown(7);
    EXPECT_FALSE(unknown.InitializeAppendWriter(dir.WFile("c.cli"), kMM, 1, true));

    M2DSliceContainerAppendableIO writer(0);
    EXPECT_FALSE(writer.InitializeAppendWriter(dir.WFile("missing/d.cli"), kMM, 1, false));
    EXPECT_FALSE(writer.InitializeAppendWriter(dir.WFile("e.cli"), 3, 1, false));
    if (std::filesystem::exists("/dev/full"))
    {
        ASSERT_TRUE(writer.InitializeAppendWriter(L"/dev/full", kMM, 1, false));
        EXPECT_FALSE(writer.WriteContainer(*MakeStack({1000}), false, true)); // the flush fails
        EXPECT_FALSE(writer.ReleaseAppendWriter());
    }
}

TEST(AppendableIOConcurrency, ThreadsAppendEveryLayerExactlyOnce)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 25;
    ScratchDir dir;
    M2DSliceContainerAppendableIO writer(0);
    ASSERT_TRUE(writer.InitializeAppendWriter(dir.WFile("c.cli"), kMM, 100, false));

    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int r = 0; r < kRounds; ++r)
            {
                auto stack = MakeStack({(r * kThreads + t + 1) * 100});
                if (!writer.WriteContainer(*stack, false, r % 5 == 0))
                    ++failures;
                // The counters are read without the lock while others write.
                if (writer.GetNumWrittenSlices() > static_cast<std::uint64_t>(kThreads * kRounds))
                    ++failures;
            }
        });
    for (auto& thread : threads)
        thread.join();

    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(static_cast<std::uint64_t>(kThreads * kRounds), writer.GetNumAppendIterations());
    EXPECT_EQ(static_cast<std::uint64_t>(kThreads * kRounds), writer.GetNumWrittenSlices());
    ASSERT_TRUE(writer.ReleaseAppendWriter());

    std::uint64_t complete = 0;
    std::vector<int> heights = LoadHeights(dir.WFile("c.cli"), &complete);
    std::sort(heights.begin(), heights.end());
    std::vector<int> expected;
    for (int i = 1; i <= kThreads * kRounds; ++i)
        expected.push_back(i * 100);
    EXPECT_EQ(expected, heights);
    EXPECT_EQ(static_cast<std::uint64_t>(kThreads * kRounds), complete);
}
