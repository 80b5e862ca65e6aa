#pragma once
// Random stacks, built from arbitrary bytes, written as binary Common Layer Interface files in
// the long and the short coordinate form and read back: shared by the fuzz target
// fuzz_cli_roundtrip and by the test that replays the inputs kept in fuzz/regressions/.
//
// Coordinates are whole multiples of one file step, and the step is a whole number of internal
// units, so the float of the long form (|steps| < 2^24) and the 16-bit field of the short form
// (0 to 65,535 steps) carry them exactly. What the format keeps exactly is compared: heights,
// hatch vectors and their blocks, contour points in the order a reader gets them, closed flags,
// the outer flag of closed contours, ids, bounds and the file's resolution.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "contracts/M2DSliceStack.h"
#include "formats/cli/M2DSliceIO_cli.h"
#include "framework/M2DSliceContainerIO.h"

namespace SliceIOFuzz {

// Hands out the input as numbers; zeros once it is used up, so every input builds a case.
class ByteReader
{
public:
    ByteReader(const std::uint8_t* data, std::size_t size) : _data(data), _size(size) {}
    std::uint8_t U8() { return _pos < _size ? _data[_pos++] : 0; }
    bool Bit() { return (U8() & 1) != 0; }
    // A value in [lo, hi], from as many bytes as the span needs.
    std::int64_t In(std::int64_t lo, std::int64_t hi)
    {
        const std::uint64_t span = static_cast<std::uint64_t>(hi - lo) + 1;
        std::uint64_t v = 0;
        for (std::uint64_t s = span - 1; s > 0; s >>= 8)
            v = (v << 8) | U8();
        return lo + static_cast<std::int64_t>(v % span);
    }

private:
    const std::uint8_t* _data;
    std::size_t _size;
    std::size_t _pos = 0;
};

struct ExpectedContour
{
    std::vector<M2DSlicePoint> Points; // in the order a reader gets them
    bool Closed = true;
    int Outer = -1; // 0 or 1 where the reader's double arithmetic is exact; -1: not compared
    std::int32_t Id = 0;
};

struct ExpectedBlock
{
    std::vector<M2DSliceVector> Vectors;
    std::int32_t Id = 0;
};

struct ExpectedLayer
{
    std::int32_t Z = 0;
    std::vector<ExpectedContour> Contours;
    std::vector<ExpectedBlock> Blocks;
};

class RoundTripCase
{
public:
    explicit RoundTripCase(ByteReader& in) { _Build(in); }

    // Writes the case in both forms (the long one only when a coordinate is out of the short
    // form's range) and reads it back. Returns the first difference found, or empty.
    std::string Run(const std::wstring& path) const
    {
        std::string problem = _Check(path, M2DSliceIO_cli::Long);
        if (problem.empty() && _shortSafe)
            problem = _Check(path, M2DSliceIO_cli::Short);
        return problem;
    }
    // Layers that are written with content, and so must come back.
    std::size_t NumLayers() const { return _layers.size(); }

private:
    static constexpr std::int32_t kUnset = M2DSLICE_UNSET;

    void _Build(ByteReader& in)
    {
        // Inverse resolutions that divide the internal units per millimetre.
        static const std::int32_t kInverse[] = {1,   2,   4,   5,    8,    10,   16,   20,   25,
                                                40,  50,  80,  100,  125,  200,  250,  400,  500,
                                                625, 1000, 1250, 2000, 2500, 5000, 10000};
        _inverseResolution = kInverse[in.In(0, sizeof(kInverse) / sizeof(kInverse[0]) - 1)];
        _step = MUnit::GetIE() / _inverseResolution;
        _shortSafe = in.Bit();
        // File buffers from 64 bytes up, so that records straddle buffer boundaries.
        _bufferSize = std::uint64_t(1) << in.In(6, 16);
        _kMax = _shortSafe ? 65535 : std::min<std::int64_t>((1 << 24) - 1, INT32_MAX / _step);
        _kMin = _shortSafe ? 0 : -_kMax;

        const int numSources = static_cast<int>(in.In(1, 3));
        for (int s = 0; s < numSources; ++s)
        {
            _stacks.push_back(std::make_unique<M2DSliceStack>());
            _stacks.back()->GetIOParametersUpdate().BordersFirst = in.Bit();
        }

        const int numHeights = static_cast<int>(in.In(0, 12));
        std::int64_t k = in.In(_kMin, _kMin + 1000);
        for (int h = 0; h < numHeights && k <= _kMax; ++h, k += in.In(1, 1000))
            _BuildLayer(in, static_cast<std::int32_t>(k * _step));
    }

    void _BuildLayer(ByteReader& in, std::int32_t z)
    {
        ExpectedLayer layer;
        layer.Z = z;
        M2DSlicePoint lastEnd(kUnset, kUnset); // end of the last open polyline, as the reader tracks it
        std::size_t lastPolyline = SIZE_MAX;   // the layer's last polyline is open and not inverted
        bool anySlice = false;
        for (std::size_t s = 0; s < _stacks.size(); ++s)
        {
            if ((in.U8() & 3) == 0)
                continue; // this source has no slice at this height
            anySlice = true;
            M2DSlice slice;
            slice.SetZ(z);
            const int numContours = static_cast<int>(in.In(0, 5));
            for (int c = 0; c < numContours; ++c)
            {
                ExpectedContour expected;
                expected.Id = static_cast<std::int32_t>(s);
                expected.Closed = in.Bit();
                std::vector<M2DSlicePoint> points = _Walk(in, static_cast<int>(in.In(0, 24)));
                if (!points.empty() && !expected.Closed)
                    _AvoidJoins(points, lastEnd);
                M2DSliceContour* contour = slice.GetSliceBorderUpdate()->AddContourAtEnd();
                contour->SetIsClosed(expected.Closed);
                contour->SetIsOuterContour(in.Bit());
                for (const M2DSlicePoint& p : points)
                    contour->InsertAtEnd(p.x, p.y, nullptr);
                if (points.empty())
                    continue; // not written
                _Expect(expected, points, lastEnd);
                lastPolyline = expected.Closed ? SIZE_MAX : layer.Contours.size();
                layer.Contours.push_back(std::move(expected));
            }
            const int numBlocks = static_cast<int>(in.In(0, 3));
            for (int b = 0; b < numBlocks; ++b)
            {
                M2DSliceVectorBlock* block = slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
                block->SetTypeInfo(M2DSliceVectorTypeInfo(e2DSliceVectorType_Hatch));
                const std::uint8_t size = in.U8();
                if (size == 0xff && _shortSafe && !_bigBlock)
                {
                    // Past the record limit of the short form, in a pattern that costs no input;
                    // one such block per case keeps the run fast.
                    _bigBlock = true;
                    const std::int64_t n = 65535 + in.In(1, 100);
                    for (std::int64_t i = 0; i < n; ++i)
                        block->Vectors.emplace_back(_K(i % 65536), _K(i / 7 % 65536), _K((i * 31) % 65536), _K(i % 1000));
                }
                else
                    for (int i = 0; i < size % 40; ++i)
                        block->Vectors.emplace_back(_Coordinate(in), _Coordinate(in), _Coordinate(in), _Coordinate(in));
                if (!block->Vectors.empty())
                    layer.Blocks.push_back({block->Vectors, static_cast<std::int32_t>(s)});
            }
            _stacks[s]->AddSlice(slice, true);
        }
        if (lastPolyline != SIZE_MAX)
        {
            // Its chain is still under way when the layer ends, and such a chain is finished
            // without turning it back: it keeps the reversed order of the file.
            auto& points = layer.Contours[lastPolyline].Points;
            std::reverse(points.begin(), points.end());
        }
        _anySlice = _anySlice || anySlice;
        if (!layer.Contours.empty() || !layer.Blocks.empty())
            _layers.push_back(std::move(layer));
    }

    std::int32_t _K(std::int64_t k) const { return static_cast<std::int32_t>(k * _step); }
    std::int32_t _Coordinate(ByteReader& in) const { return _K(in.In(_kMin, _kMax)); }

    // A contour wanders from a random start by steps of a random reach, as drawn outlines do.
    std::vector<M2DSlicePoint> _Walk(ByteReader& in, int n) const
    {
        static const std::int64_t kReach[] = {1, 3, 100, 1 << 20};
        const std::int64_t reach = kReach[in.In(0, 3)];
        std::vector<M2DSlicePoint> points;
        std::int64_t x = in.In(_kMin, _kMax);
        std::int64_t y = in.In(_kMin, _kMax);
        for (int i = 0; i < n; ++i)
        {
            if (i > 0)
            {
                x = std::clamp(x + in.In(-reach, reach), _kMin, _kMax);
                y = std::clamp(y + in.In(-reach, reach), _kMin, _kMax);
            }
            points.emplace_back(_K(x), _K(y));
        }
        return points;
    }

    // The reader joins an open polyline to the previous one when its first point in the file
    // (the contour's last) equals the end of that one, and closes a chain whose end meets its
    // start. Both are legitimate reads of a file, so the generator keeps clear of them.
    void _AvoidJoins(std::vector<M2DSlicePoint>& points, const M2DSlicePoint& lastEnd) const
    {
        auto nudge = [this](M2DSlicePoint& p) { p.x = p.x / _step < _kMax ? p.x + _step : p.x - _step; };
        if (points.back() == lastEnd)
            nudge(points.back());
        if (points.size() >= 2 && points.front() == points.back())
            nudge(points.front());
    }

    // What a reader makes of a written contour. The file holds its points in reverse order, a
    // closed one starting at its last point and repeating it at the end; the reader turns each
    // finished contour back, so a closed contour reads as last, first, ..., last. Its outer flag
    // comes from the sign of its area.
    void _Expect(ExpectedContour& expected, const std::vector<M2DSlicePoint>& points, M2DSlicePoint& lastEnd) const
    {
        if (!expected.Closed)
        {
            expected.Points = points;
            if (points.size() >= 2)
                lastEnd = points.front();
            return;
        }
        lastEnd = M2DSlicePoint(kUnset, kUnset);
        expected.Points.push_back(points.back());
        expected.Points.insert(expected.Points.end(), points.begin(), points.end());
        __int128 sum = 0;
        double largest = 0.0;
        for (std::size_t i = 0; i < points.size(); ++i)
        {
            const M2DSlicePoint& a = points[i];
            const M2DSlicePoint& b = points[(i + 1) % points.size()];
            sum += static_cast<__int128>(std::int64_t(a.y) + b.y) * (std::int64_t(b.x) - a.x);
            largest = std::max({largest, std::abs(double(a.x)), std::abs(double(a.y))});
        }
        // Every term and partial sum stays an integer below 2^53, so the reader's sum in
        // doubles is exact and its sign can be compared.
        if (4.0 * largest * largest * double(points.size() + 1) < 9007199254740992.0)
            expected.Outer = sum > 0 ? 1 : 0;
    }

    std::string _Check(const std::wstring& path, M2DSliceIO_cli::CoordinatesType form) const
    {
        const std::string name = form == M2DSliceIO_cli::Long ? "long form: " : "short form: ";
        auto writer = std::make_shared<M2DSliceIO_cli>();
        writer->SetCoordinatesType(form);
        writer->SetFileBufferSize(_bufferSize);
        std::shared_ptr<I2DSliceIO> io = writer;
        M2DSliceContainerIO driver(io);
        std::vector<const ISource2DSlices*> sources;
        for (const auto& stack : _stacks)
            sources.push_back(stack.get());
        const bool written = driver.WriteContainers(sources, path, MUnit::GetIE(), _inverseResolution, nullptr);
        if (written != _anySlice)
            return name + "WriteContainers returned " + (written ? "true" : "false");
        if (!written)
            return {};

        M2DSliceIO_cli reader;
        reader.SetFileBufferSize(_bufferSize);
        I2DSliceIO::ReadOptions options;
        options.VectorBlocks.MergeBlocks = false;
        reader.SetReadOptions(options);
        if (!reader.OpenFile(path, I2DSliceIO::Read) || !reader.ReadHeader(nullptr))
            return name + "the written file does not open";
        M2DSliceContainerIOProperties properties;
        reader.GetIoProperties(properties);
        if (properties.InverseResolution != _inverseResolution)
            return name + "inverse resolution " + std::to_string(properties.InverseResolution) + " read back as " +
                   std::to_string(_inverseResolution);
        M2DSlice slice;
        std::size_t i = 0;
        for (; reader.ReadLayer(slice, nullptr, true); ++i)
        {
            if (i >= _layers.size())
                return name + "more layers read than written";
            std::string problem = _Compare(slice, _layers[i], form);
            if (!problem.empty())
                return name + "layer " + std::to_string(i) + ": " + problem;
        }
        if (i != _layers.size())
            return name + std::to_string(i) + " layers read, " + std::to_string(_layers.size()) + " written";
        if (i > 0 && reader.GetCoordinatesType() != form)
            return name + "the reader did not take the coordinates type from the layers";
        if (!reader.ReadFooter(nullptr) || !reader.CloseFile())
            return name + "footer or closing failed";
        return {};
    }

    static std::string _Compare(const M2DSlice& slice, const ExpectedLayer& layer, M2DSliceIO_cli::CoordinatesType form)
    {
        if (slice.GetZ() != layer.Z)
            return "height " + std::to_string(slice.GetZ()) + ", expected " + std::to_string(layer.Z);
        M2DSliceXYArea box;
        const M2DSliceContourLayer& border = *slice.GetSliceBorder();
        if (border.GetNumContours() != layer.Contours.size())
            return std::to_string(border.GetNumContours()) + " contours, expected " +
                   std::to_string(layer.Contours.size());
        for (std::size_t c = 0; c < layer.Contours.size(); ++c)
        {
            const M2DSliceContour& contour = *border.GetContour(c);
            const ExpectedContour& expected = layer.Contours[c];
            const std::string where = "contour " + std::to_string(c) + ": ";
            if (contour.GetIsClosed() != expected.Closed)
                return where + "closed flag";
            if (expected.Outer >= 0 && contour.GetIsOuterContour() != (expected.Outer == 1))
                return where + "outer flag";
            M2DSliceVectorTypeInfo label(e2DSliceVectorType_Border);
            label.SetIndex(e2DSliceVectorTypeIndex_Part, expected.Id);
            if (contour.GetTypeInfo() != label)
                return where + "label";
            if (contour.GetNumPoints() != expected.Points.size())
                return where + std::to_string(contour.GetNumPoints()) + " points, expected " +
                       std::to_string(expected.Points.size());
            std::size_t p = 0;
            for (const auto& point : contour)
            {
                if (point.x != expected.Points[p].x || point.y != expected.Points[p].y)
                    return where + "point " + std::to_string(p);
                box.Extend(point.x, point.y);
                ++p;
            }
        }

        // The short form holds at most 65,535 vectors in a record; a longer block comes back as
        // several blocks with the same id.
        const std::size_t limit = form == M2DSliceIO_cli::Short ? 65535 : SIZE_MAX;
        std::vector<ExpectedBlock> blocks;
        for (const ExpectedBlock& block : layer.Blocks)
            for (std::size_t first = 0; first < block.Vectors.size(); first += limit)
            {
                const auto begin = block.Vectors.begin() + static_cast<std::ptrdiff_t>(first);
                const auto count = std::min(limit, block.Vectors.size() - first);
                blocks.push_back({{begin, begin + static_cast<std::ptrdiff_t>(count)}, block.Id});
            }
        const M2DSliceVectorLayer& vectors = *slice.GetVectors();
        if (vectors.GetNumVectorBlocks() != blocks.size())
            return std::to_string(vectors.GetNumVectorBlocks()) + " vector blocks, expected " +
                   std::to_string(blocks.size());
        for (std::size_t b = 0; b < blocks.size(); ++b)
        {
            const M2DSliceVectorBlock& block = *vectors.GetVectorBlock(b);
            M2DSliceVectorTypeInfo label(e2DSliceVectorType_Hatch);
            label.SetIndex(e2DSliceVectorTypeIndex_Part, blocks[b].Id);
            if (block.GetTypeInfo() != label)
                return "block " + std::to_string(b) + ": label";
            if (block.Vectors != blocks[b].Vectors)
                return "block " + std::to_string(b) + ": vectors differ";
            for (const M2DSliceVector& v : block.Vectors)
            {
                box.Extend(v.x1, v.y1);
                box.Extend(v.x2, v.y2);
            }
        }
        if (slice.GetXYArea(false) != box)
            return "bounds differ from the geometry read";
        return {};
    }

    std::int32_t _inverseResolution = 1;
    std::int32_t _step = 1;
    bool _shortSafe = false;
    std::uint64_t _bufferSize = 4096;
    std::int64_t _kMin = 0;
    std::int64_t _kMax = 0;
    bool _anySlice = false;
    bool _bigBlock = false;
    std::vector<std::unique_ptr<M2DSliceStack>> _stacks;
    std::vector<ExpectedLayer> _layers;
};

inline std::string RunRoundTripInput(const std::wstring& path, const std::uint8_t* data, std::size_t size)
{
    ByteReader in(data, size);
    return RoundTripCase(in).Run(path);
}

} // namespace SliceIOFuzz
