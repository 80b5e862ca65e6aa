#include <gtest/gtest.h>

#include <tuple>

#include "contracts/M2DSliceStack.h"
#include "framework/I2DSliceIOFileSizeEstimate.h"

namespace {

using Range = I2DSliceIOFileSizeEstimate::EstimatedRange;

std::tuple<std::uint64_t, std::uint64_t, std::int32_t, std::int32_t> Fields(const Range& r)
{
    return {r.NumLayers, r.Size, r.ZMin, r.ZMax};
}

// A header of 240 bytes and layers of the given sizes at heights 10, 20, ...
class FixedSizes : public I2DSliceIOFileSizeEstimate
{
public:
    explicit FixedSizes(std::vector<std::uint64_t> sizes, bool split = true, std::uint64_t limit = 5000000)
        : _sizes(std::move(sizes))
    {
        SetOptions({split, limit});
    }
    std::vector<Range> Ranges()
    {
        std::vector<Range> ranges(2); // emptied first
        EXPECT_TRUE(EstimateFileRanges(M2DSliceStack(), ranges));
        return ranges;
    }

protected:
    void _EstimateFileSizes(const ISource2DSlices&, Range& header, std::vector<Range>& layers) override
    {
        header.Size = 240;
        for (std::size_t i = 0; i < _sizes.size(); ++i)
        {
            Range layer;
            layer.NumLayers = 1;
            layer.Size = _sizes[i];
            layer.ZMin = layer.ZMax = 10 * static_cast<std::int32_t>(i + 1);
            layers.push_back(layer);
        }
    }

private:
    std::vector<std::uint64_t> _sizes;
};

} // namespace

TEST(I2DSliceIOFileSizeEstimate, RangesBreakAtTheLimit)
{
    EXPECT_TRUE(FixedSizes({100, 200}, false).Ranges().empty());

    const std::vector<Range> none = FixedSizes({}).Ranges();
    ASSERT_EQ(none.size(), 1u);
    EXPECT_EQ(Fields(none[0]), Fields({0, 240, INT32_MAX, INT32_MIN}));

    const std::vector<Range> big = FixedSizes({3000000, 3000000, 3000000}).Ranges();
    ASSERT_EQ(big.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(Fields(big[i]), Fields({1, 3000240, int(10 * i + 10), int(10 * i + 10)}));

    // A range begins with the layer that broke the limit; one above the limit stands alone.
    const std::vector<Range> mixed = FixedSizes({300, 300, 300, 2000, 100}, true, 1000).Ranges();
    ASSERT_EQ(mixed.size(), 4u);
    EXPECT_EQ(Fields(mixed[0]), Fields({2, 840, 10, 20}));
    EXPECT_EQ(Fields(mixed[1]), Fields({1, 540, 30, 30}));
    EXPECT_EQ(Fields(mixed[2]), Fields({1, 2240, 40, 40}));
    EXPECT_EQ(Fields(mixed[3]), Fields({1, 340, 50, 50}));
}

TEST(I2DSliceIOFileSizeEstimate, TotalKeepsTheHeaderLayerCount)
{
    FixedSizes sizes({100, 200, 50});
    Range total;
    ASSERT_TRUE(sizes.EsimateTotalFileSize(M2DSliceStack(), total));
    EXPECT_EQ(Fields(total), Fields({0, 590, 10, 30}));
}
