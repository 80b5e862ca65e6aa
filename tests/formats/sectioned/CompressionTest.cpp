// The compressed build file: the arithmetic coder bit by bit for a few symbols worked out by
// hand, encoder and decoder inverse on random model streams, the container head, the
// quantiser, whole files back byte for byte in repair mode, and the streams a decompressor
// refuses.
#include "SlmTestSupport.h"

#include <random>

#include "formats/sectioned/ArithmeticCoder.h"
#include "formats/sectioned/M2DSliceIOCompressor.h"
#include "tests/kit/BuildGenerator.h"

using namespace slmtest;
using namespace Sectioned;
using kit::Bytes;

namespace {

// Codes symbols of fresh models (one per entry, by alphabet) into a file; the bytes.
std::string EncodeSymbols(const ts::ScratchDir& dir, unsigned alphabet, const std::vector<unsigned>& symbols)
{
    MFile file;
    file.OPEN_WRITE(dir.WFile("bits").c_str());
    M2DBitOutStream bits(file);
    M2DArithmeticEncoder coder(bits);
    ModelOrder2 model(alphabet);
    for (unsigned s : symbols)
        EXPECT_TRUE(model.Encode(coder, s));
    coder.Finish();
    EXPECT_TRUE(bits.Flush());
    file.CLOSE();
    return ts::ReadFile(dir.File("bits"));
}

std::vector<unsigned> DecodeSymbols(const ts::ScratchDir& dir, const std::string& bytes, unsigned alphabet,
                                    std::size_t n)
{
    ts::WriteFile(dir.File("in"), bytes);
    MFile file;
    file.OPEN_READ(dir.WFile("in").c_str());
    M2DBitInStream bits(file, static_cast<std::int64_t>(bytes.size()));
    M2DArithmeticDecoder coder(bits);
    ModelOrder2 model(alphabet);
    std::vector<unsigned> out(n);
    for (unsigned& s : out)
        EXPECT_TRUE(model.Decode(coder, s));
    return out;
}

// Writes a compressed stream by hand: the container head, then ops and heads as the
// compressor codes them.
struct StreamWriter
{
    explicit StreamWriter(const std::string& path) : file(), bits(nullptr)
    {
        file.OPEN_WRITE(ts::Wide(path).c_str());
        const std::string head = Head();
        file.WriteBytes(head.data(), head.size());
        bits = std::make_unique<M2DBitOutStream>(file);
        coder = std::make_unique<M2DArithmeticEncoder>(*bits);
    }
    static std::string Head()
    {
        Bytes b;
        b.text("\x01\x20\x72\x02\x1B").text(kCompressedFileId).u8(0);
        b.text("\x03\x04").i32(1).text("\x04\x04").i32(0);
        b.text("\x05\x20\x32").text("File Created by Zandervolle Metal Stack Processor").u8(0);
        b.text("\x06\x08").f64(0.005).text("\x07\x08").f64(0.005);
        return b.s;
    }
    void Op(unsigned op) { EXPECT_TRUE(models.Op.Encode(*coder, op)); }
    void HeadOf(std::uint64_t id, std::uint64_t size, bool fixed)
    {
        unsigned n = 0;
        for (std::uint64_t v = id; v; v >>= 8)
            ++n;
        EXPECT_TRUE(models.IdLength.Encode(*coder, n));
        for (unsigned i = 0; i < n; ++i)
            EXPECT_TRUE(models.IdBytes[i].Encode(*coder, (id >> (8 * i)) & 0xFF));
        const std::uint64_t v = 2 * size + (fixed ? 1 : 0);
        n = 0;
        for (std::uint64_t w = v; w; w >>= 8)
            ++n;
        EXPECT_TRUE(models.SizeLength.Encode(*coder, n));
        for (unsigned i = 0; i < n; ++i)
            EXPECT_TRUE(models.SizeBytes[i].Encode(*coder, (v >> (8 * i)) & 0xFF));
    }
    void Finish()
    {
        coder->Finish();
        bits->Flush();
        file.WriteBytes("\0\0\0\0", 4);
        file.CLOSE();
    }
    MFile file;
    CompressionModels models;
    std::unique_ptr<M2DBitOutStream> bits;
    std::unique_ptr<M2DArithmeticEncoder> coder;
};

std::string Decompressed(const std::string& path, const std::string& out, bool repair, std::string* reason = nullptr)
{
    MFile in, plain;
    in.OPEN_READ(ts::Wide(path).c_str());
    plain.OPEN_WRITE(ts::Wide(out).c_str());
    M2DSliceIODecompressor decompressor(in, plain);
    decompressor.SetRepair(repair);
    const bool ok = decompressor.Decompress();
    plain.CLOSE();
    if (reason)
        *reason = decompressor.GetFailureReason();
    return ok ? ts::ReadFile(out) : std::string("<failed: ") + decompressor.GetFailureReason() + ">";
}

std::string Compressed(const std::string& plainPath, const std::string& out)
{
    MFile in, coded;
    in.OPEN_READ(ts::Wide(plainPath).c_str());
    coded.OPEN_WRITE(ts::Wide(out).c_str());
    M2DSliceIOCompressor compressor(in, coded);
    const bool ok = compressor.Compress();
    coded.CLOSE();
    EXPECT_TRUE(ok) << compressor.GetFailureReason();
    return ts::ReadFile(out);
}

} // namespace

TEST(ArithmeticCoderTest, FewSymbolsBitByBit)
{
    ts::ScratchDir dir;
    // Alphabet 2, symbols 0 then 1: "0" on the first (high falls below the half), "1" on the
    // second (low rises above it); then low is at least a quarter, so a single 1 ends it.
    EXPECT_EQ(EncodeSymbols(dir, 2, {0, 1}), "\x60");
    // Alphabet 2, symbol 0 alone: "0", then low is below a quarter: 0 and one 1.
    EXPECT_EQ(EncodeSymbols(dir, 2, {0}), "\x20");
    // Alphabet 3, symbol 1 straddles the middle: one pending bit; the end gives 0 and two 1s.
    EXPECT_EQ(EncodeSymbols(dir, 3, {1}), "\x60");
    EXPECT_EQ(EncodeSymbols(dir, 3, {1, 1}), "\x70"); // two pending: 0 and three 1s
    // Then symbol 2: low passes the half, "1" and the two pending 0s; one more pending bit,
    // which the lone final 1 drops.
    EXPECT_EQ(EncodeSymbols(dir, 3, {1, 1, 2}), std::string("\x90", 1));
    EXPECT_EQ(DecodeSymbols(dir, std::string("\x90", 1), 3, 3), (std::vector<unsigned>{1, 1, 2}));
    EXPECT_EQ(DecodeSymbols(dir, "\x60", 2, 2), (std::vector<unsigned>{0, 1}));
    // Counts cover 0 to A, but the total starts at A: the last value takes no code space.
    ModelOrder2 model(257);
    EXPECT_EQ(model.Total(), 257u);
    EXPECT_EQ(model.Cumulative(256), 256u);
    model.Update(5);
    EXPECT_EQ(model.Total(), 258u);
    EXPECT_EQ(model.Cumulative(6), 7u);
    EXPECT_EQ(model.Find(5), 5u);
    EXPECT_EQ(model.Find(6), 5u);
    EXPECT_EQ(model.Find(7), 6u);
}

TEST(ArithmeticCoderTest, EncoderAndDecoderAreInverseOnRandomStreams)
{
    ts::ScratchDir dir;
    std::mt19937 random(12345);
    for (int round = 0; round < 200; ++round)
    {
        // Several models of different alphabets, used in a random order with skewed symbols.
        const int models = 1 + static_cast<int>(random() % 4);
        std::vector<unsigned> alphabets;
        for (int m = 0; m < models; ++m)
            alphabets.push_back(2 + random() % 300);
        std::vector<std::pair<int, unsigned>> stream;
        const std::size_t n = random() % 3000;
        for (std::size_t i = 0; i < n; ++i)
        {
            const int m = static_cast<int>(random() % models);
            const unsigned a = alphabets[static_cast<std::size_t>(m)];
            const unsigned s = random() % 4 == 0 ? random() % a : (random() % 3) % a;
            stream.emplace_back(m, s);
        }
        {
            MFile file;
            file.OPEN_WRITE(dir.WFile("r").c_str());
            M2DBitOutStream bits(file);
            M2DArithmeticEncoder coder(bits);
            std::vector<ModelOrder2> m;
            for (unsigned a : alphabets)
                m.emplace_back(a);
            for (const auto& [k, s] : stream)
                ASSERT_TRUE(m[static_cast<std::size_t>(k)].Encode(coder, s));
            coder.Finish();
            bits.Flush();
            file.CLOSE();
        }
        MFile file;
        file.OPEN_READ(dir.WFile("r").c_str());
        M2DBitInStream bits(file, file.GET_SIZE());
        M2DArithmeticDecoder coder(bits);
        std::vector<ModelOrder2> m;
        for (unsigned a : alphabets)
            m.emplace_back(a);
        for (std::size_t i = 0; i < stream.size(); ++i)
        {
            unsigned s = 0;
            ASSERT_TRUE(m[static_cast<std::size_t>(stream[i].first)].Decode(coder, s)) << round << ":" << i;
            ASSERT_EQ(s, stream[i].second) << round << ":" << i;
        }
    }
}

TEST(ArithmeticCoderTest, ModelsKeepExactCumulativeCounts)
{
    // Against plain sums after every update, for each alphabet size the format uses.
    std::mt19937 random(7);
    for (unsigned alphabet : {6u, 10u, 21u, 257u, 2u, 31u, 33u})
    {
        ModelOrder2 model(alphabet);
        std::vector<std::uint32_t> counts(alphabet + 1, 1);
        for (int step = 0; step < 3000; ++step)
        {
            const unsigned s = random() % 3 == 0 ? random() % alphabet : (random() % 4) % alphabet;
            model.Update(s);
            ++counts[s];
            std::uint32_t below = 0;
            for (unsigned k = 0; k <= alphabet; ++k)
            {
                ASSERT_EQ(model.Cumulative(k), below) << alphabet << " " << k;
                ASSERT_EQ(model.Count(k), counts[k]);
                below += counts[k];
            }
            ASSERT_EQ(model.Total(), below - counts[alphabet]); // the last symbol takes no space
            const std::uint32_t value = random() % model.Total();
            const unsigned found = model.Find(value);
            ASSERT_LT(found, alphabet);
            EXPECT_LE(model.Cumulative(found), value);
            EXPECT_GT(model.Cumulative(found) + model.Count(found), value);
        }
    }
}

TEST(ArithmeticCoderTest, LongStreamsAndTheTargetPathDecodeAlike)
{
    // A few models taken through a million symbols, so that totals grow large and pending
    // runs get long (symbol 1 of 3 straddles the middle); decoded once through the models and
    // once through Target and Apply with plain sums.
    ts::ScratchDir dir;
    std::mt19937 random(99);
    std::vector<std::pair<int, unsigned>> stream;
    const unsigned alphabets[] = {3, 257, 21};
    for (int i = 0; i < 1000000; ++i)
    {
        const int m = i % 1000 < 900 ? 0 : static_cast<int>(1 + random() % 2);
        const unsigned a = alphabets[m];
        stream.emplace_back(m, m == 0 ? (random() % 16 == 0 ? random() % 3 : 1) : random() % a);
    }
    {
        MFile file;
        file.OPEN_WRITE(dir.WFile("long").c_str());
        M2DBitOutStream bits(file);
        M2DArithmeticEncoder coder(bits);
        std::vector<ModelOrder2> m(std::begin(alphabets), std::end(alphabets));
        for (const auto& [k, s] : stream)
            ASSERT_TRUE(m[static_cast<std::size_t>(k)].Encode(coder, s));
        coder.Finish();
        ASSERT_TRUE(bits.Flush());
        EXPECT_EQ(bits.BitsWritten() % 8, 0u);
        file.CLOSE();
    }
    for (bool throughTarget : {false, true})
    {
        MFile file;
        file.OPEN_READ(dir.WFile("long").c_str());
        M2DBitInStream bits(file, file.GET_SIZE());
        M2DArithmeticDecoder coder(bits);
        std::vector<ModelOrder2> m(std::begin(alphabets), std::end(alphabets));
        std::vector<std::vector<std::uint32_t>> counts;
        for (unsigned a : alphabets)
            counts.emplace_back(a + 1, 1);
        for (std::size_t i = 0; i < stream.size(); ++i)
        {
            const auto k = static_cast<std::size_t>(stream[i].first);
            unsigned s = 0;
            if (!throughTarget)
                ASSERT_TRUE(m[k].Decode(coder, s)) << i;
            else
            {
                std::uint32_t total = 0, value = 0;
                for (std::size_t j = 0; j + 1 < counts[k].size(); ++j)
                    total += counts[k][j];
                ASSERT_TRUE(coder.Target(total, value)) << i;
                std::uint32_t below = 0;
                while (below + counts[k][s] <= value)
                    below += counts[k][s++];
                coder.Apply(below, below + counts[k][s]);
                ++counts[k][s];
            }
            ASSERT_EQ(s, stream[i].second) << i;
        }
    }
}

TEST(CompressionTest, QuantisingTruncatesNegativeValues)
{
    std::int64_t q = 0;
    EXPECT_TRUE(Quantise(-0.0074, 0.005, q) && q == -1);
    EXPECT_TRUE(Quantise(0.0074, 0.005, q) && q == 1);
    EXPECT_TRUE(Quantise(0.0076, 0.005, q) && q == 2);
    EXPECT_TRUE(Quantise(-0.0076, 0.005, q) && q == -1); // above one half, but negative
    EXPECT_FALSE(Quantise(1e30, 0.005, q));
}

namespace {

// A plain SLM file of a build on the compressor's 0.005 mm grid with positive coordinates, so
// that it comes back exactly: hatches, chains, a flagged polygon with its extra style, a
// second pass, generating parameters and names.
std::string GridBuild(const ts::ScratchDir& dir, const std::string& name, unsigned seed)
{
    std::mt19937 random(seed);
    auto grid = [&](int most) { return 50 * static_cast<int>(random() % static_cast<unsigned>(most)); };
    std::vector<M2DSlice> slices, second;
    const int layers = 1 + static_cast<int>(random() % 6);
    for (int i = 0; i < layers; ++i)
    {
        M2DSlice s = SliceAt(100 * (i + 1)), t = SliceAt(100 * (i + 1));
        std::vector<M2DSliceVector> hatch, chain;
        const int n = 1 + static_cast<int>(random() % 40);
        for (int k = 0; k < n; ++k)
            hatch.emplace_back(grid(4000), grid(4000), grid(4000), grid(4000));
        int x = grid(1000), y = grid(1000);
        for (int k = 0; k < 1 + static_cast<int>(random() % 10); ++k)
        {
            const int nx = grid(2000), ny = grid(2000);
            chain.emplace_back(x, y, nx, ny);
            x = nx;
            y = ny;
        }
        AddBlock(s, e2DSliceVectorType_Hatch, 3, 1, hatch);
        AddBlock(s, e2DSliceVectorType_Border, 4, 1, chain)->GetTypeInfoUpdate().SetFlag(4, random() % 2 == 0);
        if (random() % 2)
            AddBlock(t, e2DSliceVectorType_Hatch, 3, 2, {M2DSliceVector(grid(100), 50, 100, grid(100))})
                ->GetTypeInfoUpdate()
                .SetFlag(8, true);
        slices.push_back(s);
        second.push_back(t);
    }
    auto a = StackOf(slices, 100), b = StackOf(second, 100);
    Style hatch, contour;
    contour.Id = 4;
    contour.Name = L"Kontur \u00e4";
    contour.SpeedFactor = 0.5;
    DescribePart(*a->GetProperties(), 1, L"Teil", {hatch, contour});
    DescribePart(*b->GetProperties(), 2, L"Zweiter", {hatch});
    ts::WriteFile(dir.File("config.xml"), "<Config><VectorType Id=\"3\"><Parameter Key=\"H.P\" Unit=\"W\"/>"
                                          "</VectorType></Config>");
    const std::string database = "<SLMMaterialDatabase><Categories><Category Name=\"M\"><Shortcuts>"
                                 "<BuildStrategy Name=\"S\"><H><P>250</P></H></BuildStrategy>"
                                 "</Shortcuts></Category></Categories></SLMMaterialDatabase>";
    std::string file = WriteSlm({a.get(), b.get()}, dir.File(name), [&](M2DSliceIO_slm& io) {
        io.SetProductInformation(L"Produkt", L"2.0");
        io.SetFileGuid(L"guid-" + std::to_wstring(seed));
        io.SetUsedMaterialName(L"M");
        io.SetUsedBuildStrategyName(L"S");
        io.SetParameterXml(database);
        io.SetConfigXml(dir.File("config.xml"));
    });
    // One creation time for every run, and its checksum, so that the coded bits are the same
    // each time.
    const std::size_t time = file.find(std::string("\x20\x2F\x14", 3));
    if (time != std::string::npos)
        file.replace(time + 3, 19, "2000-01-01 00:00:00");
    Bytes crc;
    crc.u32(Crc(file, file.size() - 4));
    file.replace(file.size() - 4, 4, crc.s);
    ts::WriteFile(dir.File(name), file);
    return file;
}

} // namespace

TEST(CompressionTest, ContainerHeadAndChecksumAndManyBuildsBackByteForByteInRepairMode)
{
    ts::ScratchDir dir;
    for (unsigned seed = 1; seed <= 40; ++seed)
    {
        const std::string plain = GridBuild(dir, "plain.slm", seed);
        ASSERT_FALSE(plain.empty());
        const std::string coded = Compressed(dir.File("plain.slm"), dir.File("coded.slm"));
        ASSERT_GT(coded.size(), kCompressedHeadSize + 4);
        if (seed == 1)
        {
            EXPECT_TRUE(kit::SameBytes(StreamWriter::Head(), coded.substr(0, kCompressedHeadSize)));
            EXPECT_EQ(coded.substr(coded.size() - 4), "\xFF\xFF\xFF\xFF"); // the placeholder
        }
        EXPECT_TRUE(kit::SameBytes(plain, Decompressed(dir.File("coded.slm"), dir.File("back.slm"), true)))
            << "seed " << seed;
    }
}

TEST(CompressionTest, CompressedFilesWrittenAndReadThroughTheFormat)
{
    ts::ScratchDir dir;
    const std::string plain = GridBuild(dir, "plain.slm", 7);
    auto original = ReadSlm(dir.File("plain.slm"));
    ASSERT_TRUE(original);

    // Code 48 writes through the compressor; the checksum covers the container head too.
    auto stack = std::make_unique<M2DSliceStack>();
    {
        auto slm = std::make_shared<M2DSliceIO_slm>(true);
        PersistentProperties defaults;
        DescribePart(defaults, 1, L"", {Style()});
        slm->SetSourceDefaults(defaults);
        std::shared_ptr<I2DSliceIO> writer = slm;
        writer->SetFileType(48);
        M2DSliceContainerIO out(writer);
        ASSERT_TRUE(out.WriteContainer(*original, dir.WFile("c.slm"), 10000, 1, nullptr)) << writer->GetFailureReason();
    }
    const std::string coded = ts::ReadFile(dir.File("c.slm"));
    Bytes crc;
    crc.u32(Crc(coded, coded.size() - 4));
    EXPECT_EQ(coded.substr(coded.size() - 4), crc.s);
    EXPECT_EQ(coded.substr(3, 29), std::string("\x02\x1B[Compressed SLM Buildfile]\0", 29));

    // The inner file calls itself MTT; in repair mode every layer reads back as written.
    std::string inner;
    ts::WriteFile(dir.File("c2.slm"), coded);
    inner = Decompressed(dir.File("c2.slm"), dir.File("inner.slm"), true);
    EXPECT_EQ(inner.substr(9, 16), std::string("\x02\x0EMTT-Layerfile\0", 16));
    const bool before = M2DSliceIO_slm::GetDecompressRepairByDefault();
    for (bool repair : {false, true})
    {
        // New objects take the process-wide default.
        M2DSliceIO_slm::SetDecompressRepairByDefault(repair);
        auto reader = std::make_shared<M2DSliceIO_slm>(false);
        M2DSliceIO_slm::SetDecompressRepairByDefault(before);
        EXPECT_EQ(reader->GetDecompressRepair(), repair);
        std::shared_ptr<I2DSliceIO> io = reader;
        M2DSliceContainerIO in(io);
        auto read = std::make_unique<M2DSliceStack>();
        const bool ok = in.ReadContainer(*read, dir.WFile("c.slm"), true, nullptr);
        if (!repair)
        {
            // Read literally, the header's sections 44 and 41 come back with a minimal size
            // while the header keeps its old size: the file does not read.
            EXPECT_FALSE(ok && reader->GetFailureReason().empty())
                << read->GetNumSlices() << " layers; " << reader->GetFailureReason();
            continue;
        }
        ASSERT_TRUE(ok) << reader->GetFailureReason();
        ASSERT_EQ(read->GetNumSlices(), original->GetNumSlices());
        for (std::uint64_t i = 0; i < read->GetNumSlices(); ++i)
            EXPECT_EQ(read->GetSlice(i)->GetVectors()->GetTotalNumVectors(),
                      original->GetSlice(i)->GetVectors()->GetTotalNumVectors());
    }
    // An object built for the compressed form fails on a plain file.
    M2DSliceIO_slm compressedOnly(true);
    ASSERT_TRUE(compressedOnly.OpenFile(dir.WFile("plain.slm"), I2DSliceIO::Read));
    EXPECT_FALSE(compressedOnly.ReadHeader(nullptr));
}

TEST(CompressionTest, LiteralDecodingLosesTheFixedFormsItsOwnFilesNeed)
{
    // Read as the format says, a compressed file of this library does not give the plain file
    // back: the four checksum bytes stand where the code's last symbols expect zero bits, so
    // some files fail at their end, and in those that decode, sections 44 and 41 come back with
    // a minimal size while the header keeps its old size.
    ts::ScratchDir dir;
    int failedAtTheEnd = 0, shortened = 0;
    for (unsigned seed = 1; seed <= 40; ++seed)
    {
        const std::string plain = GridBuild(dir, "plain.slm", seed);
        Compressed(dir.File("plain.slm"), dir.File("coded.slm"));
        const std::string literal = Decompressed(dir.File("coded.slm"), dir.File("literal.slm"), false);
        if (literal.rfind("<failed", 0) == 0)
        {
            ++failedAtTheEnd;
            continue;
        }
        const std::size_t history = plain.find(std::string("\x20\x2C\xE0", 3));
        ASSERT_NE(history, std::string::npos);
        EXPECT_EQ(literal.substr(0, history + 2), plain.substr(0, history + 2));
        EXPECT_EQ(literal.substr(history + 2, 2), LF(static_cast<unsigned char>(plain[history + 9])));
        // Section 44 (53 bytes) and the two models' sections 41 (36 bytes each): a fixed size of
        // eight bytes becomes one of two.
        EXPECT_EQ(plain.size() - literal.size(), 3 * 6u);
        ++shortened;
    }
    EXPECT_GT(failedAtTheEnd, 0);
    EXPECT_GT(shortened, 0);
}

TEST(CompressionTest, DecompressorRefusesBadStreams)
{
    ts::ScratchDir dir;
    std::string reason;
    auto refuses = [&](const std::function<void(StreamWriter&)>& body, const std::string& why) {
        {
            StreamWriter w(dir.File("s.slm"));
            body(w);
            w.Finish();
        }
        EXPECT_EQ(Decompressed(dir.File("s.slm"), dir.File("o.slm"), true, &reason).rfind("<failed", 0), 0u) << why;
        EXPECT_NE(reason.find(why), std::string::npos) << reason;
    };
    // A well-formed stream decodes: section 10 holding nothing, then the end.
    {
        StreamWriter w(dir.File("ok.slm"));
        w.Op(Op_Open);
        w.HeadOf(10, 0, false);
        w.Op(Op_Close);
        w.Op(Op_End);
        w.Finish();
        EXPECT_EQ(Decompressed(dir.File("ok.slm"), dir.File("o.slm"), true), std::string("\x0A\x00", 2));
    }
    refuses([](StreamWriter& w) { w.Op(6); }, "operation 6");
    refuses([](StreamWriter& w) { w.Op(9); }, "operation 9");
    refuses(
        [](StreamWriter& w) {
            w.Op(Op_Open);
            w.HeadOf(11, 8, false);
            w.Op(Op_Polygon);
            w.HeadOf(19, 0, false); // op 5 of size 0
        },
        "polygon coordinates of 0 bytes");
    refuses(
        [](StreamWriter& w) {
            w.Op(Op_Open);
            w.HeadOf(12, 100, false);
            w.Op(Op_Hatch);
            w.HeadOf(20, 24, false); // not whole vectors
        },
        "hatch coordinates of 24 bytes");
    refuses(
        [](StreamWriter& w) {
            w.Op(Op_Open);
            w.HeadOf(10, 4, false);
            w.Op(Op_Bytes);
            w.HeadOf(18, 10, false); // more than the layer declares
        },
        "holds more than section 10 declares");
    refuses(
        [](StreamWriter& w) {
            for (int i = 0; i < 8; ++i)
            {
                w.Op(Op_Open);
                w.HeadOf(10, 1000 - 10 * static_cast<unsigned>(i), false);
            }
        },
        "nest too deep");
    refuses(
        [](StreamWriter& w) {
            w.Op(Op_Bytes);
            w.HeadOf(18, std::uint64_t{1} << 40, false); // far beyond what the file can justify
        },
        "section 18 of 1099511627776 bytes does not fit");
    refuses([](StreamWriter& w) { w.Op(Op_Close); }, "never opened");
    // Nothing coded at all: the zero bits after the stream do not make an end.
    refuses([](StreamWriter&) {}, "");
}

TEST(CompressionTest, CompressorAcceptsAnEmptyPolygonTheDecompressorRefuses)
{
    ts::ScratchDir dir;
    Bytes b;
    b.text("\x01\x1F\x02\x0E").text("MTT-Layerfile").u8(0).text("\x20\x3C\x02\xAA\xBB");
    b.text(std::string("\x04\x08\xE0\0\0\0\0\0\0", 9)).u8(0x2B);
    b.text(std::string("\x0A\x08\x0B\x06\x12\x02\x01\x03\x13\x00", 10));
    b.text("\x08\x0A\x09\x08\x17\x02\x20\x21\x18\x02\x21\x2C\x15\x04").u32(0);
    ts::WriteFile(dir.File("empty.slm"), b.s);
    Compressed(dir.File("empty.slm"), dir.File("coded.slm"));
    std::string reason;
    Decompressed(dir.File("coded.slm"), dir.File("o.slm"), true, &reason);
    EXPECT_NE(reason.find("polygon coordinates of 0 bytes"), std::string::npos) << reason;
}

namespace {

// FNV-1a of a byte string.
std::uint64_t Fnv(const std::string& bytes, std::uint64_t h = 14695981039346656037ull)
{
    for (unsigned char c : bytes)
        h = (h ^ c) * 1099511628211ull;
    return h;
}

// A generated build as a plain file with its creation time fixed: many layers, contours and
// hatches off the grid, negative coordinates.
std::string GeneratedPlain(const ts::ScratchDir& dir, const std::string& name)
{
    BuildShape shape = BuildShape::Rich(12, 3);
    shape.VectorsPerLayer = 3000;
    BuildGenerator build(shape);
    std::vector<Style> styles(4);
    for (std::int32_t id = 0; id < 4; ++id)
        styles[static_cast<std::size_t>(id)].Id = id;
    std::string file = WriteSlm({&build}, dir.File(name), [&](M2DSliceIO_slm& io) {
        PersistentProperties defaults;
        DescribePart(defaults, 1, L"", styles);
        io.SetSourceDefaults(defaults);
    });
    const std::size_t time = file.find(std::string("\x20\x2F\x14", 3));
    if (time != std::string::npos)
        file.replace(time + 3, 19, "2000-01-01 00:00:00");
    Bytes crc;
    crc.u32(Crc(file, file.size() - 4));
    file.replace(file.size() - 4, 4, crc.s);
    ts::WriteFile(dir.File(name), file);
    return file;
}

} // namespace

// A regression pin, in addition to the bytes worked out by hand in CompressionBitsTest: the
// hashes of compressed files recorded once from the coder as it stood before its speed work,
// so that any change of the coded bits on larger files shows.
TEST(CompressionTest, CodedBytesOfLargerBuildsStayTheSame)
{
    ts::ScratchDir dir;
    std::uint64_t grid = 14695981039346656037ull;
    std::size_t gridBytes = 0;
    for (unsigned seed = 1; seed <= 40; ++seed)
    {
        GridBuild(dir, "plain.slm", seed);
        const std::string coded = Compressed(dir.File("plain.slm"), dir.File("coded.slm"));
        grid = Fnv(coded, grid);
        gridBytes += coded.size();
    }
    const std::string plain = GeneratedPlain(dir, "generated.slm");
    ASSERT_FALSE(plain.empty());
    const std::string coded = Compressed(dir.File("generated.slm"), dir.File("generated.slm48"));
    EXPECT_EQ(gridBytes, 55524u);
    EXPECT_EQ(grid, 0x4fee45e0e1bed114u);
    EXPECT_EQ(plain.size(), 576656u);
    EXPECT_EQ(coded.size(), 163301u);
    EXPECT_EQ(Fnv(coded), 0x8a69bd4b19381859u);
}
