// The buffered file: byte order, seeks and short reads around the buffer, mixed reading and
// writing, text searches, and failures of the system.
#include <cerrno>

#include "contracts/MFile.h"
#include "tests/TestSupport.h"

namespace {

// 100 printable bytes without a short period, so that reading or viewing the wrong bytes
// cannot pass for the right ones. Every test starts with them in the file.
std::string Pattern()
{
    std::string s;
    for (int i = 0; i < 100; ++i)
        s += static_cast<char>(32 + (i * 7919) % 95);
    return s;
}

class MFileTest : public ::testing::Test
{
protected:
    void SetUp() override { ts::WriteFile(file, data); }
    // Up to n bytes from the current position; the byte at an absolute one (-1 at the end).
    static std::string Take(MFile& f, std::size_t n)
    {
        std::string s(n, '\0');
        s.resize(f.ReadBytes(s.data(), n));
        return s;
    }
    static int At(MFile& f, std::int64_t position) { return f.SEEK(position, 0) ? f.GETC() : -2; }
    ts::ScratchDir dir;
    std::string file = dir.File("data.bin");
    std::wstring path = ts::Wide(file);
    const std::string data = Pattern();
};

TEST_F(MFileTest, EveryWidthIsWrittenLittleEndianAndReadBack)
{
    MFile f;
    ASSERT_TRUE(f.OPEN_WRITE(path.c_str()));
    const short s = -2;
    const unsigned short us = 0x1234;
    const int i = -0x12345678;
    const unsigned int ui = 0xA1B2C3D4u;
    const std::int64_t l = -2;
    const std::uint64_t ul = 0x0102030405060708ull;
    const float fl = 1.5f;
    const double d = -2.0;
    const unsigned char uc[2] = {0xFE, 0x01};
    const bool b = true;
    // A braced list is evaluated in order. Fixed-width writes count bytes, WRITE counts items.
    std::vector<std::size_t> counts{f.WriteInt16(&s, 1), f.WriteInt16(&us, 1), f.WriteInt32(&i, 1),
                                    f.WriteInt32(&ui, 1), f.WriteFloat(&fl, 1),  f.WriteInt64(&l, 1),
                                    f.WriteInt64(&ul, 1), f.WriteDouble(&d, 1),  f.WRITE(uc, 2),
                                    f.WRITE(&b, 1)};
    EXPECT_EQ(counts, (std::vector<std::size_t>{2, 2, 4, 4, 4, 8, 8, 8, 2, 1}));
    EXPECT_EQ(f.GET_SIZE(), 43); // pending bytes count
    ASSERT_TRUE(f.CLOSE());
    const unsigned char expected[] = {
        0xFE, 0xFF, 0x34, 0x12, 0x88, 0xA9, 0xCB, 0xED, 0xD4, 0xC3, 0xB2, 0xA1, 0x00, 0x00, 0xC0,
        0x3F, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03,
        0x02, 0x01, 0,    0,    0,    0,    0,    0,    0x00, 0xC0, 0xFE, 0x01, 0x01};
    EXPECT_EQ(ts::ReadFile(file), std::string(reinterpret_cast<const char*>(expected), sizeof(expected)));

    ASSERT_TRUE(f.OPEN_READ(path.c_str()));
    short s2[2];
    int i2[2];
    float fl2;
    std::int64_t l2[2];
    double d2;
    unsigned char uc2[3];
    counts = {f.ReadInt16(s2, 2), f.ReadInt32(i2, 2), f.ReadFloat(&fl2, 1), f.ReadInt64(l2, 2), f.ReadDouble(&d2, 1),
              f.READ(uc2, 3)};
    EXPECT_EQ(counts, (std::vector<std::size_t>{4, 8, 4, 16, 8, 3}));
    EXPECT_EQ(std::make_tuple(s2[0], static_cast<unsigned short>(s2[1]), i2[0], static_cast<unsigned int>(i2[1])),
              std::make_tuple(s, us, i, ui));
    EXPECT_EQ(std::make_tuple(fl2, l2[0], static_cast<std::uint64_t>(l2[1]), d2, uc2[2]),
              std::make_tuple(fl, l, ul, d, static_cast<unsigned char>(1)));
    EXPECT_TRUE(f.IS_EOF());
}

TEST_F(MFileTest, SeeksAndShortReadsWithATinyBuffer)
{
    MFile f(16);
    ASSERT_TRUE(f.OPEN_READ(path.c_str()));
    EXPECT_EQ(f.GETC(), data[0]);
    EXPECT_EQ(At(f, 10), data[10]); // inside the buffer
    ASSERT_TRUE(f.SEEK(50, 1));     // beyond it
    EXPECT_EQ(f.TELL(), 61);
    EXPECT_EQ(f.GETC(), data[61]);
    EXPECT_FALSE(f.SEEK(-200, 1)); // before the start: refused, position kept
    EXPECT_EQ(f.TELL(), 62);
    // A read spanning several buffer fills, then one bigger than the buffer.
    ASSERT_TRUE(f.SEEK(5, 0));
    const std::string part = Take(f, 40);
    EXPECT_EQ(part + Take(f, 7), data.substr(5, 47));

    // Short reads at the end: fixed-width reads count bytes, READ whole items; no error.
    int values[3];
    ASSERT_TRUE(f.SEEK(-10, 2));
    EXPECT_EQ(f.ReadInt32(values, 3), 10u);
    ASSERT_TRUE(f.SEEK(90, 0));
    EXPECT_EQ(f.READ(values, 3), 2u);
    ASSERT_TRUE(f.SEEK(96, 0));
    EXPECT_EQ(Take(f, 64), data.substr(96));
    EXPECT_EQ(f.GETC(), -1);
    EXPECT_TRUE(f.IS_EOF());
    ASSERT_TRUE(f.SEEK(200, 0)); // past the end: allowed, reads nothing
    EXPECT_EQ(f.READ(values, 1), 0u);
    EXPECT_EQ(f.GET_ERROR(), 0);

    // A reader walking backwards seeks ahead of a layer, then onto it: the first seek
    // anchors the buffer, so that the bytes between both seeks stay readable from one load.
    ASSERT_TRUE(f.SEEK(40, 0));
    ASSERT_TRUE(f.SEEK(50, 0)); // within 16 bytes of the anchor
    EXPECT_EQ(f.TELL(), 50);
    EXPECT_EQ(f.GETC(), data[50]);
    EXPECT_EQ(At(f, 41), data[41]); // back into the anchored buffer
    ASSERT_TRUE(f.SEEK(55, 0));
    EXPECT_EQ(Take(f, 10), data.substr(55, 10));
    ASSERT_TRUE(f.SEEK(98, 0)); // an anchor near the end reads short and cleanly
    EXPECT_EQ(At(f, 99), data[99]);
    EXPECT_EQ(f.GETC(), -1);
    EXPECT_EQ(f.GET_ERROR(), 0);
}

TEST_F(MFileTest, ViewsReadInPlaceAcrossBufferEnds)
{
    MFile f(16);
    ASSERT_TRUE(f.OPEN_READ(path.c_str()));
    // Views of 6 bytes straddle the 16-byte buffer's ends; mixed with byte reads and seeks
    // they must see the file as it is, position by position.
    auto view = [&](std::size_t n) {
        const char* v = f.ReadView(n);
        return v ? std::string(v, n) : "(null)";
    };
    std::string seen;
    for (int i = 0; i < 8; ++i)
    {
        seen += view(6);
        seen += Take(f, 2);
    }
    EXPECT_EQ(seen, data.substr(0, 64));
    EXPECT_EQ(f.TELL(), 64);
    ASSERT_TRUE(f.SEEK(30, 0));
    ASSERT_TRUE(f.SEEK(40, 0)); // anchored at 30: the view starts inside the loaded buffer
    EXPECT_EQ(view(16), data.substr(40, 16));

    // More than the buffer, or past the end: null, and the position stays.
    EXPECT_EQ(f.ReadView(17), nullptr);
    EXPECT_EQ(f.TELL(), 56);
    ASSERT_TRUE(f.SEEK(90, 0));
    EXPECT_EQ(f.ReadView(11), nullptr);
    EXPECT_EQ(f.TELL(), 90);
    EXPECT_EQ(view(10), data.substr(90));
    EXPECT_EQ(f.ReadView(1), nullptr);
    EXPECT_EQ(f.GET_ERROR(), 0);
}

TEST_F(MFileTest, MixedReadingAndWritingStayConsistent)
{
    MFile f(16);
    ASSERT_TRUE(f.OPEN_UPDATE(path.c_str()));
    EXPECT_EQ(f.GETC(), data[0]);      // fills the read buffer
    ASSERT_TRUE(f.WRITE_STRING("AB")); // must not use stale buffered bytes afterwards
    EXPECT_EQ(f.GETC(), data[3]);      // flushes first
    const std::string head = data.substr(0, 1) + "AB" + data.substr(3, 1);
    ASSERT_TRUE(f.SEEK(0, 0));
    EXPECT_EQ(Take(f, 4), head);
    ASSERT_TRUE(f.SEEK(0, 2));
    ASSERT_TRUE(f.WRITE_STRING("z"));
    f.SET_BUFFER_SIZE(8); // flushes and keeps the position
    EXPECT_EQ(ts::ReadFile(file).size(), 101u);
    EXPECT_EQ(f.TELL(), 101);
    const std::string tail(29, 'x');
    EXPECT_EQ(f.WriteBytes(tail.data(), tail.size()), 29u); // bigger than the buffer
    EXPECT_TRUE(f.FPRINTF("%s|%d", std::string(2000, 'y').c_str(), 7)); // longer than the stack buffer
    EXPECT_EQ(f.GET_SIZE(), 100 + 30 + 2002);
    ASSERT_TRUE(f.CLOSE());
    EXPECT_EQ(ts::ReadFile(file), head + data.substr(4) + "z" + tail + std::string(2000, 'y') + "|7");

    ASSERT_TRUE(f.OPEN_APPEND(path.c_str()));
    EXPECT_EQ(f.TELL(), 2132);
    ASSERT_TRUE(f.WRITE_STRING(std::string("!")) && f.CLOSE());
    EXPECT_EQ(ts::ReadFile(file).back(), '!');
    ASSERT_TRUE(f.OPEN_WRITE(path.c_str())); // truncates
    EXPECT_EQ(f.GET_SIZE(), 0);
}

TEST_F(MFileTest, SearchStringAndReadStringUntil)
{
    MFile f(16);
    ts::WriteFile(file, "");
    ASSERT_TRUE(f.OPEN_READ(path.c_str()));
    EXPECT_FALSE(f.SEARCH_STRING("$$HEADER", -1, true));
    EXPECT_TRUE(f.SEARCH_STRING("", -1, true) && f.TELL() == 0);

    //                 0         1         2         3
    //                 0123456789012345678901234567890123456
    ts::WriteFile(file, "abc$$$$HEADERxyz..........$$DIM/12,34");
    ASSERT_TRUE(f.OPEN_READ(path.c_str()));
    // Step by step: rewind first?, text, limit, skip the match?, found, position after.
    const std::tuple<bool, const char*, std::int64_t, bool, bool, std::int64_t> searches[] = {
        {true, "$$$HEADER", -1, true, true, 13}, // overlapping prefix: starts at 4, inside "$$$$"
        {true, "$$DIM/", 31, true, false, 31},   // the match must end at or before the limit
        {true, "$$DIM/", 32, true, true, 32},
        {false, "$$DIM/", -1, true, false, 37},  // searching on; not found leaves it at the end
        {true, "ERxyz", -1, false, true, 11}};   // across the buffer end, left at the match
    for (const auto& [rewind, text, limit, skip, found, position] : searches)
    {
        if (rewind)
            f.REWIND();
        EXPECT_EQ(f.SEARCH_STRING(text, limit, skip), found) << text << " " << limit;
        EXPECT_EQ(f.TELL(), position) << text << " " << limit;
    }
    EXPECT_EQ(f.GETC(), 'E');
    EXPECT_EQ(f.GET_ERROR(), 0);

    ts::WriteFile(file, "key=value\r\nab\rx\r\nlast");
    f.SET_BUFFER_SIZE(8);
    ASSERT_TRUE(f.OPEN_READ(path.c_str()));
    // A partial stop text ("\r" then "x") is data; the limit stops with the rest unread; a
    // stop text that begins before the limit is still recognised.
    const std::tuple<const char*, std::size_t, bool, std::string> steps[] = {
        {"=", 100, true, "key"}, {"\r\n", 100, true, "value"}, {"\r\n", 3, false, "ab\r"},
        {"\r\n", 1, false, "x"}, {"\r\n", 1, true, ""}};
    std::string s;
    for (const auto& [stop, limit, found, text] : steps)
    {
        EXPECT_EQ(f.READ_STRING_UNTIL(s, stop, limit), found) << text;
        EXPECT_EQ(s, text);
    }
    EXPECT_EQ(f.TELL(), 17);
    char buf[4];
    EXPECT_FALSE(f.READ_STRING_UNTIL(buf, "\r\n", sizeof(buf)));
    EXPECT_STREQ(buf, "las");
    EXPECT_FALSE(f.READ_STRING_UNTIL(buf, "\r\n", sizeof(buf)));
    EXPECT_STREQ(buf, "t");
    EXPECT_TRUE(f.IS_EOF());
    // A partial stop text at the end of the file is data.
    ts::WriteFile(file, "12\r");
    ASSERT_TRUE(f.OPEN_READ(path.c_str()));
    EXPECT_FALSE(f.READ_STRING_UNTIL(s, "\r\n", 100));
    EXPECT_EQ(s, "12\r");
}

TEST_F(MFileTest, OsFailuresAreReported)
{
    MFile f;
    ASSERT_TRUE(f.OPEN_WRITE(L"/dev/full"));
    ASSERT_TRUE(f.WRITE_STRING("buffered"));
    EXPECT_TRUE(!f.FLUSH() && f.GET_ERROR() == ENOSPC) << f.GET_ERROR();
    EXPECT_TRUE(!f.CLOSE() && f.GET_ERROR() == ENOSPC) << f.GET_ERROR(); // kept after close
    ASSERT_TRUE(f.OPEN_WRITE(L"/dev/full"));
    EXPECT_EQ(f.GET_ERROR(), 0); // reset by the next open
    ASSERT_TRUE(f.WRITE_STRING("x"));
    EXPECT_TRUE(!f.CLOSE() && f.GET_ERROR() != 0); // never flushed before

    const std::wstring missing = dir.WFile("no/such/dir/file.cli");
    EXPECT_FALSE(f.OPEN_WRITE(missing.c_str()) || f.OPEN_READ(missing.c_str()));
    EXPECT_FALSE(f.OPEN_READ(ts::Wide(dir.Path().string()).c_str()) || f.OPEN_READ(nullptr)); // a directory is no file
    // A closed file refuses everything without crashing; it counts as ended.
    char c;
    EXPECT_EQ(f.READ(&c, 1) + f.WRITE(&c, 1), 0u);
    EXPECT_TRUE(f.GETC() == -1 && f.IS_EOF());
    EXPECT_FALSE(f.SEEK(0, 0) || f.SEARCH_STRING("x", -1, true) || f.WRITE_STRING("") || f.FLUSH() || f.CLOSE());
}

} // namespace
