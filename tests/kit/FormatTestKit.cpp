#include "FormatTestKit.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>

#include "contracts/M2DSliceSource.h"
#include "framework/M2DSliceContainerIO.h"
#include "framework/M2DSliceContainerIterator.h"
#include "framework/M2DSliceIOFactory.h"

namespace kit {

namespace {

std::string Hex(const std::string& bytes, std::size_t from, std::size_t to)
{
    std::string out;
    char cell[4];
    for (std::size_t i = from; i < to && i < bytes.size(); ++i)
    {
        std::snprintf(cell, sizeof cell, "%02x ", static_cast<unsigned char>(bytes[i]));
        out += cell;
    }
    return out.empty() ? "(end)" : out;
}

std::string TempPath(const char* what)
{
    static std::atomic<int> counter{0};
    return (std::filesystem::temp_directory_path() /
            ("sliceio-kit-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + "-" + what))
        .string();
}

std::wstring Wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

void Store(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

// Every read path on one damaged file; returns an empty string or what went wrong.
std::string ReadAllWays(short code, const std::string& path, const SweepOptions& options)
{
    constexpr std::uint64_t kMaxLayers = 100000;
    const auto make = [&] { return options.Make ? options.Make() : M2DSliceIOFactory::GetSliceIO(code); };
    const auto guarded = [&](const char* what, const std::function<void()>& run) -> std::string {
        try
        {
            run();
        }
        catch (const std::exception& e)
        {
            if (!options.Documented(e))
                return std::string(what) + ": undocumented exception: " + e.what();
        }
        return {};
    };
    std::string problem = guarded("whole-file read", [&] {
        M2DSliceStack stack;
        std::shared_ptr<I2DSliceIO> io = make();
        M2DSliceContainerIO driver(io);
        driver.ReadContainer(stack, Wide(path), true, nullptr);
    });
    if (!problem.empty())
        return problem;
    problem = guarded("scan", [&] {
        std::shared_ptr<I2DSliceIO> io = make();
        if (!io->OpenFile(Wide(path), I2DSliceIO::Read))
            return;
        if (io->ReadHeader(nullptr))
        {
            M2DSliceContainerScanInfo info;
            std::uint64_t n = 0;
            while (n++ < kMaxLayers && io->ScanLayer(info, nullptr, true))
                info.Clear();
            if (n > kMaxLayers)
                throw std::runtime_error("the scan does not end");
            io->ReadFooter(nullptr);
        }
        io->CloseFile();
    });
    if (!problem.empty())
        return problem;
    return guarded("iterator", [&] {
        M2DSliceContainerIterator it(Wide(path), make(), true, 4096, true);
        if (!it.IsValid())
            return;
        M2DSlice slice;
        const std::uint64_t n = std::min<std::uint64_t>(it.GetNumSlices(), 64);
        for (std::uint64_t i = 0; i < n; ++i)
            it.GetSlice(slice, n - 1 - i);
    });
}

std::vector<std::size_t> Positions(std::size_t size, std::size_t maxCases)
{
    std::vector<std::size_t> at;
    if (size <= maxCases)
    {
        for (std::size_t i = 0; i < size; ++i)
            at.push_back(i);
        return at;
    }
    const std::size_t edge = std::min<std::size_t>(64, size / 2);
    for (std::size_t i = 0; i < edge; ++i)
    {
        at.push_back(i);
        at.push_back(size - 1 - i);
    }
    const std::size_t middle = maxCases > 2 * edge ? maxCases - 2 * edge : 1;
    for (std::size_t k = 0; k < middle; ++k)
        at.push_back(edge + (size - 2 * edge) * k / middle);
    std::sort(at.begin(), at.end());
    at.erase(std::unique(at.begin(), at.end()), at.end());
    return at;
}

struct LayerCounts
{
    std::size_t Contours = 0;
    std::size_t ContourPoints = 0;
    std::size_t OpenContours = 0;
    std::size_t Segments = 0; // vectors plus the sides of contours
    std::size_t Vectors = 0;
    std::size_t Points = 0;
    std::set<int> Parts;
    bool Empty = true;
};

void Count(const M2DSlice& slice, LayerCounts& c)
{
    const M2DSliceContourLayer& border = *slice.GetSliceBorder();
    for (std::size_t i = 0; i < border.GetNumContours(); ++i)
    {
        const M2DSliceContour& contour = *border.GetContour(i);
        std::size_t n = contour.GetNumPoints();
        // A closing repeat of the first point is the same contour.
        if (n > 1 && contour.GetIsClosed())
        {
            int fx = 0, fy = 0, lx = 0, ly = 0;
            bool firstSeen = false;
            for (const auto& p : contour)
            {
                if (!firstSeen)
                {
                    fx = p.x;
                    fy = p.y;
                    firstSeen = true;
                }
                lx = p.x;
                ly = p.y;
            }
            if (lx == fx && ly == fy)
                --n;
        }
        ++c.Contours;
        c.ContourPoints += n;
        c.OpenContours += contour.GetIsClosed() ? 0 : 1;
        c.Segments += contour.GetIsClosed() ? n : (n > 0 ? n - 1 : 0);
        c.Parts.insert(contour.GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Part));
        c.Empty = false;
    }
    const M2DSliceVectorLayer& vectors = *slice.GetVectors();
    for (std::size_t i = 0; i < vectors.GetNumVectorBlocks(); ++i)
    {
        const M2DSliceVectorBlock& block = *vectors.GetVectorBlock(i);
        c.Vectors += block.Vectors.size();
        c.Segments += block.Vectors.size();
        c.Parts.insert(block.GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Part));
        c.Empty = c.Empty && block.Vectors.empty();
    }
    const M2DSlicePointLayer& points = *slice.GetPoints();
    for (std::size_t i = 0; i < points.GetNumPointBlocks(); ++i)
    {
        c.Points += points.GetPointBlock(i)->Points.size();
        c.Empty = c.Empty && points.GetPointBlock(i)->Points.size() == 0;
    }
}

} // namespace

::testing::AssertionResult SameBytes(const std::string& expected, const std::string& actual)
{
    if (expected == actual)
        return ::testing::AssertionSuccess();
    std::size_t at = 0;
    while (at < expected.size() && at < actual.size() && expected[at] == actual[at])
        ++at;
    const std::size_t from = at >= 8 ? at - 8 : 0;
    return ::testing::AssertionFailure() << "first difference at offset " << at << " (sizes " << expected.size()
                                         << " expected, " << actual.size() << " actual)\n  expected from " << from
                                         << ": " << Hex(expected, from, at + 16) << "\n  actual   from " << from
                                         << ": " << Hex(actual, from, at + 16);
}

void SweepTruncations(short code, const std::string& bytes, const SweepOptions& options)
{
    const std::string path = TempPath("truncated");
    std::vector<std::size_t> lengths = Positions(bytes.size() + 1, options.MaxCases);
    for (std::size_t length : lengths)
    {
        Store(path, bytes.substr(0, length));
        const std::string problem = ReadAllWays(code, path, options);
        EXPECT_EQ(problem, "") << "file cut to " << length << " of " << bytes.size() << " bytes";
        if (!problem.empty())
            break;
    }
    std::remove(path.c_str());
}

void SweepCorruptions(short code, const std::string& bytes, const SweepOptions& options)
{
    const std::string path = TempPath("corrupted");
    for (std::size_t at : Positions(bytes.size(), options.MaxCases / 3 + 1))
    {
        std::string problem;
        for (int kind = 0; kind < 3 && problem.empty(); ++kind)
        {
            std::string damaged = bytes;
            damaged[at] = kind == 0 ? static_cast<char>(~damaged[at]) : kind == 1 ? '\0' : '\xff';
            if (damaged == bytes)
                continue;
            Store(path, damaged);
            problem = ReadAllWays(code, path, options);
            EXPECT_EQ(problem, "") << "byte " << at << " of " << bytes.size() << " changed (kind " << kind << ")";
        }
        if (!problem.empty())
            break;
    }
    std::remove(path.c_str());
}

std::unique_ptr<M2DSliceStack> RoundTrip(short code, const std::vector<const ISource2DSlices*>& sources,
                                         const std::string& path, std::int32_t unitConversion,
                                         std::int32_t inverseResolution, std::string* reason,
                                         const std::function<void(I2DSliceIO&)>& prepare)
{
    std::shared_ptr<I2DSliceIO> writer = M2DSliceIOFactory::GetSliceIO(code);
    if (!writer)
    {
        if (reason)
            *reason = "no format object for code " + std::to_string(code);
        return nullptr;
    }
    if (prepare)
        prepare(*writer);
    M2DSliceContainerIO out(writer);
    M2DSliceSourceVector joined;
    joined.SetVector(sources);
    if (!out.WriteContainer(joined, Wide(path), unitConversion, inverseResolution, nullptr))
    {
        if (reason)
            *reason = "write: " + writer->GetFailureReason();
        return nullptr;
    }
    auto stack = std::make_unique<M2DSliceStack>();
    M2DSliceContainerIO in(static_cast<unsigned short>(code));
    I2DSliceIO::ReadOptions options;
    options.VectorBlocks.MergeBlocks = false;
    in.SetReadOptions(options);
    if (!in.ReadContainer(*stack, Wide(path), true, nullptr) || !in.GetSliceIO()->GetFailureReason().empty())
    {
        if (reason)
            *reason = "read: " + in.GetSliceIO()->GetFailureReason();
        return nullptr;
    }
    return stack;
}

void ExpectSameBuild(const std::vector<const ISource2DSlices*>& written, const ISource2DSlices& read, unsigned losses,
                     int tolerance)
{
    M2DSliceSourceVector joined;
    joined.SetVector(written);
    std::vector<std::pair<std::int32_t, LayerCounts>> expected;
    M2DSliceConstDataItems items;
    for (std::uint64_t i = 0; i < joined.GetNumSlices(); ++i)
    {
        joined.GetSliceItems(items, i);
        LayerCounts c;
        for (const auto& slice : items.Slices)
            if (slice)
                Count(*slice, c);
        if (c.Empty && (losses & FormatLoss_EmptyLayers))
            continue;
        expected.emplace_back(joined.GetSliceZPosition(i), c);
    }
    ASSERT_EQ(expected.size(), read.GetNumSlices()) << "layer count";
    M2DSlice slice;
    for (std::uint64_t i = 0; i < read.GetNumSlices(); ++i)
    {
        SCOPED_TRACE("layer " + std::to_string(i));
        read.GetSlice(slice, i);
        LayerCounts got;
        Count(slice, got);
        const LayerCounts& want = expected[i].second;
        if (!(losses & FormatLoss_Heights))
        {
            EXPECT_NEAR(expected[i].first, slice.GetZ(), tolerance) << "height";
        }
        const bool contoursKept = !(losses & (FormatLoss_ContoursAsVectors | FormatLoss_Contours));
        if (contoursKept && !(losses & FormatLoss_OpenContours))
        {
            EXPECT_EQ(want.Contours, got.Contours) << "contours";
            EXPECT_EQ(want.ContourPoints, got.ContourPoints) << "contour points";
            EXPECT_EQ(want.OpenContours, got.OpenContours) << "open contours";
        }
        if (!(losses & (FormatLoss_Hatches | FormatLoss_Contours | FormatLoss_OpenContours)))
        {
            if (losses & FormatLoss_ContoursAsVectors)
            {
                EXPECT_EQ(want.Segments, got.Segments) << "vectors and contour sides";
            }
            else
            {
                EXPECT_EQ(want.Vectors, got.Vectors) << "vectors";
            }
        }
        if (!(losses & FormatLoss_Points))
        {
            EXPECT_EQ(want.Points, got.Points) << "points";
        }
        // Formats may number parts their own way (CLI by the slice's place); what must hold is
        // that parts stay apart.
        if (!(losses & FormatLoss_Parts))
        {
            EXPECT_EQ(want.Parts.size(), got.Parts.size()) << "number of parts";
        }
    }
}

} // namespace kit
