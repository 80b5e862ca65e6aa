#pragma once
// The way a caller reads a slice file of a given file-type code, run on arbitrary bytes: shared
// by the read fuzz targets (one short file each, naming its code through
// SLICEIO_FUZZ_READ_TARGET) and by the test that replays the inputs kept in fuzz/regressions/.
//
// Besides not crashing, two things must hold for any input: a full read and a scan run the
// same decoding routine, so with the same flags they agree on the number of layers, on each
// height and on each contour count; and the iterator, whose table comes from such a scan, hands
// out the layers that its table announces.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <typeinfo>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "framework/M2DSliceIOFactory.h"
#include "framework/M2DSliceContainerIterator.h"
#include "ScratchFile.h"

namespace SliceIOFuzz {

// Bounds of the work done per input, so that no input can hang a run.
constexpr std::uint64_t kMaxLayers = 10000;
constexpr std::uint64_t kMaxIteratorReads = 48;

// The first input byte chooses how the file is read; the whole input, that byte included, is
// the file.
struct ReadFlags
{
    explicit ReadFlags(std::uint8_t b)
        : ReadVectors(b & 0x01), Alternate(b & 0x02), ScanVectors(b & 0x80), SmallBuffer(b & 0x40)
    {
        Options.OpenBordersToVectors = (b & 0x04) != 0;
        Options.Borders.RemoveRedundantPoints = (b & 0x08) != 0;
        Options.Borders.OrientBorders = (b & 0x10) != 0;
        Options.VectorBlocks.MergeBlocks = (b & 0x20) == 0;
    }
    // Small file buffers make every layer cross buffer boundaries, and spare each pass the
    // default quarter megabyte.
    std::uint64_t BufferSize() const { return SmallBuffer ? 61 : 4096; }
    bool ReadVectorsAt(std::uint64_t layer) const { return ReadVectors != (Alternate && (layer & 1)); }
    // Read and scan pass then run the decoder with the same flag on every layer, and no read
    // option changes the number of contours.
    bool PassesComparable() const
    {
        return !Alternate && ReadVectors == ScanVectors && !Options.OpenBordersToVectors &&
               !Options.Borders.RemoveRedundantPoints;
    }

    bool ReadVectors;
    bool Alternate;
    bool ScanVectors;
    bool SmallBuffer;
    I2DSliceIO::ReadOptions Options;
};

struct LayerSummary
{
    std::int32_t Z;
    std::uint64_t NumContours;
    bool operator==(const LayerSummary& o) const { return Z == o.Z && NumContours == o.NumContours; }
    bool operator!=(const LayerSummary& o) const { return !(*this == o); }
};

// What one pass saw. Complete is false when the pass stopped early: a refused header, an
// exception of the number parsers, or the layer cap.
struct PassResult
{
    std::vector<LayerSummary> Layers;
    bool Complete = false;
};

// The format object of the code under test; the factory must know it.
inline std::shared_ptr<I2DSliceIO> MakeReader(short code)
{
    std::shared_ptr<I2DSliceIO> io = M2DSliceIOFactory::GetSliceIO(code);
    if (!io)
        throw std::logic_error("no reader for the fuzzed code");
    // An iterator's copy makes its own reader from the file type.
    io->SetFileType(static_cast<unsigned short>(code));
    return io;
}

inline PassResult ReadPass(const std::wstring& path, const ReadFlags& flags, short code)
{
    PassResult result;
    const std::shared_ptr<I2DSliceIO> reader = MakeReader(code);
    I2DSliceIO& io = *reader;
    io.SetFileBufferSize(flags.BufferSize());
    io.SetReadOptions(flags.Options);
    if (!io.OpenFile(path, I2DSliceIO::Read))
        return result;
    bool ended = false;
    if (io.ReadHeader(nullptr))
    {
        M2DSlice slice;
        while (result.Layers.size() < kMaxLayers)
        {
            if (!io.ReadLayer(slice, nullptr, flags.ReadVectorsAt(result.Layers.size())))
            {
                ended = true;
                break;
            }
            result.Layers.push_back({slice.GetZ(), slice.GetSliceBorder()->GetNumContours()});
        }
        io.ReadFooter(nullptr);
    }
    io.CloseFile();
    result.Complete = ended;
    return result;
}

inline PassResult ScanPass(const std::wstring& path, const ReadFlags& flags, short code)
{
    PassResult result;
    const std::shared_ptr<I2DSliceIO> reader = MakeReader(code);
    I2DSliceIO& io = *reader;
    io.SetFileBufferSize(flags.BufferSize());
    if (!io.OpenFile(path, I2DSliceIO::Read))
        return result;
    bool ended = false;
    if (io.ReadHeader(nullptr))
    {
        while (result.Layers.size() < kMaxLayers)
        {
            M2DSliceContainerScanInfo info;
            if (!io.ScanLayer(info, nullptr, flags.ScanVectors))
            {
                ended = true;
                break;
            }
            result.Layers.push_back({info.Z, info.NumContours});
        }
        io.ReadFooter(nullptr);
    }
    io.CloseFile();
    result.Complete = ended;
    return result;
}

// Reads through the iterator in an order that mixes the ends, the middle, downward walks (which
// take the read-ahead path) and random jumps, and once through a copy of the iterator.
// Returns a description of the first inconsistency, or an empty string.
inline std::string IteratorPass(const std::wstring& path, const ReadFlags& flags, std::uint64_t seed,
                                const PassResult* scan, short code)
{
    M2DSliceContainerIterator it(path, MakeReader(code), flags.ReadVectors, flags.BufferSize(), true);
    if (!it.IsValid())
        return {};
    const auto& table = it.GetLayerTable();
    const std::uint64_t n = it.GetNumSlices();
    if (n != table.size())
        return "iterator: GetNumSlices differs from its layer table";
    if (scan && scan->Complete)
    {
        if (scan->Layers.size() != n)
            return "iterator: " + std::to_string(n) + " layers, scan pass " + std::to_string(scan->Layers.size());
        for (std::uint64_t i = 0; i < n; ++i)
            if (scan->Layers[i] != LayerSummary{table[i].Info.Z, table[i].Info.NumContours})
                return "iterator: table entry " + std::to_string(i) + " differs from the scan pass";
    }
    if (n == 0)
        return {};

    std::vector<std::uint64_t> order = {n - 1, 0, n / 2};
    for (std::uint64_t i = n - 1; i > 0 && order.size() < kMaxIteratorReads / 2; --i)
        order.push_back(i - 1);
    while (order.size() < kMaxIteratorReads)
    {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        order.push_back((seed >> 33) % n);
    }

    M2DSlice slice;
    for (std::uint64_t i : order)
    {
        it.GetSlice(slice, i);
        if (slice.GetZ() != table[i].Info.Z || slice.GetSliceBorder()->GetNumContours() != table[i].Info.NumContours)
            return "iterator: slice " + std::to_string(i) + " differs from its table entry";
    }
    M2DSliceContainerIterator copy(it);
    const std::shared_ptr<const M2DSlice> last = copy.GetSlice(n - 1);
    if (!last || last->GetZ() != table[n - 1].Info.Z)
        return "iterator copy: last slice differs from its table entry";
    return {};
}

inline std::uint64_t HashBytes(const std::uint8_t* data, std::size_t size)
{
    std::uint64_t h = 14695981039346656037ull;
    for (std::size_t i = 0; i < size; ++i)
        h = (h ^ data[i]) * 1099511628211ull;
    return h;
}

// Runs one input. Only the exceptions that readers document for bad input are accepted: those
// of the number parsers and of a line with fewer values than its count (std::invalid_argument,
// std::out_of_range) and, for a format that says so (documentedLogicError), std::logic_error
// as such. Any other escapes. Returns a description of the first inconsistency, or "".
inline bool IsDocumented(const std::exception& e, bool documentedLogicError)
{
    if (dynamic_cast<const std::invalid_argument*>(&e) || dynamic_cast<const std::out_of_range*>(&e))
        return true;
    return documentedLogicError && typeid(e) == typeid(std::logic_error);
}

inline std::string RunReadInput(ScratchFile& file, const std::uint8_t* data, std::size_t size, short code = 0,
                                bool documentedLogicError = false)
{
    file.Assign(data, size);
    const ReadFlags flags(size > 0 ? data[0] : 0);
    const std::wstring& path = file.Path();

    PassResult read;
    PassResult scan;
    try
    {
        read = ReadPass(path, flags, code);
    }
    catch (const std::exception& e)
    {
        if (!IsDocumented(e, documentedLogicError))
            throw;
    }
    try
    {
        scan = ScanPass(path, flags, code);
    }
    catch (const std::exception& e)
    {
        if (!IsDocumented(e, documentedLogicError))
            throw;
    }
    if (flags.PassesComparable() && read.Complete && scan.Complete)
    {
        if (read.Layers.size() != scan.Layers.size())
            return "read pass " + std::to_string(read.Layers.size()) + " layers, scan pass " +
                   std::to_string(scan.Layers.size());
        for (std::size_t i = 0; i < read.Layers.size(); ++i)
            if (read.Layers[i] != scan.Layers[i])
                return "layer " + std::to_string(i) + ": read and scan disagree on height or contour count";
    }
    try
    {
        return IteratorPass(path, flags, HashBytes(data, size), flags.ScanVectors ? nullptr : &scan, code);
    }
    catch (const std::exception& e)
    {
        if (!IsDocumented(e, documentedLogicError))
            throw;
    }
    return {};
}

} // namespace SliceIOFuzz

// The whole of a read fuzz target: its file names the code, and the format's documented
// std::logic_error when it has one.
#define SLICEIO_FUZZ_READ_TARGET(code, documentedLogicError)                                                   \
    extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)                          \
    {                                                                                                          \
        static SliceIOFuzz::ScratchFile file;                                                                  \
        const std::string problem = SliceIOFuzz::RunReadInput(file, data, size, code, documentedLogicError);   \
        if (!problem.empty())                                                                                  \
        {                                                                                                      \
            std::fprintf(stderr, "fuzz read (code %d): %s\n", static_cast<int>(code), problem.c_str());        \
            std::abort();                                                                                      \
        }                                                                                                      \
        return 0;                                                                                              \
    }
