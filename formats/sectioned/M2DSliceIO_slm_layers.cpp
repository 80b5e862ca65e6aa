// Layers of an SLM file: vector blocks cut into polygon and hatch sections on writing, the
// seek table walked on reading, entries of one height joined into one slice.
#include <fmt/format.h>

#include <cmath>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "../../framework/ConvertKernels.h"
#include "M2DSliceIO_slm.h"

using namespace Sectioned;

namespace {

bool IsHatchType(e2DSliceVectorType type) { return type == 6 || type == 7 || type == 8; }
bool IsPolygonType(e2DSliceVectorType type) { return (type >= 1 && type <= 5) || (type >= 9 && type <= 11); }

std::uint64_t ModelIdOf(const M2DSliceVectorBlock& block)
{
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(block.GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Part)));
}
std::uint64_t StyleIdOf(const M2DSliceVectorBlock& block)
{
    return static_cast<std::uint64_t>(
        static_cast<std::int64_t>(block.GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Parameter)));
}

// The build-order rule of SLM: does a block match an order entry?
bool MatchesOrder(const M2DSliceVectorTypeInfo& order, const M2DSliceVectorTypeInfo& block)
{
    const bool zero = order.GetIndex(6) == 0 && block.GetIndex(6) == 0;
    const bool unset = order.GetIndex(6) == -1 && block.GetIndex(6) == -1;
    const bool same8 = order.GetFlag(8) == block.GetFlag(8);
    if (order.GetFlag(1))
        return block.GetFlag(1);
    const bool order9 = order.GetFlag(9), block9 = block.GetFlag(9);
    if (order9 && block9)
        return same8 && (zero || unset);
    if (!order9 && !block9)
    {
        auto plain = [](const M2DSliceVectorTypeInfo& i) {
            return !i.GetFlag(1) && !i.GetFlag(2) && !i.GetFlag(3) && !i.GetFlag(8);
        };
        return (plain(order) && plain(block) && unset) || (order.GetFlag(3) && block.GetFlag(3) && same8) ||
               (order.GetFlag(2) && block.GetFlag(2)) || zero;
    }
    return false;
}

// A coordinate as the file holds it: millimetres (file units) as a float.
inline float FileValue(std::int32_t v, double factor) { return static_cast<float>(static_cast<double>(v) / factor); }

// n vectors as hatch floats: start x, start y, end x, end y, each coordinate divided by the
// factor as a double and narrowed to a float. Two lanes at a time where SSE2 is there, with
// the same IEEE division and rounding as the scalar code.
void HatchFloats(const M2DSliceVector* v, std::size_t n, double factor, unsigned char* out)
{
    std::size_t i = 0;
#if defined(__SSE2__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    static_assert(sizeof(M2DSliceVector) == 16, "x1, x2, y1, y2 as four ints");
    const __m128d f = _mm_set1_pd(factor);
    for (; i < n; ++i, out += 16)
    {
        const __m128i xy = _mm_loadu_si128(reinterpret_cast<const __m128i*>(v + i)); // x1 x2 y1 y2
        const __m128 x = _mm_cvtpd_ps(_mm_div_pd(_mm_cvtepi32_pd(xy), f));                  // x1 x2
        const __m128 y = _mm_cvtpd_ps(_mm_div_pd(_mm_cvtepi32_pd(_mm_srli_si128(xy, 8)), f)); // y1 y2
        _mm_storeu_ps(reinterpret_cast<float*>(out), _mm_unpacklo_ps(x, y));                // x1 y1 x2 y2
    }
#endif
    for (; i < n; ++i, out += 16)
    {
        ByteOrder::StoreLE<float>(out, FileValue(v[i].x1, factor));
        ByteOrder::StoreLE<float>(out + 4, FileValue(v[i].y1, factor));
        ByteOrder::StoreLE<float>(out + 8, FileValue(v[i].x2, factor));
        ByteOrder::StoreLE<float>(out + 12, FileValue(v[i].y2, factor));
    }
}

} // namespace

// ------------------------------------------------------------------ writing

void M2DSliceIO_sectioned::_ExtractBlock(const M2DSliceVectorBlock& block, std::vector<VectorBlockExtract>& extracts) const
{
    const M2DSliceVectorTypeInfo& info = block.GetTypeInfo();
    const auto n = static_cast<std::int64_t>(block.Vectors.size());
    bool hatch = IsHatchType(info.GetType()) || info.GetIndex(e2DSliceVectorTypeIndex_Parameter) == 19;
    bool polygon = !hatch && IsPolygonType(info.GetType());
    if (!hatch && !polygon && _inferKindless)
    {
        const M2DSliceVector* v = block.Vectors.data();
        std::int64_t i = 1;
        while (i < n && v[i].x1 == v[i - 1].x2 && v[i].y1 == v[i - 1].y2)
            ++i;
        polygon = i >= n;
        hatch = !polygon;
    }
    if (hatch)
        extracts.push_back({&block, false, 0, n});
    else if (polygon)
    {
        // A chain ends where a vector does not start at the end of the one before.
        const M2DSliceVector* v = block.Vectors.data();
        std::int64_t first = 0;
        for (std::int64_t i = 1; i < n; ++i)
            if (v[i].x1 != v[i - 1].x2 || v[i].y1 != v[i - 1].y2)
            {
                extracts.push_back({&block, true, first, i});
                first = i;
            }
        extracts.push_back({&block, true, first, n});
    }
}

void M2DSliceIO_sectioned::_ExtractBlocks(const M2DSlice& slice, std::vector<VectorBlockExtract>& extracts) const
{
    for (const M2DSliceVectorBlock* block = slice.GetVectors()->GetFirstVectorBlock(); block;
         block = block->GetNextVectorBlock())
        _ExtractBlock(*block, extracts);
}

void M2DSliceIO_sectioned::_ExtractContours(const M2DSlice& slice, std::vector<VectorBlockExtract>& extracts)
{
    for (const M2DSliceContour* contour = slice.GetSliceBorder()->GetFirstContour(); contour;
         contour = contour->GetNextContour())
    {
        const std::uint32_t n = contour->GetNumPoints();
        if (n < 2)
            continue;
        auto block = std::make_unique<M2DSliceVectorBlock>();
        M2DSliceVectorTypeInfo label = contour->GetTypeInfo();
        if (!IsPolygonType(label.GetType()))
            label.SetType(e2DSliceVectorType_Border);
        block->SetTypeInfo(label);
        block->Vectors.reserve(n);
        const M2DSliceContourPoint* p = contour->GetFirstPoint();
        for (std::uint32_t i = 1; i < n; ++i, p = p->GetNextPoint())
            block->Vectors.emplace_back(p->x, p->y, p->GetNextPoint()->x, p->GetNextPoint()->y);
        if (contour->GetIsClosed())
            block->Vectors.emplace_back(p->x, p->y, contour->GetFirstPoint()->x, contour->GetFirstPoint()->y);
        const auto count = static_cast<std::int64_t>(block->Vectors.size());
        extracts.push_back({block.get(), true, 0, count});
        _contourBlocks.push_back(std::move(block));
    }
}

void M2DSliceIO_sectioned::_SortVectorsForBuildOrder(std::vector<VectorBlockExtract>& extracts) const
{
    if (_buildOrder.empty())
        return;
    std::vector<VectorBlockExtract> result;
    result.reserve(extracts.size());
    std::vector<bool> taken(extracts.size(), false);
    for (const M2DSliceVectorTypeInfo& order : _buildOrder)
        for (std::size_t i = 0; i < extracts.size(); ++i)
        {
            const M2DSliceVectorTypeInfo& info = extracts[i].Block->GetTypeInfo();
            if (!taken[i] && info.GetType() == order.GetType() && _MatchesBuildOrder(order, info))
            {
                result.push_back(extracts[i]);
                taken[i] = true;
            }
        }
    for (std::size_t i = 0; i < extracts.size(); ++i)
        if (!taken[i])
            result.push_back(extracts[i]);
    extracts.swap(result);
}

bool M2DSliceIO_sectioned::_MatchesBuildOrder(const M2DSliceVectorTypeInfo& order,
                                              const M2DSliceVectorTypeInfo& block) const
{
    return MatchesOrder(order, block);
}

void M2DSliceIO_sectioned::_FilterEmptyVectorBlock(std::vector<VectorBlockExtract>& extracts)
{
    std::size_t kept = 0;
    for (const VectorBlockExtract& e : extracts)
        if (!e.Block->Vectors.empty())
            extracts[kept++] = e;
    extracts.resize(kept);
}

void M2DSliceIO_sectioned::_GetTypeOrderVectorSorting(const M2DSlice& slice, std::vector<M2DSliceVectorTypeInfo>& types) const
{
    types.clear();
    bool support = false;
    for (const M2DSliceVectorBlock* block = slice.GetVectors()->GetFirstVectorBlock(); block;
         block = block->GetNextVectorBlock())
    {
        const M2DSliceVectorTypeInfo& info = block->GetTypeInfo();
        if (info.GetIndex(e2DSliceVectorTypeIndex_Parameter) == 19)
        {
            support = true;
            continue;
        }
        bool seen = false;
        for (const auto& t : types)
            seen = seen || t.GetType() == info.GetType();
        if (!seen)
            types.push_back(M2DSliceVectorTypeInfo(info.GetType()));
    }
    if (support)
    {
        M2DSliceVectorTypeInfo supports;
        supports.SetIndex(e2DSliceVectorTypeIndex_Parameter, 19);
        types.insert(_supportsFirst ? types.begin() : types.end(), supports);
    }
}

std::int64_t M2DSliceIO_sectioned::_CalcVectorBlockSectionSize(const VectorBlockExtract& extract) const
{
    const M2DSliceVectorBlock& block = *extract.Block;
    const std::int64_t n = extract.EndVector - extract.FirstVector;
    const std::uint64_t model = ModelIdOf(block), style = StyleIdOf(block);
    const std::int64_t ids = SectionSize(Id_BlockIds, LFSize(model) + LFSize(style));
    if (!extract.IsPolygon)
        return ids + SectionSize(Id_HatchCoordinates, n * 16);
    const std::int64_t coordinates = SectionSize(Id_PolygonCoordinates, n * 8 + 8);
    if (!_extraStyleBlocks || !block.GetTypeInfo().GetFlag(4))
        return ids + coordinates;
    std::int64_t size = IntegerSectionSize(Id_BlockModelId, model) + IntegerSectionSize(Id_BuildStyleId, style) +
                        coordinates;
    if (const BuildStyle* found = _FindWrittenBuildStyle(static_cast<std::int64_t>(model), static_cast<std::int64_t>(style)))
        size += _CalcExtraBuildStyleSectionSize(*found, true);
    return size;
}

bool M2DSliceIO_sectioned::_WritePolygonSection(const VectorBlockExtract& extract, std::int64_t size, SectionBuffer& out) const
{
    const M2DSliceVectorBlock& block = *extract.Block;
    const std::uint64_t model = ModelIdOf(block), style = StyleIdOf(block);
    out.Head(Id_PolygonBlock, size);
    const std::size_t start = out.Size();
    if (!_extraStyleBlocks || !block.GetTypeInfo().GetFlag(4))
    {
        out.Head(Id_BlockIds, LFSize(model) + LFSize(style));
        out.LF(model);
        out.LF(style);
    }
    else
    {
        out.Integer(Id_BlockModelId, model);
        out.Integer(Id_BuildStyleId, style);
        if (const BuildStyle* found = _FindWrittenBuildStyle(static_cast<std::int64_t>(model), static_cast<std::int64_t>(style)))
            _WriteExtraBuildStyleSection(*found, out);
    }
    const std::int64_t n = extract.EndVector - extract.FirstVector;
    out.Head(Id_PolygonCoordinates, n * 8 + 8);
    const double factor = _GetConversionFactor();
    std::vector<unsigned char>& bytes = out.Bytes();
    std::size_t at = bytes.size();
    bytes.resize(at + static_cast<std::size_t>(n * 8 + 8));
    unsigned char* p = bytes.data() + at;
    const M2DSliceVector* v = block.Vectors.data() + extract.FirstVector;
    ByteOrder::StoreLE<float>(p, FileValue(v[0].x1, factor));
    ByteOrder::StoreLE<float>(p + 4, FileValue(v[0].y1, factor));
    p += 8;
    for (std::int64_t i = 0; i < n; ++i, p += 8)
    {
        ByteOrder::StoreLE<float>(p, FileValue(v[i].x2, factor));
        ByteOrder::StoreLE<float>(p + 4, FileValue(v[i].y2, factor));
    }
    return out.Ok() && static_cast<std::int64_t>(out.Size() - start) == size;
}

bool M2DSliceIO_sectioned::_WriteHatchSection(const VectorBlockExtract& extract, std::int64_t size, SectionBuffer& out) const
{
    const M2DSliceVectorBlock& block = *extract.Block;
    const std::uint64_t model = ModelIdOf(block), style = StyleIdOf(block);
    out.Head(Id_HatchBlock, size);
    const std::size_t start = out.Size();
    out.Head(Id_BlockIds, LFSize(model) + LFSize(style));
    out.LF(model);
    out.LF(style);
    const std::int64_t n = extract.EndVector - extract.FirstVector;
    out.Head(Id_HatchCoordinates, n * 16);
    const double factor = _GetConversionFactor();
    std::vector<unsigned char>& bytes = out.Bytes();
    const std::size_t at = bytes.size();
    bytes.resize(at + static_cast<std::size_t>(n * 16));
    unsigned char* p = bytes.data() + at;
    HatchFloats(block.Vectors.data() + extract.FirstVector, static_cast<std::size_t>(n), factor, p);
    return out.Ok() && static_cast<std::int64_t>(out.Size() - start) == size;
}

void M2DSliceIO_sectioned::_CollectExtracts(const std::vector<const M2DSlice*>& slices,
                                            std::vector<VectorBlockExtract>& extracts)
{
    std::vector<VectorBlockExtract> own;
    for (const M2DSlice* slice : slices)
    {
        own.clear();
        if (_contoursAsPolygons)
            _ExtractContours(*slice, own);
        _ExtractBlocks(*slice, own);
        _SortVectorsForBuildOrder(own);
        extracts.insert(extracts.end(), own.begin(), own.end());
    }
}

bool M2DSliceIO_sectioned::_WriteLayerSection(const std::vector<const M2DSlice*>& slices)
{
    std::vector<VectorBlockExtract> extracts;
    _contourBlocks.clear();
    _CollectExtracts(slices, extracts);
    _FilterEmptyVectorBlock(extracts);
    if (_writeOrder == WriteOrderByBuildOrder && slices.size() >= 2)
        _SortVectorsForBuildOrder(extracts);

    std::vector<std::int64_t> sizes(extracts.size());
    std::int64_t total = 0;
    for (std::size_t i = 0; i < extracts.size(); ++i)
    {
        sizes[i] = _CalcVectorBlockSectionSize(extracts[i]);
        total += SectionSize(extracts[i].IsPolygon ? Id_PolygonBlock : Id_HatchBlock, sizes[i]);
    }
    _layerBytes.clear();
    _layerBytes.reserve(static_cast<std::size_t>(total) + 2 * kMaxLFSize);
    SectionBuffer out(_layerBytes);
    out.Head(Id_Layer, total);
    for (std::size_t i = 0; i < extracts.size(); ++i)
    {
        const bool ok = extracts[i].IsPolygon ? _WritePolygonSection(extracts[i], sizes[i], out)
                                              : _WriteHatchSection(extracts[i], sizes[i], out);
        if (!ok)
            return _Fail(out.Ok() ? "a block section came out at another size than computed"
                                  : "a block's model or build style id is negative or too large");
    }
    if (!_Emit(_layerBytes))
        return _Fail("writing a layer failed");
    return true;
}

bool M2DSliceIO_sectioned::_WriteLayer(const std::vector<const ISource2DSlices*>& /*sources*/, std::int32_t /*z*/,
                                       const M2DSliceConstDataItems& items)
{
    std::vector<const M2DSlice*> slices, first, second;
    _GetSlicesFromItems(items, slices);
    if (slices.empty())
        return true;
    // Slices whose first block is marked as a second pass go into a second layer section.
    for (const M2DSlice* slice : slices)
    {
        const M2DSliceVectorBlock* block = slice->GetVectors()->GetFirstVectorBlock();
        (_secondPass && block && block->GetTypeInfo().GetFlag(8) ? second : first).push_back(slice);
    }
    const double z = static_cast<double>(slices.front()->GetZ()) / _GetConversionFactor();
    if (z < 0)
        return true;
    SeekTableEntry entry{_file.TELL(), z};
    if (!_WriteLayerSection(first))
        return false;
    _seekEntries.push_back(entry);
    if (!second.empty())
    {
        entry.Position = _file.TELL();
        if (!_WriteLayerSection(second))
            return false;
        _seekEntries.push_back(entry);
    }
    return true;
}

// ------------------------------------------------------------------ reading

namespace {

// n raw floats to out[i] = value * c truncated toward zero, as a double; values beyond the
// int range (and NaN, as 0) are held at its ends.
inline int Truncated(double v)
{
    // Selects rather than branches, so that a loop of these can run in vector registers.
    v = v == v ? v : 0.0;
    v = v < -2147483648.0 ? -2147483648.0 : v;
    v = v > 2147483647.0 ? 2147483647.0 : v;
    return static_cast<int>(v);
}

void TruncatedValues(const unsigned char* raw, std::size_t n, double c, int* out)
{
    for (std::size_t i = 0; i < n; ++i)
        out[i] = Truncated(static_cast<double>(ByteOrder::LoadLE<float>(raw + 4 * i)) * c);
}

// The box of n float vectors in internal units by truncation, from the extreme raw values
// alone, which truncation keeps in order; false with a NaN or a factor that is not positive.
bool TruncatedBox(const unsigned char* raw, std::size_t n, double c, M2DSliceXYArea& box)
{
    if (n == 0 || !(c > 0.0))
        return false;
    float lo[2] = {ByteOrder::LoadLE<float>(raw), ByteOrder::LoadLE<float>(raw + 4)};
    float hi[2] = {lo[0], lo[1]};
    bool unordered = false;
    for (std::size_t j = 0; j < 2 * n; ++j)
        for (int k = 0; k < 2; ++k)
        {
            const float v = ByteOrder::LoadLE<float>(raw + 8 * j + 4 * k);
            unordered |= v != v;
            lo[k] = v < lo[k] ? v : lo[k];
            hi[k] = v > hi[k] ? v : hi[k];
        }
    if (unordered)
        return false;
    box.Clear();
    box.Extend(Truncated(static_cast<double>(lo[0]) * c), Truncated(static_cast<double>(lo[1]) * c));
    box.Extend(Truncated(static_cast<double>(hi[0]) * c), Truncated(static_cast<double>(hi[1]) * c));
    return true;
}

// The body of a seek table entry: the layer's position and z.
bool ReadSeekTableEntry(ByteCursor body, std::int64_t& position, std::int64_t& z)
{
    SectionHeader head;
    ByteCursor field;
    while (!body.AtEnd())
    {
        if (!ReadSection(body, head, field))
            return false;
        if (head.Id == Id_LayerPosition && !LoadInteger(field, position))
            return false;
        if (head.Id == Id_LayerZ && !LoadInteger(field, z))
            return false;
    }
    return true;
}

} // namespace

M2DSliceVectorTypeInfo M2DSliceIO_sectioned::_BlockLabel(const M2DMTTVectorBlock& block) const
{
    M2DSliceVectorTypeInfo label(_GetVectorTypeFromBuildStyleId(block.StyleId));
    label.SetIndex(e2DSliceVectorTypeIndex_Parameter, block.ParameterId);
    label.SetIndex(e2DSliceVectorTypeIndex_Part, static_cast<std::int32_t>(block.ModelId));
    label.SetIndex(1, block.PropertyIndex);
    label.SetFlag(8, block.BlockKind >= 2);
    _AddVectorTypeInfo(block.StyleId, label);
    return label;
}

void M2DSliceIO_sectioned::_AddNewPolygon(ILayerInput& input, const M2DMTTVectorBlock& block)
{
    if ((block.BlockKind != 0 && block.BlockKind != 2) || block.NumFloats == 0)
        return;
    // Points x, y; the segments between successive points.
    const std::size_t points = block.NumFloats / 2;
    _points.resize(2 * points);
    if (_truncateCoordinates)
        TruncatedValues(block.Coordinates, 2 * points, _GetConversionFactor(), _points.data());
    else
        ConvertKernels::ConvertValues(block.Coordinates, 2 * points, ConvertKernels::RawKind::FloatLE,
                                      _GetConversionFactor(), _points.data());
    _polygonVectors.clear();
    for (std::size_t i = 1; i < points; ++i)
        _polygonVectors.emplace_back(_points[2 * i - 2], _points[2 * i - 1], _points[2 * i], _points[2 * i + 1]);
    input.StartVectorBlock(_BlockLabel(block), _polygonVectors.size());
    input.AddVectors(_polygonVectors.data(), _polygonVectors.size());
    input.EndVectorBlock(false);
}

void M2DSliceIO_sectioned::_AddNewVectorBlock(ILayerInput& input, const M2DMTTVectorBlock& block)
{
    if ((block.BlockKind != 1 && block.BlockKind != 3) || block.NumFloats == 0)
        return;
    // Four floats a vector; a partial vector at the end is not read.
    const std::size_t n = block.NumFloats / 4;
    input.StartVectorBlock(_BlockLabel(block), n);
    M2DSliceXYArea box;
    if (_truncateCoordinates && input.MeasuresOnly() && TruncatedBox(block.Coordinates, n, _GetConversionFactor(), box))
        input.AddVectorsArea(box, n);
    else if (_truncateCoordinates)
    {
        // A chunk at a time, so that a long run needs no more memory than a short one.
        _points.resize(4 * std::min(n, ConvertKernels::kVectorChunk));
        for (std::size_t done = 0; done < n;)
        {
            const std::size_t m = std::min(n - done, ConvertKernels::kVectorChunk);
            TruncatedValues(block.Coordinates + 16 * done, 4 * m, _GetConversionFactor(), _points.data());
            _polygonVectors.clear();
            for (std::size_t i = 0; i < m; ++i)
                _polygonVectors.emplace_back(_points[4 * i], _points[4 * i + 1], _points[4 * i + 2], _points[4 * i + 3]);
            input.AddVectors(_polygonVectors.data(), m);
            done += m;
        }
    }
    else
        ConvertKernels::AddVectorRun(input, block.Coordinates, n, ConvertKernels::RawKind::FloatLE,
                                     _GetConversionFactor());
    input.EndVectorBlock(false);
}

bool M2DSliceIO_sectioned::_LoadBlock(ByteCursor body, M2DMTTVectorBlock& block, bool polygon)
{
    SectionHeader head;
    ByteCursor field;
    while (!body.AtEnd())
    {
        if (!ReadSection(body, head, field))
            return _Fail("block section cut short");
        switch (head.Id)
        {
        case Id_BuildStyleId:
            if (!LoadInteger(field, block.StyleId))
                return _Fail("build style id section too short");
            block.HasStyleId = true;
            if (block.HasModelId)
                _FindBuildProperties(block);
            break;
        case Id_BlockIds:
            if (!DecodeLF(field, block.ModelId) || !DecodeLF(field, block.StyleId))
                return _Fail("block ids section too short");
            block.HasModelId = block.HasStyleId = true;
            _FindBuildProperties(block);
            break;
        case Id_PolygonCoordinates:
        case Id_HatchCoordinates:
            if ((head.Id == Id_PolygonCoordinates) == polygon)
            {
                block.Coordinates = field.Data();
                block.NumFloats = field.Remaining() / 4;
            }
            break;
        case Id_ExtraBuildStyle:
            if (!_LoadBuildParameterSection(block, field))
                return false;
            break;
        case Id_BlockModelId:
        {
            // A hatch reads the model id of this section and drops it.
            std::int64_t model = 0;
            if (!LoadInteger(field, model))
                return _Fail("block model id section too short");
            if (polygon)
            {
                block.ModelId = model;
                block.HasModelId = true;
            }
            if (block.HasStyleId)
                _FindBuildProperties(block);
            break;
        }
        default:
            break;
        }
    }
    return true;
}

bool M2DSliceIO_sectioned::_LoadLayer(ByteCursor body, ILayerInput& input, bool second)
{
    SectionHeader head;
    ByteCursor field;
    while (!body.AtEnd())
    {
        if (!ReadSection(body, head, field))
            return _Fail("layer section cut short");
        if (head.Id != Id_PolygonBlock && head.Id != Id_HatchBlock)
            continue;
        const bool polygon = head.Id == Id_PolygonBlock;
        M2DMTTVectorBlock block;
        block.BlockKind = (polygon ? 0 : 1) + (second ? 2 : 0);
        if (!_LoadBlock(field, block, polygon))
            return false;
        if (polygon)
            _AddNewPolygon(input, block);
        else
            _AddNewVectorBlock(input, block);
    }
    return true;
}

bool M2DSliceIO_sectioned::_FetchLayer(ILayerInput& input, ITarget2DSlices* target)
{
    PersistentProperties* properties = target ? target->GetProperties() : nullptr;
    auto* list = properties ? properties->AddProperty<IndexedProperties<PersistentProperties>>(L"SLMBuildStyles") : nullptr;
    _buildStyleList = list ? &list->GetValueUpdate() : nullptr;

    // One entry of the seek table; false at the table's end, and false with failed set when
    // the entry is damaged (with a reason unless only peeking at the next entry).
    auto readEntry = [&](std::int64_t& position, std::int64_t& z, bool& failed, bool peek) {
        failed = false;
        const std::int64_t at = _file.TELL();
        if (at >= _seekTableEnd)
            return false;
        auto damaged = [&](const std::string& reason) {
            failed = true;
            return peek ? false : _FailAt(reason, at);
        };
        SectionHeader head;
        ByteCursor body;
        if (!ReadHead(_file, head) || head.Size < 0 || _file.TELL() + head.Size > _seekTableEnd)
            return damaged("seek table entry runs past the seek table");
        if (head.Id != Id_SeekTableEntry)
            return damaged(fmt::format("section {} inside the seek table", head.Id));
        if (!ReadRecord(_file, static_cast<std::size_t>(head.Size), _recordStorage, body) ||
            !ReadSeekTableEntry(body, position, z))
            return damaged("seek table entry cut short");
        if (z < INT32_MIN || z > INT32_MAX)
            return damaged(fmt::format("layer height {} out of range", z));
        ++_entriesRead;
        return true;
    };

    std::int64_t position = 0, z = 0;
    bool failed = false;
    if (!readEntry(position, z, failed, false))
        return false;
    std::int64_t remembered = _file.TELL();
    const std::int64_t firstZ = z;
    const std::int64_t fileSize = _file.GET_SIZE();
    bool second = false;
    for (;;)
    {
        input.SetZ(static_cast<std::int32_t>(firstZ));
        SectionHeader head;
        ByteCursor body;
        if (position < 0 || position >= fileSize || !_file.SEEK(position, 0) || !ReadHead(_file, head))
            return _Fail(fmt::format("layer position {} outside the file", position));
        if (head.Id == Id_Layer)
        {
            if (head.Size < 0 || !ReadRecord(_file, static_cast<std::size_t>(head.Size), _recordStorage, body))
                return _FailAt(fmt::format("layer of {} bytes is larger than the file", head.Size), position);
            if (!_LoadLayer(body, input, second))
                return false;
        }
        if (!_file.SEEK(remembered, 0))
            return _Fail("cannot seek back to the seek table");
        // Further entries of the same height belong to this slice; a damaged one is left for
        // the next call to report.
        if (!_secondPass || !readEntry(position, z, failed, true))
            break;
        if (z != firstZ)
        {
            --_entriesRead;
            break;
        }
        remembered = _file.TELL();
        second = true;
    }
    if (!_file.SEEK(remembered, 0))
        return _Fail("cannot seek back to the seek table");
    return true;
}

bool M2DSliceIO_sectioned::_ReadLayer(M2DSlice& slice, ITarget2DSlices* target, bool /*readVectors*/)
{
    M2DSliceContainerScanInfo info;
    {
        MLayerReader reader(slice, info);
        if (!_FetchLayer(reader, target))
            return false;
    }
    _ExtendSliceArea(slice, info.Area);
    slice.SetZ(info.Z);
    return true;
}

bool M2DSliceIO_sectioned::_ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* target, bool /*readVectors*/)
{
    MLayerScanner scanner(info);
    const bool ok = _FetchLayer(scanner, target);
    if (!ok && !_failureReason.empty())
        _scanFailed = true;
    return ok;
}
