// The appendable writer: rounds of slices into one open file, from one thread or several.
#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "framework/M2DSliceContainerAppendableIO.h"
#include "tests/TestSupport.h"

using namespace ts;

namespace {

const std::int32_t kMM = MUnit::GetIE();

// The heights of a file's layers; `complete` counts the layers with their square and hatches.
std::vector<int> LoadHeights(const std::wstring& path, std::uint64_t* complete = nullptr)
{
    M2DSliceStack stack;
    EXPECT_TRUE(M2DSliceContainerIO(0).ReadContainer(stack, path, true));
    std::vector<int> heights;
    for (std::uint64_t i = 0; i < stack.GetNumSlices(); ++i)
    {
        auto slice = stack.GetSlice(i);
        heights.push_back(slice->GetZ());
        if (complete)
            *complete += slice->GetSliceBorder()->GetNumContours() == 1 && slice->GetVectors()->GetNumVectorBlocks() == 1;
    }
    return heights;
}

// A validated round of the given heights must be refused at z, for lying below `last`.
void ExpectRefusal(M2DSliceContainerAppendableIO& writer, const std::vector<std::int32_t>& heights, int z, int last)
{
    try
    {
        writer.WriteContainer(*MakeStack(heights), true, false);
        ADD_FAILURE() << "no exception at " << z;
    }
    catch (const std::invalid_argument& e)
    {
        EXPECT_EQ("Slice can't be written on the height " + std::to_string(z) +
                      ", due to already appended. It should be started from Z = " + std::to_string(last),
                  e.what());
    }
}

} // namespace

TEST(M2DSliceContainerAppendableIO, ValidationRefusesHeightsBelowTheLast)
{
    ScratchDir dir;
    M2DSliceContainerAppendableIO writer(0);
    ASSERT_TRUE(writer.InitializeAppendWriter(dir.WFile("v.cli"), kMM, 100, false));
    for (std::int32_t z : {10, 20})
        EXPECT_TRUE(writer.WriteContainer(*MakeStack({z}), true, false)) << z;
    ExpectRefusal(writer, {15}, 15, 20);
    EXPECT_EQ(2u, writer.GetNumAppendIterations());
    EXPECT_TRUE(writer.WriteContainer(*MakeStack({20, 30}), true, false)); // an equal height passes
    // Heights stored before a refusal stay stored: in a round of 50 then 45, the 50 is kept
    // although the round is refused, and 48 is then refused against it.
    ExpectRefusal(writer, {50, 45}, 45, 50);
    ExpectRefusal(writer, {48}, 48, 50);
    EXPECT_EQ(3u, writer.GetNumAppendIterations());
    EXPECT_TRUE(writer.ReleaseAppendWriter());

    // The last height starts at 0, so a negative first height is refused.
    M2DSliceContainerAppendableIO fresh(0);
    ASSERT_TRUE(fresh.InitializeAppendWriter(dir.WFile("n.cli"), kMM, 100, false));
    ExpectRefusal(fresh, {-5}, -5, 0);
    EXPECT_TRUE(fresh.WriteContainer(*MakeStack({-5}), false, false)); // without validation it goes in
}

TEST(M2DSliceContainerAppendableIO, RoundsAreCountedAndReadBack)
{
    ScratchDir dir;
    M2DSliceContainerAppendableIO writer(0);
    // Not initialised.
    EXPECT_FALSE(writer.WriteContainer(*MakeStack({1000}), false, false) || writer.ReleaseAppendWriter());
    ASSERT_TRUE(writer.InitializeAppendWriter(dir.WFile("r.cli"), kMM, 100, false));
    // A second initialisation changes nothing, its path included.
    EXPECT_TRUE(writer.InitializeAppendWriter(dir.WFile("other.cli"), 1, 1, false));
    EXPECT_FALSE(std::filesystem::exists(dir.File("other.cli")));

    EXPECT_TRUE(writer.WriteContainer(*MakeStack({1000, 2000, 3000}), true, true));
    EXPECT_FALSE(writer.WriteContainer(M2DSliceStack(), true, true));
    EXPECT_TRUE(writer.WriteContainer(*MakeStack({4000, 5000, 6000, 7000}), true, false));
    EXPECT_EQ(std::make_tuple(2u, 7u), std::make_tuple(writer.GetNumAppendIterations(), writer.GetNumWrittenSlices()))
        << "rounds, slices";

    M2DSliceStack target;
    EXPECT_FALSE(writer.ReadContainer(target, dir.WFile("r.cli"), true)); // busy writing
    EXPECT_TRUE(writer.ReleaseAppendWriter());
    EXPECT_FALSE(writer.ReleaseAppendWriter());
    EXPECT_TRUE(writer.ReadContainer(target, dir.WFile("r.cli"), true));
    EXPECT_EQ(7u, target.GetNumSlices());

    // The header was written without sources and patched at the end.
    const std::string bytes = ReadFile(dir.File("r.cli"));
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
    EXPECT_NE(std::string::npos, ReadFile(dir.File("d.cli")).find("$$LAYERS/000003\n"));
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
    EXPECT_FALSE(noAppend.InitializeAppendWriter(dir.WFile("a.cli"), kMM, 1, false));
    EXPECT_FALSE(std::filesystem::exists(dir.File("a.cli")));
    // Forcing skips only the first test: the header without sources then fails, and the
    // opened file stays behind.
    EXPECT_FALSE(noAppend.InitializeAppendWriter(dir.WFile("b.cli"), kMM, 1, true));
    EXPECT_TRUE(std::filesystem::exists(dir.File("b.cli")));
    EXPECT_FALSE(format->IsFileOpen());

    EXPECT_FALSE(M2DSliceContainerAppendableIO(7).InitializeAppendWriter(dir.WFile("c.cli"), kMM, 1, true));
    M2DSliceContainerAppendableIO writer(0);
    EXPECT_FALSE(writer.InitializeAppendWriter(dir.WFile("missing/d.cli"), kMM, 1, false) ||
                 writer.InitializeAppendWriter(dir.WFile("e.cli"), 3, 1, false));
    ASSERT_TRUE(writer.InitializeAppendWriter(L"/dev/full", kMM, 1, false));
    EXPECT_FALSE(writer.WriteContainer(*MakeStack({1000}), false, true)); // the flush fails
    EXPECT_FALSE(writer.ReleaseAppendWriter());
}

TEST(AppendableIOConcurrency, ThreadsAppendEveryLayerExactlyOnce)
{
    constexpr int kThreads = 4, kRounds = 25, kTotal = kThreads * kRounds;
    ScratchDir dir;
    M2DSliceContainerAppendableIO writer(0);
    ASSERT_TRUE(writer.InitializeAppendWriter(dir.WFile("c.cli"), kMM, 100, false));

    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int r = 0; r < kRounds; ++r)
            {
                if (!writer.WriteContainer(*MakeStack({(r * kThreads + t + 1) * 100}), false, r % 5 == 0))
                    ++failures;
                // The counters are read without the lock while others write.
                if (writer.GetNumWrittenSlices() > static_cast<std::uint64_t>(kTotal))
                    ++failures;
            }
        });
    for (auto& thread : threads)
        thread.join();

    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(std::make_tuple(std::uint64_t{kTotal}, std::uint64_t{kTotal}),
              std::make_tuple(writer.GetNumAppendIterations(), writer.GetNumWrittenSlices()));
    ASSERT_TRUE(writer.ReleaseAppendWriter());

    std::uint64_t complete = 0;
    std::vector<int> heights = LoadHeights(dir.WFile("c.cli"), &complete);
    std::sort(heights.begin(), heights.end());
    std::vector<int> expected(kTotal);
    for (int i = 0; i < kTotal; ++i)
        expected[i] = (i + 1) * 100;
    EXPECT_EQ(expected, heights);
    EXPECT_EQ(std::uint64_t{kTotal}, complete);
}
