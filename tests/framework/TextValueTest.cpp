// The fixed-width number text of the text headers, and the lenient number reader.
#include <cstring>

#include "tests/framework/TestFormat.h"

namespace {

TEST(I2DSliceIOTextValue, ConvertWritesExactlyTheWidth)
{
    struct Case
    {
        double value;
        std::size_t width;
        const char* suffix;
        const char* text;
    };
    const Case cases[] = {
        {1.5, 17, "", "1.500000000000000"}, {0.001, 17, "", "0.001000000000000"}, {0.0, 17, "", "0.000000000000000"},
        {-1.5, 17, "", "-1.50000000000000"}, {123.25, 10, "/", "123.250000/"},
        {0.7, 2, "", "1."},     // no fraction digit left: rounds into the unit
        {12345, 4, "", "9999"}, // overflow gives nines
        {-12345, 5, "", "-9999"}, {1e30, 6, "", "999999"}, {1234, 4, "", "1234"}, {-123, 4, "", "-123"},
        // One free position before the digits becomes a blank, the sign moving beside them.
        {123, 4, "", " 123"}, {-12, 4, "", " -12"},
        // Fractions round from five, integers from six.
        {0.125, 4, "", "0.13"}, {0.124, 4, "", "0.12"}, {123.5, 4, "", " 123"}, {123.6, 4, "", " 124"},
        {-12.6, 4, "", " -13"}, {1234.5, 4, "", "1234"}, {1234.7, 4, "", "1235"}};
    TestFormat io;
    for (const Case& c : cases)
    {
        char out[64];
        std::memset(out, '#', sizeof out);
        io._ConvertDoubleToTextValue(out, c.value, c.width, c.suffix);
        EXPECT_STREQ(out, c.text) << c.value << " in " << c.width;
    }
}

class I2DSliceIOReadTextValue : public ::testing::Test
{
protected:
    void Open(const std::string& text)
    {
        ts::WriteFile(dir.File("values.txt"), text);
        ASSERT_TRUE(io.OpenFile(dir.WFile("values.txt"), I2DSliceIO::Read));
    }
    ts::ScratchDir dir;
    TestFormat io;
};

TEST_F(I2DSliceIOReadTextValue, UnsignedSkipsToDigitsConsumesTheStopAndWraps)
{
    Open("$$VERSION/200x7 65537");
    unsigned short value = 1;
    for (unsigned short expected : {200, 7, 1}) // the 'x' goes with 200; 65537 wraps at 65536
    {
        ASSERT_TRUE(io._ReadTextValue(value));
        EXPECT_EQ(value, expected);
    }
    EXPECT_FALSE(io._ReadTextValue(value));
    EXPECT_EQ(value, 0);
}

TEST_F(I2DSliceIOReadTextValue, FloatReadsFractionsAndIgnoresSignsAndExponents)
{
    Open("-3.5 $$UNITS/00000.005000 12,25 1e5 7.");
    float value = -1.0f;
    for (float expected : {3.5f, 0.005f, 12.25f, 1.0f, 5.0f, 7.0f})
    {
        ASSERT_TRUE(io._ReadTextValue(value)) << expected;
        EXPECT_FLOAT_EQ(value, expected);
    }
    EXPECT_FALSE(io._ReadTextValue(value));
    EXPECT_EQ(value, 0.0f);
}

} // namespace
