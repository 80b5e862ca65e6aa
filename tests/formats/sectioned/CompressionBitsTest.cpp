// One whole small compressed file, bit for bit. The plain input is the smallest that walks the
// container head, a header with a string and a field, a layer with a polygon block (first,
// second and later points) and a hatch block (first vector and one more), a seek table and
// the checksum, then the end of the stream and the coder's finish.
//
// The expected bytes were worked out apart from the library: the symbols below were listed
// by hand from the plain bytes, and coded with a plain reference coder (ReferenceCoder below:
// counts in a flat array summed on each use, bits as characters) whose first symbols are
// worked through in the comments; the same bytes came out of a separate script written from
// the same rules. The compressor must give exactly these bytes.
#include "SlmTestSupport.h"

#include <map>
#include <random>

#include "formats/sectioned/ArithmeticCoder.h"
#include "formats/sectioned/M2DSliceIOCompressor.h"

using namespace Sectioned;
using kit::Bytes;

namespace {

// The plain file, 129 bytes.
std::string SmallPlainFile()
{
    Bytes b;
    // Header, size 20 as a fixed LF number: file id "SLM-Layerfile", version 1.10.
    b.text(std::string("\x01\xE0\0\0\0\0\0\0\x14", 9));
    b.text("\x02\x0E").text("SLM-Layerfile").u8(0);
    b.text("\x03\x02\x01\x0A");
    // Layer at offset 29, 74 bytes: a polygon block (model 1, style 0) of three points and a
    // hatch block (model 1, style 1) of two vectors, in mm.
    b.text("\x0A\x20\x4A");
    b.text("\x0B\x1E").text(std::string("\x12\x02\x01\x00", 4)).text("\x13\x18");
    for (float v : {1.0f, 2.0f, 1.5f, 2.0f, 1.5f, 2.5f})
        b.f32(v);
    b.text("\x0C\x20\x27").text("\x12\x02\x01\x01").text("\x14\x20\x20");
    for (float v : {-0.5f, 1.0f, 2.0f, 1.0f, 2.0f, 1.25f, -0.5f, 1.25f})
        b.f32(v);
    // Seek table, size 8 as a fixed LF number: one entry, layer at 29 (0x1D), z 20.
    b.text(std::string("\x08\xE0\0\0\0\0\0\0\x08", 9)).text("\x09\x06\x17\x01\x1D\x18\x01\x14");
    // Checksum of all bytes before its own four, its head included.
    b.text("\x15\x04").text("\xCB\x9B\x91\x83");
    return b.s;
}

// The coded stream between the 117-byte container head and the four placeholder bytes.
const unsigned char kSmallCoded[] = {
    0x04, 0x49, 0x02, 0x99, 0xC4, 0x51, 0x06, 0x80, 0xC2, 0x58, 0xF7, 0x82, 0xC4, 0x3B, 0xB9, 0xF8, 0xA0, 0xB8,
    0x35, 0x55, 0x90, 0x65, 0x3C, 0x78, 0xF5, 0xDD, 0x1E, 0x8E, 0xEE, 0x11, 0xAF, 0x08, 0xCA, 0xC1, 0xD5, 0xBA,
    0xBA, 0x26, 0x1F, 0xAC, 0x33, 0x2A, 0xB1, 0x69, 0x03, 0x62, 0x17, 0x02, 0xC1, 0x37, 0x7A, 0x29, 0x8A, 0xA0,
    0x8C, 0xAC, 0x4E, 0xC4, 0x31, 0xFF, 0x5C, 0x47, 0x0D, 0x56, 0x3C, 0xC3, 0x61, 0x88, 0x44, 0x6D, 0x02, 0xD2,
    0xAF, 0xA0, 0x78, 0x38, 0x58, 0x9A, 0xC5, 0x7E, 0xF5, 0xC5, 0x80, 0xD5, 0xA6, 0x0A, 0x26,
};

// A coder written for clarity, not speed: each model is a named array of counts for 0 to A
// with a total of A, the range of a symbol is found by summing the counts below it, and the
// bits are collected as characters.
class ReferenceCoder
{
public:
    void Code(const std::string& model, unsigned alphabet, unsigned symbol)
    {
        Counts& m = _models[model];
        if (m.Count.empty())
        {
            m.Count.assign(alphabet + 1, 1);
            m.Total = alphabet;
        }
        ASSERT_EQ(m.Count.size(), alphabet + 1u) << model;
        ASSERT_LT(symbol, alphabet) << model;
        std::uint64_t a = 0;
        for (unsigned s = 0; s < symbol; ++s)
            a += m.Count[s];
        const std::uint64_t b = a + m.Count[symbol];
        const std::uint64_t step = (_high - _low + 1) / m.Total;
        _high = _low + step * b - 1;
        _low = _low + step * a;
        for (;;)
        {
            if (_high < 0x40000000)
                _Bit('0', 0);
            else if (_low >= 0x40000000)
                _Bit('1', 0x40000000);
            else if (_low >= 0x20000000 && _high < 0x60000000)
            {
                ++_pending;
                _low = 2 * (_low - 0x20000000);
                _high = 2 * (_high - 0x20000000) + 1;
            }
            else
                break;
        }
        ++m.Count[symbol];
        ++m.Total;
    }
    std::string Finish()
    {
        if (_low < 0x20000000)
            _bits += "0" + std::string(_pending + 1, '1');
        else
            _bits += "1";
        std::string bytes;
        for (std::size_t i = 0; i < _bits.size(); i += 8)
        {
            unsigned v = 0;
            for (std::size_t k = i; k < i + 8; ++k)
                v = 2 * v + (k < _bits.size() && _bits[k] == '1');
            bytes += static_cast<char>(v);
        }
        return bytes;
    }
    std::size_t Symbols() const
    {
        std::size_t n = 0;
        for (const auto& [name, m] : _models)
            n += m.Total - (m.Count.size() - 1);
        return n;
    }

    // The stream's units, as the compressor's walk produces them.
    void Op(unsigned op) { Code("op", 10, op); }
    void Head(std::uint64_t id, std::uint64_t size, bool fixed)
    {
        std::vector<unsigned> idBytes, sizeBytes;
        for (; id; id >>= 8)
            idBytes.push_back(id & 0xFF);
        for (std::uint64_t v = 2 * size + fixed; v; v >>= 8)
            sizeBytes.push_back(v & 0xFF);
        Code("id length", 6, static_cast<unsigned>(idBytes.size()));
        for (std::size_t i = 0; i < idBytes.size(); ++i)
            Code("id byte " + std::to_string(i), 257, idBytes[i]);
        Code("size length", 10, static_cast<unsigned>(sizeBytes.size()));
        for (std::size_t i = 0; i < sizeBytes.size(); ++i)
            Code("size byte " + std::to_string(i), 257, sizeBytes[i]);
    }
    void Text(const std::string& model, const std::string& bytes)
    {
        for (char c : bytes)
            Code(model, 257, static_cast<unsigned char>(c));
    }
    void Integer(const std::string& set, std::int64_t n)
    {
        const std::uint64_t magnitude = static_cast<std::uint64_t>(n < 0 ? -n : n);
        unsigned length = 0;
        while (length < 8 && (magnitude >> (8 * length)) != 0)
            ++length;
        Code(set + " length", 21, 2 * length + (n < 0));
        for (unsigned i = 0; i < length; ++i)
            Code(set + " byte " + std::to_string(i), 257, (magnitude >> (8 * i)) & 0xFF);
    }

private:
    struct Counts
    {
        std::vector<std::uint32_t> Count;
        std::uint32_t Total = 0;
    };
    void _Bit(char bit, std::uint64_t minus)
    {
        _bits += bit;
        _bits += std::string(_pending, bit == '0' ? '1' : '0');
        _pending = 0;
        _low = 2 * (_low - minus);
        _high = 2 * (_high - minus) + 1;
    }
    std::map<std::string, Counts> _models;
    std::uint64_t _low = 0, _high = 0x7FFFFFFF;
    std::size_t _pending = 0;
    std::string _bits;
};

// The symbols of the small file, listed from its bytes.
//
// The first five symbols worked through (low, high in hex; p is a pending bit):
//   op 0 of 10: step 2^31 / 10 = 214748364, [0, 1): high = 214748363 = 0CCCCCCB; high is
//     below the half three times: "000", low 0, high 6666665F.
//   id length 1 of 6: step (6666665F + 1) / 6 = 286331152, [1, 2): low 11111110, high
//     2222221F; "0", then low is at least a quarter and high below three quarters: p;
//     low 04444440, high 4888887F.
//   id byte 1 of 257: step 4456515, [1, 2): low 04884483, high 04CC44C5; "0" and the
//     pending "1", then "0001001": low 08448300, high 4C44C5FF.
//   size length 1 of 10 (v = 2 x 20 + 1 = 41, one byte): step 114086784, low 0F115680,
//     high 15DE29FF; "00", p; low 388AB400, high 6EF14FFF.
//   size byte 41 of 257: step 3551339, [41, 42): low 41387523, high 416EA58D; "1" and the
//     pending "0", then "0000010": low 38752300, high 6EA58DFF.
// So the stream opens 000 0 1 0001001 00 1 0 0000010 ... = 0000 0100 0100 1001 0000 0010 ...,
// the bytes 04 49 02 of kSmallCoded.
void ListSmallFile(ReferenceCoder& c)
{
    c.Op(0), c.Head(1, 20, true);                                  // header, fixed size
    c.Op(3), c.Head(2, 14, false), c.Text("string", std::string("SLM-Layerfile\0", 14));
    c.Op(2), c.Head(3, 2, false), c.Text("field", "\x01\x0A");
    c.Op(1);
    c.Op(0), c.Head(10, 74, false);                                // layer
    c.Op(0), c.Head(11, 30, false);                                // polygon block
    c.Op(2), c.Head(18, 2, false), c.Text("field", std::string("\x01\x00", 2));
    c.Op(5), c.Head(19, 24, false);
    // Quantised by 0.005 mm: (200, 400), (300, 400), (300, 500).
    c.Integer("polygon first", 200), c.Integer("polygon first", 400);
    c.Integer("polygon second", 100), c.Integer("polygon second", 0);
    c.Integer("polygon rest", (0 - 100)), c.Integer("polygon rest", (100 - 0));
    c.Op(1);
    c.Op(0), c.Head(12, 39, false);                                // hatch block
    c.Op(2), c.Head(18, 2, false), c.Text("field", "\x01\x01");
    c.Op(7), c.Head(20, 32, false);
    // a0 (-100, 200), b0 (400, 200), a1 (400, 250), b1 (-100, 250): a0, then b0 - a0, then
    // for k = 1 J = a1 - b0 = (0, 50) less Q = 0 and W = b1 - a0 = (0, 50) less P = 0.
    c.Integer("hatch first", -100), c.Integer("hatch first", 200);
    c.Integer("hatch second", 500), c.Integer("hatch second", 0);
    c.Integer("hatch rest", 0), c.Integer("hatch rest", 50), c.Integer("hatch rest", 0), c.Integer("hatch rest", 50);
    c.Op(1);
    c.Op(1);
    c.Op(0), c.Head(8, 8, true);                                   // seek table, fixed size
    c.Op(0), c.Head(9, 6, false);
    c.Op(2), c.Head(23, 1, false), c.Text("field", "\x1D");
    c.Op(2), c.Head(24, 1, false), c.Text("field", "\x14");
    c.Op(1);
    c.Op(1);
    c.Op(2), c.Head(21, 4, false), c.Text("field", "\xCB\x9B\x91\x83"); // checksum; the walk ends
    c.Op(8);
}

std::string Coded(const ts::ScratchDir& dir, const std::string& plain)
{
    ts::WriteFile(dir.File("plain.slm"), plain);
    MFile in, out;
    in.OPEN_READ(dir.WFile("plain.slm").c_str());
    out.OPEN_WRITE(dir.WFile("coded.slm").c_str());
    M2DSliceIOCompressor compressor(in, out);
    EXPECT_TRUE(compressor.Compress()) << compressor.GetFailureReason();
    out.CLOSE();
    return ts::ReadFile(dir.File("coded.slm"));
}

} // namespace

TEST(CompressionBitsTest, SmallFileCodedBitForBit)
{
    const std::string plain = SmallPlainFile();
    ASSERT_EQ(plain.size(), 129u);
    ASSERT_EQ(slmtest::Crc(plain, 125), 0x83919BCBu);
    const std::string expected(reinterpret_cast<const char*>(kSmallCoded), sizeof kSmallCoded);

    // The reference coder on the hand-listed symbols: 134 symbols, 695 bits, 87 bytes.
    ReferenceCoder reference;
    ListSmallFile(reference);
    EXPECT_EQ(reference.Symbols(), 134u);
    EXPECT_TRUE(kit::SameBytes(expected, reference.Finish()));

    // The compressor: container head, the coded stream, the checksum's placeholder.
    ts::ScratchDir dir;
    const std::string coded = Coded(dir, plain);
    ASSERT_EQ(coded.size(), kCompressedHeadSize + sizeof kSmallCoded + 4);
    EXPECT_TRUE(kit::SameBytes(expected, coded.substr(kCompressedHeadSize, sizeof kSmallCoded)));
    EXPECT_EQ(coded.substr(coded.size() - 4), "\xFF\xFF\xFF\xFF");

    // And back: every coordinate lies on the grid, so the plain file returns byte for byte.
    MFile in, out;
    in.OPEN_READ(dir.WFile("coded.slm").c_str());
    out.OPEN_WRITE(dir.WFile("back.slm").c_str());
    M2DSliceIODecompressor decompressor(in, out);
    decompressor.SetRepair(true);
    ASSERT_TRUE(decompressor.Decompress()) << decompressor.GetFailureReason();
    out.CLOSE();
    EXPECT_TRUE(kit::SameBytes(plain, ts::ReadFile(dir.File("back.slm"))));
}

TEST(CompressionBitsTest, CoderGivesTheReferenceBitsOnRandomStreams)
{
    // The library's coder shifts runs of decided and pending bits out at once; the reference
    // takes them one at a time. Skewed and uniform symbols, long pending runs (symbol 1 of 3
    // straddles the middle) and models that grow large.
    ts::ScratchDir dir;
    std::mt19937 random(2024);
    for (int round = 0; round < 60; ++round)
    {
        const unsigned alphabets[] = {3, 257, 21, 10};
        ReferenceCoder reference;
        MFile file;
        file.OPEN_WRITE(dir.WFile("r").c_str());
        M2DBitOutStream bits(file);
        M2DArithmeticEncoder coder(bits);
        std::vector<ModelOrder2> models(std::begin(alphabets), std::end(alphabets));
        const int n = round < 50 ? static_cast<int>(random() % 2000) : 100000;
        for (int i = 0; i < n; ++i)
        {
            const unsigned m = random() % 4;
            const unsigned a = alphabets[m];
            const unsigned s = m == 0 ? (random() % 8 ? 1 : random() % 3) : random() % 3 ? random() % 4 : random() % a;
            reference.Code("model " + std::to_string(m), a, s);
            ASSERT_TRUE(models[m].Encode(coder, s));
        }
        coder.Finish();
        ASSERT_TRUE(bits.Flush());
        file.CLOSE();
        ASSERT_TRUE(kit::SameBytes(reference.Finish(), ts::ReadFile(dir.File("r")))) << "round " << round;
    }
}

TEST(CompressionBitsTest, DamagedSmallFilesEndWithoutHarm)
{
    // Every truncation of the small compressed file, decoded literally and in repair mode, and
    // every byte of it changed: a clean true or false, never more output than allowed.
    ts::ScratchDir dir;
    const std::string coded = Coded(dir, SmallPlainFile());
    auto decode = [&](const std::string& bytes, bool repair) {
        ts::WriteFile(dir.File("damaged.slm"), bytes);
        MFile in, out;
        in.OPEN_READ(dir.WFile("damaged.slm").c_str());
        out.OPEN_WRITE(dir.WFile("out.slm").c_str());
        M2DSliceIODecompressor decompressor(in, out);
        decompressor.SetRepair(repair);
        decompressor.SetMaxOutput(4096);
        const bool ok = decompressor.Decompress();
        out.CLOSE();
        EXPECT_TRUE(ok || !decompressor.GetFailureReason().empty());
        EXPECT_LE(ts::ReadFile(dir.File("out.slm")).size(), 4096u);
        return ok;
    };
    int refused = 0;
    for (bool repair : {false, true})
        for (std::size_t n = 0; n < coded.size(); ++n)
            refused += !decode(coded.substr(0, n), repair);
    for (std::size_t i = 0; i < coded.size(); ++i)
        for (unsigned char mask : {0x01, 0xFF})
        {
            if (mask == 0x01 && i < kCompressedHeadSize)
                continue; // the head's bytes once is enough
            std::string bytes = coded;
            bytes[i] = static_cast<char>(bytes[i] ^ mask);
            refused += !decode(bytes, true);
        }
    EXPECT_GT(refused, 0);
}
