// The shared format kit: byte order, the bounded cursor, placeholders, the descriptor registry
// and the sweeps and round trip of the test kit, run on CLI.
#include <gtest/gtest.h>

#include <cstring>

#include "BuildGenerator.h"
#include "FormatTestKit.h"
#include "framework/ByteCursor.h"
#include "framework/FormatDescriptor.h"
#include "tests/TestSupport.h"

TEST(ByteOrderTest, LoadsAndStoresInBothOrders)
{
    const unsigned char bytes[8] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x80};
    EXPECT_EQ(ByteOrder::LoadLE<std::uint16_t>(bytes), 0x0201u);
    EXPECT_EQ(ByteOrder::LoadBE<std::uint16_t>(bytes), 0x0102u);
    EXPECT_EQ(ByteOrder::LoadLE<std::uint32_t>(bytes + 1), 0x05040302u);
    EXPECT_EQ(ByteOrder::LoadBE<std::uint64_t>(bytes), 0x0102030405060780ull);
    EXPECT_EQ(ByteOrder::LoadLE<std::int64_t>(bytes), static_cast<std::int64_t>(0x8007060504030201ull));
    EXPECT_EQ(ByteOrder::LoadLE<std::int8_t>(bytes + 7), -128);
    // 1.5f is 0x3fc00000; -2.0 is 0xc000000000000000.
    unsigned char out[8] = {};
    ByteOrder::StoreLE<float>(out, 1.5f);
    EXPECT_EQ(std::memcmp(out, "\x00\x00\xc0\x3f", 4), 0);
    ByteOrder::StoreBE<float>(out, 1.5f);
    EXPECT_EQ(std::memcmp(out, "\x3f\xc0\x00\x00", 4), 0);
    ByteOrder::StoreBE<double>(out, -2.0);
    EXPECT_EQ(std::memcmp(out, "\xc0\x00\x00\x00\x00\x00\x00\x00", 8), 0);
    EXPECT_EQ(ByteOrder::LoadBE<double>(out), -2.0);
}

TEST(ByteCursorTest, EveryReadAtEveryOffsetOfAShortBufferFailsCleanly)
{
    const std::string data = kit::Bytes().u32(0x11223344).u16(0x5566).text("ab").u8(0).u8(7);
    for (std::size_t size = 0; size <= data.size(); ++size)
        for (std::size_t offset = 0; offset <= size; ++offset)
        {
            SCOPED_TRACE("size " + std::to_string(size) + ", offset " + std::to_string(offset));
            const std::size_t left = size - offset;
            const auto at = [&] {
                ByteCursor c(data.data(), size);
                EXPECT_TRUE(c.Skip(offset));
                return c;
            };
            std::uint64_t u64 = 99;
            ByteCursor c = at();
            EXPECT_EQ(c.LE(u64), left >= 8);
            EXPECT_EQ(u64 == 99, left < 8) << "a failed read leaves its output";
            EXPECT_EQ(c.Failed(), left < 8);
            c = at();
            std::uint32_t u32 = 0;
            EXPECT_EQ(c.BE(u32), left >= 4);
            c = at();
            ByteCursor sub;
            EXPECT_EQ(c.Sub(3, sub), left >= 3);
            c = at();
            std::string text;
            const bool zeroAhead = data.find('\0', offset) < size;
            EXPECT_EQ(c.StringUntil('\0', text), zeroAhead);
            c = at();
            EXPECT_EQ(c.HasItems(UINT64_MAX, 16), false);
            EXPECT_EQ(c.HasItems(left, 1), true);
            // A failed cursor stays failed: nothing is read after the first short read.
            std::uint8_t byte = 0;
            c = at();
            c.Skip(left + 1);
            EXPECT_FALSE(c.U8(byte));
        }
    ByteCursor c(data);
    std::uint32_t a = 0;
    std::uint16_t b = 0;
    std::string text;
    ByteCursor sub;
    ASSERT_TRUE(c.LE(a) && c.LE(b) && c.StringUntil('\0', text, 2) && c.Sub(1, sub));
    EXPECT_EQ(a, 0x11223344u);
    EXPECT_EQ(b, 0x5566u);
    EXPECT_EQ(text, "ab");
    EXPECT_TRUE(c.AtEnd());
    ByteCursor limited(data);
    EXPECT_TRUE(limited.Skip(6));
    EXPECT_FALSE(limited.StringUntil('\0', text, 1)) << "two bytes stand before the terminator";
}

TEST(ByteCursorTest, RecordsComeOutOfTheFileWholeOrNotAtAll)
{
    ts::ScratchDir dir;
    std::string content;
    for (int i = 0; i < 300; ++i)
        content += static_cast<char>(i * 7);
    ts::WriteFile(dir.File("r.bin"), content);
    MFile file(32); // records straddle and exceed the buffer
    ASSERT_TRUE(file.OPEN_READ(dir.WFile("r.bin").c_str()));
    std::vector<unsigned char> storage;
    ByteCursor record;
    ASSERT_TRUE(ReadRecord(file, 20, storage, record));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(record.Data()), 20), content.substr(0, 20));
    ASSERT_TRUE(ReadRecord(file, 100, storage, record)); // larger than the buffer: copied
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(record.Data()), 100), content.substr(20, 100));
    EXPECT_FALSE(ReadRecord(file, 1000, storage, record)) << "more than the file holds";
    EXPECT_LT(storage.size(), 1000u) << "no room is made for bytes the file does not have";
    EXPECT_EQ(file.TELL(), 120) << "a refused record keeps the position";
    ASSERT_TRUE(ReadRecord(file, 180, storage, record));
    EXPECT_EQ(record.Size(), 180u);
    EXPECT_FALSE(ReadRecord(file, 1, storage, record));
}

TEST(FilePlaceholderTest, PatchesBySeekingBackAndReturns)
{
    ts::ScratchDir dir;
    MFile file(8);
    ASSERT_TRUE(file.OPEN_WRITE(dir.WFile("p.bin").c_str()));
    FilePlaceholder count, size;
    ASSERT_TRUE(WriteAll(file, "AB", 2));
    ASSERT_TRUE(count.Reserve(file, 4));
    ASSERT_TRUE(size.Reserve(file, 2));
    ASSERT_TRUE(WriteAll(file, "0123456789", 10));
    ASSERT_TRUE(count.PatchLE<std::uint32_t>(file, 0x01020304));
    ASSERT_TRUE(size.PatchBE<std::uint16_t>(file, 0x0a0b));
    EXPECT_FALSE(size.PatchLE<std::uint32_t>(file, 1)) << "wider than the placeholder";
    ASSERT_TRUE(WriteAll(file, "Z", 1));
    ASSERT_TRUE(file.CLOSE());
    EXPECT_TRUE(kit::SameBytes(kit::Bytes().text("AB").u32(0x01020304).be<std::uint16_t>(0x0a0b).text("0123456789Z"),
                               ts::ReadFile(dir.File("p.bin"))));

    std::vector<unsigned char> section;
    ByteSink sink(section);
    const std::size_t at = sink.Placeholder(4);
    sink.BE<std::uint16_t>(0x1234);
    sink.String("x");
    sink.PatchLE<std::uint32_t>(at, static_cast<std::uint32_t>(sink.Size()));
    EXPECT_TRUE(kit::SameBytes(kit::Bytes().u32(7).be<std::uint16_t>(0x1234).text("x"),
                               std::string(section.begin(), section.end())));
}

TEST(FormatKitTest, SameBytesNamesTheFirstDifference)
{
    EXPECT_TRUE(kit::SameBytes("abc", "abc"));
    const ::testing::AssertionResult r = kit::SameBytes("abcdef", "abXdef");
    ASSERT_FALSE(r);
    EXPECT_NE(std::string(r.message()).find("offset 2"), std::string::npos) << r.message();
    EXPECT_NE(std::string(r.message()).find("63 64"), std::string::npos) << r.message();
    EXPECT_FALSE(kit::SameBytes("abc", "ab"));
}

TEST(FormatKitTest, RegistryKnowsCliByCodeExtensionAndContent)
{
    const FormatDescriptor* cli = FormatRegistry::ForCode(35);
    ASSERT_NE(cli, nullptr);
    EXPECT_STREQ(cli->Family, "cli");
    EXPECT_EQ(FormatRegistry::ForExtension(".cli")->Code, 0);
    EXPECT_EQ(FormatRegistry::ForExtension(".nothing"), nullptr);
    short code = -1;
    const std::string binaryShort = std::string("$$HEADERSTART\n$$BINARY\n$$HEADEREND") + std::string("\x80\x00", 2);
    ASSERT_TRUE(FormatRegistry::Sniff(reinterpret_cast<const unsigned char*>(binaryShort.data()), binaryShort.size(), code));
    EXPECT_EQ(code, 35);
    const std::string junk(100, 'x');
    EXPECT_FALSE(FormatRegistry::Sniff(reinterpret_cast<const unsigned char*>(junk.data()), junk.size(), code));
    // Every code row reads or writes; codes are unique.
    std::vector<FormatCodeRow> rows = FormatRegistry::Codes();
    for (std::size_t i = 1; i < rows.size(); ++i)
        EXPECT_LT(rows[i - 1].Code, rows[i].Code);
}

TEST(FormatKitTest, CliRoundTripsARichBuildAndSurvivesTheSweeps)
{
    ts::ScratchDir dir;
    BuildGenerator build(BuildShape::Rich(4, 1));
    const auto parts = build.SplitByPart();
    std::vector<const ISource2DSlices*> sources;
    for (const auto& part : parts)
        sources.push_back(part.get());
    std::string reason;
    const auto stack = kit::RoundTrip(0, sources, dir.File("rich.cli"), 10000, 1000, &reason);
    ASSERT_TRUE(stack) << reason;
    const unsigned losses = FormatRegistry::ForCode(0)->Losses | FormatLoss_OpenContours;
    kit::ExpectSameBuild(sources, *stack, losses, 5);

    kit::SweepOptions options;
    options.MaxCases = 600;
    const std::string bytes = ts::ReadFile(dir.File("rich.cli"));
    kit::SweepTruncations(0, bytes, options);
    kit::SweepCorruptions(0, bytes, options);
}
