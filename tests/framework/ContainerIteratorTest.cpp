// The lazy reader: a scan notes every layer, then slices are read on demand in any order.
#include <algorithm>
#include <filesystem>
#include <random>
#include <thread>

#include "framework/M2DSliceContainerIO.h"
#include "framework/M2DSliceContainerIterator.h"
#include "tests/TestSupport.h"

using namespace ts;

namespace {

constexpr std::uint64_t kLayers = 40;

// A binary CLI file of 40 layers, and the same file loaded whole as the reference.
class M2DSliceContainerIteratorTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        std::vector<std::int32_t> heights;
        for (std::uint64_t i = 0; i < kLayers; ++i)
            heights.push_back(5000 + 2500 * static_cast<int>(i));
        M2DSliceContainerIO driver(0);
        ASSERT_TRUE(driver.WriteContainer(*MakeStack(heights), Wide(_path), MUnit::GetIE(), 100, nullptr));
        ASSERT_TRUE(driver.ReadContainer(_reference, Wide(_path), true));
        ASSERT_EQ(kLayers, _reference.GetNumSlices());
    }

    void ExpectSlice(const M2DSliceContainerIterator& it, std::uint64_t i, const std::string& where = "")
    {
        M2DSlice slice;
        it.GetSlice(slice, i);
        ExpectSameSlice(*_reference.GetSlice(i), slice, where + " layer " + std::to_string(i));
    }
    // The slice handed in holds a square, so that a read that leaves it alone is caught.
    static void ExpectEmpty(const M2DSliceContainerIterator& it, std::uint64_t i)
    {
        M2DSlice slice = MakeSquareSlice(1, 0, 0, 1000);
        it.GetSlice(slice, i);
        EXPECT_TRUE(slice.IsEmpty()) << "layer " << i;
    }

    ScratchDir _dir;
    std::string _path = _dir.File("job.cli");
    M2DSliceStack _reference;
};

} // namespace

TEST_F(M2DSliceContainerIteratorTest, ScanMeasuresEveryLayer)
{
    M2DSliceContainerIterator it(Wide(_path), 0, true, 0, true);
    ASSERT_TRUE(it.IsValid() && it.GetNumSlices() == kLayers) << it.GetNumSlices();
    // The thickness is whatever the file says.
    EXPECT_EQ(std::make_tuple(-1, 100), std::make_tuple(it.GetSliceThickness(), it.GetSliceParameters()->Resolution));

    double area = 0.0, length = 0.0;
    M2DSliceXYArea box;
    for (std::uint64_t i = 0; i < kLayers; ++i)
    {
        const M2DSlice& ref = *_reference.GetSlice(i);
        EXPECT_EQ(ref.GetZ(), it.GetSliceZPosition(i));
        EXPECT_EQ(ref.GetXYArea(true), it.GetXYArea(i));
        box.Extend(ref.GetXYArea(true));
        const double side = 50000.0 + 1000.0 * static_cast<double>(i); // the squares of MakeStack
        area += side * side;
        length += 4.0 * side;
    }
    EXPECT_EQ(box, it.GetXYArea());
    EXPECT_DOUBLE_EQ(area, it.GetTotalSurfaceArea());
    EXPECT_DOUBLE_EQ(length, it.GetTotalContourLength());
    // The scan asks the format to skip vectors.
    EXPECT_EQ(std::make_tuple(kLayers, 0u),
              std::make_tuple(it.GetTotals().NumContours, it.GetTotals().NumVectorBlocks));

    // Without the scan at construction; a second scan rebuilds the table instead of doubling it.
    M2DSliceContainerIterator later(Wide(_path), 0, true, 0, false);
    EXPECT_FALSE(later.IsValid() || later.GetNumSlices());
    EXPECT_TRUE(later._ScanFile() && later._ScanFile() && later.IsValid() && later.GetNumSlices() == kLayers);
    ExpectSlice(later, 7);
}

TEST_F(M2DSliceContainerIteratorTest, AnyAccessOrderGivesTheWholeFileLoad)
{
    // Forwards, backwards, then each layer twice in a random order.
    std::vector<std::uint64_t> order, shuffled;
    for (std::uint64_t i = 0; i < 2 * kLayers; ++i)
        order.push_back(i < kLayers ? i : 2 * kLayers - 1 - i);
    shuffled.insert(shuffled.end(), order.begin(), order.end());
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(1234));
    order.insert(order.end(), shuffled.begin(), shuffled.end());
    // Buffers that hold the whole file, a few layers, and less than one layer.
    for (std::uint64_t buffer : {0u, 300u, 48u})
    {
        M2DSliceContainerIterator it(Wide(_path), 0, true, buffer, true);
        ASSERT_TRUE(it.IsValid());
        for (std::uint64_t i : order)
            ExpectSlice(it, i, "buffer " + std::to_string(buffer));
    }
}

TEST_F(M2DSliceContainerIteratorTest, ReadingOnInOrderDoesNotSeek)
{
    auto format = std::make_shared<RecordingCli>();
    M2DSliceContainerIterator it(Wide(_path), format, true, 0, true);
    ASSERT_TRUE(it.IsValid());
    const auto& table = it.GetLayerTable();
    format->Seeks.clear();

    M2DSlice slice;
    for (std::uint64_t i = 0; i < 3; ++i)
        it.GetSlice(slice, i);
    EXPECT_EQ((std::vector<std::int64_t>{table[0].Position}), format->Seeks);

    // Walking down: the first step back seeks to where a buffer ending with the layer
    // would begin (the first layer, as the file is small), then to the layer; the next step
    // lies inside that buffer and only seeks to its layer.
    it.GetSlice(slice, 1);
    it.GetSlice(slice, 0);
    EXPECT_EQ((std::vector<std::int64_t>{table[0].Position, table[0].Position, table[1].Position, table[0].Position}),
              format->Seeks);

    // A layer larger than the buffer gets no read-ahead: only the seek to the layer.
    format->Seeks.clear();
    it.SetFileBufferSize(48);
    it.GetSlice(slice, 5);
    it.GetSlice(slice, 4);
    EXPECT_EQ((std::vector<std::int64_t>{table[5].Position, table[4].Position}), format->Seeks);
    ExpectSameSlice(*_reference.GetSlice(4), slice);
}

TEST_F(M2DSliceContainerIteratorTest, CopyReadsOnAnotherThread)
{
    M2DSliceContainerIterator it(Wide(_path), 0, true, 300, true);
    M2DSliceContainerIterator copy(it);
    ASSERT_TRUE(it.IsValid() && copy.IsValid());
    EXPECT_NE(it.GetSliceIO(), copy.GetSliceIO());
    EXPECT_EQ(0, copy.GetSliceIO()->GetFileType());

    // The original reads forwards into the first half, the copy backwards into the second.
    std::vector<M2DSlice> read(2 * kLayers);
    std::thread other([&] {
        for (std::uint64_t i = kLayers; i-- > 0;)
            copy.GetSlice(read[kLayers + i], i);
    });
    for (std::uint64_t i = 0; i < kLayers; ++i)
        it.GetSlice(read[i], i);
    other.join();
    for (std::uint64_t i = 0; i < 2 * kLayers; ++i)
        ExpectSameSlice(*_reference.GetSlice(i % kLayers), read[i], "read " + std::to_string(i));
}

TEST_F(M2DSliceContainerIteratorTest, BrokenFilesGiveEmptySlices)
{
    // A footer that fails makes the scan invalid, and then every slice is empty.
    auto failing = std::make_shared<RecordingCli>();
    failing->FailFooter = true;
    M2DSliceContainerIterator invalid(Wide(_path), failing, true, 0, true);
    EXPECT_FALSE(invalid.IsValid());
    for (std::uint64_t i = 0; i < invalid.GetNumSlices(); ++i)
        ExpectEmpty(invalid, i);
    EXPECT_FALSE(M2DSliceContainerIterator(invalid).IsValid());
    M2DSliceContainerIterator missing(_dir.WFile("missing.cli"), 0, true, 0, true);
    EXPECT_FALSE(missing.IsValid() || missing.GetNumSlices());
    EXPECT_FALSE(M2DSliceContainerIterator(Wide(_path), 7, true, 0, true).IsValid()); // no format

    // Truncated between the scan and the reads: the layers that are gone come back empty.
    M2DSliceContainerIterator it(Wide(_path), 0, true, 64, true);
    ASSERT_TRUE(it.IsValid());
    std::filesystem::resize_file(_path, static_cast<std::uintmax_t>(it.GetLayerTable()[20].Position));
    ExpectSlice(it, 3);
    ExpectEmpty(it, 30);
    ExpectEmpty(it, kLayers - 1);
    // Deleted: whatever the reads give, they must not fail hard.
    std::filesystem::remove(_path);
    M2DSlice slice;
    for (std::uint64_t i = kLayers; i-- > 0;)
        it.GetSlice(slice, i);
    ExpectEmpty(it, kLayers + 5);

    // A file without layers is valid and empty.
    WriteFile(_path, "$$HEADERSTART\n$$BINARY\n$$UNITS/00000000.010000\n$$VERSION/200\n$$HEADEREND");
    M2DSliceContainerIterator none(Wide(_path), 0, true, 0, true);
    EXPECT_TRUE(none.IsValid() && none.GetNumSlices() == 0 && none.GetXYArea().IsEmpty());
    EXPECT_EQ(100, none.GetSliceParameters()->Resolution);
    ExpectEmpty(none, 0);
}

TEST_F(M2DSliceContainerIteratorTest, InitSliceStackFromSliceFile)
{
    M2DSliceStack stack;
    ASSERT_TRUE(ZanSDK::AM::SliceIO::InitSliceStackFromSliceFile(0, Wide(_path), stack, false));
    ASSERT_EQ(kLayers, stack.GetNumSlices());
    for (std::uint64_t i : {std::uint64_t{0}, kLayers - 1, std::uint64_t{17}})
        ExpectSameSlice(*_reference.GetSlice(i), *stack.GetSlice(i), "layer " + std::to_string(i));

    // With removeAtEnd the file goes with the stack that owns its source.
    const std::string temp = _dir.File("temp.cli");
    std::filesystem::copy_file(_path, temp);
    {
        M2DSliceStack owner;
        ASSERT_TRUE(ZanSDK::AM::SliceIO::InitSliceStackFromSliceFile(0, Wide(temp), owner, true));
        ExpectSameSlice(*_reference.GetSlice(9), *owner.GetSlice(9));
    }
    EXPECT_FALSE(std::filesystem::exists(temp));

    M2DSliceStack broken;
    EXPECT_FALSE(ZanSDK::AM::SliceIO::InitSliceStackFromSliceFile(0, _dir.WFile("missing.cli"), broken, false));
    EXPECT_EQ(0u, broken.GetNumSlices());
}
