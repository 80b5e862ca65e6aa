// ASCII CLI files are read from layer texts held in memory; the lazy iterator must still reach
// each layer by index, in any order.
#include "../../../framework/M2DSliceContainerIterator.h"
#include "CliTestSupport.h"

using namespace clitest;

TEST(M2DSliceIO_cliReader, AsciiLayersByIndexThroughIterator)
{
    const std::string path = TempPath("ascii_iter.cli");
    std::string text = "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$VERSION/200\n$$HEADEREND\n$$GEOMETRYSTART\n";
    for (int i = 0; i < 5; ++i)
        text += "$$LAYER/" + std::to_string(i + 1) + "\n$$POLYLINE/1,1,4,0,0," + std::to_string(i + 1) + ",0,0," +
                std::to_string(i + 1) + ",0,0\n";
    WriteFile(path, text + "$$GEOMETRYEND\n");

    M2DSliceContainerIterator it(Wide(path), 0, true, 0, true);
    ASSERT_TRUE(it.IsValid());
    ASSERT_EQ(it.GetNumSlices(), 5u);
    for (std::uint64_t i : {4u, 0u, 2u, 3u, 1u, 1u})
    {
        M2DSlice slice;
        it.GetSlice(slice, i);
        EXPECT_EQ(slice.GetZ(), static_cast<int>(i + 1) * 10000) << "layer " << i;
        ASSERT_EQ(slice.GetSliceBorder()->GetNumContours(), 1u);
        EXPECT_EQ(slice.GetXYArea(true).XMax, static_cast<int>(i + 1) * 10000);
    }
}
