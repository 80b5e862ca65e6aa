#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>

#include "tests/framework/TestFormat.h"

namespace {

using testformat::TempPath;

std::string Convert(double value, std::size_t width, const char* suffix = "")
{
    TestFormat io;
    char out[64];
    std::memset(out, '#', sizeof out);
    io._ConvertDoubleToTextValue(out, value, width, suffix);
    return out;
}

TEST(I2DSliceIOTextValue, ConvertWritesExactlyTheWidth)
{
    EXPECT_EQ(Convert(1.5, 17), "1.500000000000000");
    EXPECT_EQ(Convert(0.001, 17), "0.001000000000000");
    EXPECT_EQ(Convert(0.0, 17), "0.000000000000000");
    EXPECT_EQ(Convert(-1.5, 17), "-1.50000000000000");
    EXPECT_EQ(Convert(123.25, 10, "/"), "123.250000/");
    EXPECT_EQ(Convert(0.7, 2), "1."); // no fraction digit left: rounds into the unit
}

TEST(I2DSliceIOTextValue, ConvertOverflowsToNinesAndPadsTheIntegerCase)
{
    EXPECT_EQ(Convert(12345, 4), "9999");
    EXPECT_EQ(Convert(-12345, 5), "-9999");
    EXPECT_EQ(Convert(1e30, 6), "999999");
    EXPECT_EQ(Convert(1234, 4), "1234");
    EXPECT_EQ(Convert(-123, 4), "-123");
    // One free position before the digits becomes a blank, the sign moving beside them.
    EXPECT_EQ(Convert(123, 4), " 123");
    EXPECT_EQ(Convert(-12, 4), " -12");
}

TEST(I2DSliceIOTextValue, ConvertRoundsFractionsFromFiveButIntegersFromSix)
{
    EXPECT_EQ(Convert(0.125, 4), "0.13");
    EXPECT_EQ(Convert(0.124, 4), "0.12");
    EXPECT_EQ(Convert(123.5, 4), " 123");
    EXPECT_EQ(Convert(123.6, 4), " 124");
    EXPECT_EQ(Convert(-12.6, 4), " -13");
    EXPECT_EQ(Convert(1234.5, 4), "1234");
    EXPECT_EQ(Convert(1234.7, 4), "1235");
}

class I2DSliceIOReadTextValue : public ::testing::Test
{
protected:
    void Open(const std::string& text)
    {
        std::ofstream(std::filesystem::path(path), std::ios::binary) << text;
        ASSERT_TRUE(io.OpenFile(path, I2DSliceIO::Read));
    }
    void TearDown() override { std::remove(std::filesystem::path(path).string().c_str()); }

    TestFormat io;
    std::wstring path = TempPath("text_value");
};

TEST_F(I2DSliceIOReadTextValue, UnsignedSkipsToDigitsConsumesTheStopAndWraps)
{
    Open("$$VERSION/200x7 65537");
    unsigned short value = 1;
    ASSERT_TRUE(io._ReadTextValue(value));
    EXPECT_EQ(value, 200);
    ASSERT_TRUE(io._ReadTextValue(value)); // the 'x' went with the first number
    EXPECT_EQ(value, 7);
    ASSERT_TRUE(io._ReadTextValue(value));
    EXPECT_EQ(value, 1); // 65537 wraps at 65536
    EXPECT_FALSE(io._ReadTextValue(value));
    EXPECT_EQ(value, 0);
}

TEST_F(I2DSliceIOReadTextValue, FloatReadsFractionsAndIgnoresSignsAndExponents)
{
    Open("-3.5 $$UNITS/00000.005000 12,25 1e5 7.");
    const float expected[] = {3.5f, 0.005f, 12.25f, 1.0f, 5.0f, 7.0f};
    for (float e : expected)
    {
        float value = -1.0f;
        ASSERT_TRUE(io._ReadTextValue(value)) << e;
        EXPECT_FLOAT_EQ(value, e);
    }
    float value = -1.0f;
    EXPECT_FALSE(io._ReadTextValue(value));
    EXPECT_EQ(value, 0.0f);
}

} // namespace
