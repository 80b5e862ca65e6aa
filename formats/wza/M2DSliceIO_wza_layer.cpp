// WZA layer records: tagged scan parameters and vectors per part, both ways, and the mapping
// of WZA type codes to vector types.
#include <algorithm>
#include <cctype>
#include <cstring>

#include <fmt/format.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "../../contracts/ByteOrder.h"
#include "../../contracts/M2DSliceBuildParameters.h"
#include "../../contracts/PersistentProperties.h"
#include "M2DSliceIO_wza.h"

namespace {

// Tags of the scan parameters and vector runs.
constexpr unsigned char kTagTypeCode = 'G';
constexpr unsigned char kTagSpeed = 'S';
constexpr unsigned char kTagPower = 'P';
constexpr unsigned char kTagDiameter = 'F';
constexpr unsigned char kTagPulsing = 'E';
constexpr unsigned char kTagDuration = 'O';
constexpr unsigned char kTagPeriod = 'K';
constexpr unsigned char kTagVectorDelay = 'L';
constexpr unsigned char kTagEntityDelay = 'W';
constexpr unsigned char kTagContinue = 'C';
constexpr unsigned char kTagHatches = 'H';
constexpr unsigned char kTagPath = 'M';

// Codes whose repeated group shrinks to the tag C.
bool MayContinue(unsigned code)
{
    return code == 2000 || code == 12000 || code == 22000 || code == 102000 || code == 142000;
}

struct BlockBytes
{
    std::vector<unsigned char>& bytes;
    template <class T>
    void LE(T value)
    {
        const std::size_t at = bytes.size();
        bytes.resize(at + sizeof(T));
        ByteOrder::StoreLE<T>(bytes.data() + at, value);
    }
    void Tag(unsigned char tag) { bytes.push_back(tag); }
};

// Vectors converted per chunk while reading.
constexpr std::size_t kChunkVectors = 4096;

#if defined(__SSE2__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define WZA_SSE2 1
inline __m128i Min32(__m128i a, __m128i b)
{
    const __m128i greater = _mm_cmpgt_epi32(a, b);
    return _mm_or_si128(_mm_and_si128(greater, b), _mm_andnot_si128(greater, a));
}
inline __m128i Max32(__m128i a, __m128i b)
{
    const __m128i greater = _mm_cmpgt_epi32(a, b);
    return _mm_or_si128(_mm_and_si128(greater, a), _mm_andnot_si128(greater, b));
}
#endif

// n runs of four floats x1, y1, x2, y2 (millimetres) to vectors in internal units: the float
// product truncated toward zero, 0x80000000 where it does not fit; with their box.
void ConvertHatches(const unsigned char* raw, std::size_t n, float factor, M2DSliceVector* out, M2DSliceXYArea& box)
{
    std::size_t i = 0;
#ifdef WZA_SSE2
    if (n > 0)
    {
        const __m128 f = _mm_set1_ps(factor);
        __m128i low = _mm_set1_epi32(INT32_MAX), high = _mm_set1_epi32(INT32_MIN);
        for (; i < n; ++i)
        {
            const __m128i v = _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(reinterpret_cast<const float*>(raw + 16 * i)), f));
            const __m128i ordered = _mm_shuffle_epi32(v, _MM_SHUFFLE(3, 1, 2, 0)); // x1, x2, y1, y2
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), ordered);
            low = Min32(low, ordered);
            high = Max32(high, ordered);
        }
        alignas(16) std::int32_t l[4], h[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(l), low);
        _mm_store_si128(reinterpret_cast<__m128i*>(h), high);
        box.Extend(std::min(l[0], l[1]), std::min(l[2], l[3]));
        box.Extend(std::max(h[0], h[1]), std::max(h[2], h[3]));
    }
#endif
    for (; i < n; ++i)
    {
        const unsigned char* p = raw + 16 * i;
        auto conv = [factor](float v) {
            const float product = v * factor;
            return product > -2147483904.0f && product < 2147483648.0f ? static_cast<int>(product) : INT32_MIN;
        };
        M2DSliceVector& v = out[i];
        v.x1 = conv(ByteOrder::LoadLE<float>(p));
        v.y1 = conv(ByteOrder::LoadLE<float>(p + 4));
        v.x2 = conv(ByteOrder::LoadLE<float>(p + 8));
        v.y2 = conv(ByteOrder::LoadLE<float>(p + 12));
        box.Extend(v.x1, v.y1);
        box.Extend(v.x2, v.y2);
    }
}

// The same the other way: n vectors to runs of four floats, each coordinate float(v) / factor.
void EncodeHatches(const M2DSliceVector* vectors, std::size_t n, float factor, unsigned char* out)
{
    std::size_t i = 0;
#ifdef WZA_SSE2
    const __m128 f = _mm_set1_ps(factor);
    for (; i < n; ++i)
    {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(vectors + i));
        const __m128i ordered = _mm_shuffle_epi32(v, _MM_SHUFFLE(3, 1, 2, 0)); // x1, y1, x2, y2
        _mm_storeu_ps(reinterpret_cast<float*>(out + 16 * i), _mm_div_ps(_mm_cvtepi32_ps(ordered), f));
    }
#endif
    for (; i < n; ++i)
    {
        unsigned char* p = out + 16 * i;
        ByteOrder::StoreLE<float>(p, static_cast<float>(vectors[i].x1) / factor);
        ByteOrder::StoreLE<float>(p + 4, static_cast<float>(vectors[i].y1) / factor);
        ByteOrder::StoreLE<float>(p + 8, static_cast<float>(vectors[i].x2) / factor);
        ByteOrder::StoreLE<float>(p + 12, static_cast<float>(vectors[i].y2) / factor);
    }
}

} // namespace

// ---------------------------------------------------------------- writing

unsigned M2DSliceIO_wza::_IterateContourType(unsigned code, std::int32_t index)
{
    if (code % 10 == 1)
        return code - 1 + static_cast<unsigned>(index);
    if (code == 141000 && index >= 0)
        return 141000 + static_cast<unsigned>(index);
    return code;
}

bool M2DSliceIO_wza::_ContainsShortVectors(const M2DSliceVectorBlock* block, const ScanValues& values) const
{
    if (values.VectorDelay == 0)
        return false;
    const double reach = values.VectorDelay * 0.01 * values.Speed;
    const double limit = reach * reach;
    for (const M2DSliceVector& v : block->Vectors)
    {
        const double dx = static_cast<double>(v.x2) - v.x1;
        const double dy = static_cast<double>(v.y2) - v.y1;
        if (dx * dx + dy * dy < limit)
            return true;
    }
    return false;
}

bool M2DSliceIO_wza::_IsJoinedPath(const M2DSliceVectorBlock* block) const
{
    const std::vector<M2DSliceVector>& v = block->Vectors;
    for (std::size_t i = 1; i < v.size(); ++i)
        if (v[i].x1 != v[i - 1].x2 || v[i].y1 != v[i - 1].y2)
            return false;
    return true;
}

bool M2DSliceIO_wza::_WriteLayer(const std::vector<const ISource2DSlices*>& /*sources*/, std::int32_t z,
                                 const M2DSliceConstDataItems& items)
{
    if (!_stream)
        return _Fail("the file is not open");
    std::vector<const M2DSlice*> slices;
    _GetSlicesFromItems(items, slices);
    bool seeksOk = true;

    // Layers skipped since the last one become empty records.
    const std::int64_t divisor = std::max<std::int64_t>(_sliceHeight, 1);
    const std::int64_t missing =
        (static_cast<std::int64_t>(z) - _sliceHeight - static_cast<std::int64_t>(_currentZ)) / divisor;
    if (missing > 0)
    {
        static const unsigned char kEmpty[7] = {'S', 'L', 'C', 0, 0, 0, 0};
        unsigned char run[7 * 256];
        for (std::size_t i = 0; i < 256; ++i)
            std::memcpy(run + 7 * i, kEmpty, 7);
        for (std::int64_t left = missing; left > 0;)
        {
            const std::int64_t n = std::min<std::int64_t>(left, 256);
            _Write(run, static_cast<std::size_t>(7 * n));
            left -= n;
            _layerCount += static_cast<unsigned>(n);
        }
    }

    _currentZ = z;
    _Write("SLC", 3);
    const std::int64_t bodyLengthAt = _TellFilePos();
    _WriteLE<std::uint32_t>(0);
    const std::int64_t bodyAt = _TellFilePos();
    if (bodyLengthAt < 0 || bodyAt < 0)
        return _Fail("the file position is not known");

    std::vector<const M2DSliceVectorBlock*> blocks;
    if (_sortOperator)
        _sortOperator->Sort(items.Slices, blocks);
    else
        for (const M2DSlice* slice : slices)
            for (const M2DSliceVectorBlock* b = slice->GetVectors()->GetFirstVectorBlock(); b;
                 b = b->GetNextVectorBlock())
                blocks.push_back(b);

    const bool extraTags = _machineTypeId != kMachineWithoutExtraTags;
    const bool pulsingTags = _version >= 3000 && extraTags;
    const bool delayTags = _version >= 4000 && extraTags;
    const int subpartIndexId = M2DSliceVectorTypeInfo::GetIndexID(WZA_SUBPART_INDEX.c_str());
    static const WZAPartStructure kNoPart;

    std::int32_t previousPart = -1;
    std::int64_t sectionLengthAt = -1, sectionAt = -1;
    ScanValues previous;
    std::int32_t previousPartId = 0, previousSubpart = 0;
    // Blocks are encoded straight into the write buffer.
    BlockBytes out{_out};

    auto closeSection = [&]() {
        const std::int64_t end = _TellFilePos();
        if (end < 0)
            return false;
        seeksOk = _Patch32(sectionLengthAt, static_cast<std::uint32_t>(end - sectionAt), end) && seeksOk;
        return true;
    };

    for (std::size_t index = 0; index < blocks.size(); ++index)
    {
        const M2DSliceVectorBlock* block = blocks[index];
        const M2DSliceVectorTypeInfo& info = block->GetTypeInfo();
        const std::int32_t part = info.GetIndex(e2DSliceVectorTypeIndex_Part);
        const std::int32_t subpart = info.GetIndex(subpartIndexId);

        if (part != previousPart)
        {
            if (previousPart != -1 && !closeSection())
                return _Fail("the file position is not known");
            _Write("WRZ", 3);
            _WriteLE<std::uint32_t>(static_cast<std::uint32_t>(part));
            sectionLengthAt = _TellFilePos();
            _WriteLE<std::uint32_t>(0);
            sectionAt = _TellFilePos();
            if (sectionLengthAt < 0 || sectionAt < 0)
                return _Fail("the file position is not known");
            previousPart = part;
        }
        const std::vector<M2DSliceVector>& vectors = block->Vectors;
        if (vectors.empty())
            continue;

        const WZAPartStructure* found = &kNoPart;
        for (const WZAPartStructure& p : _parts)
            if (p.Id == part && p.SubpartIndex == subpart)
            {
                found = &p;
                break;
            }
        const std::int32_t key = info.GetFlag(e2DSliceVectorTypeFlag_2) && _scanKeyFunction
                                     ? _scanKeyFunction(info)
                                     : info.GetIndex(e2DSliceVectorTypeIndex_Parameter);
        ScanValues values;
        const auto entry = found->ScanValuesByKey.find(key);
        if (entry != found->ScanValuesByKey.end())
            values = entry->second;
        values.TypeCode = _IterateContourType(values.TypeCode, info.GetIndex(e2DSliceVectorTypeIndex_4));
        if (!_ContainsShortVectors(block, values))
            values.VectorDelay = 0;
        if (values.TypeCode == previous.TypeCode)
            values.EntityDelay = 0;
        const bool same = index != 0 && values.CompareScanValues(previous) && found->Id == previousPartId &&
                          found->SubpartIndex == previousSubpart;

        if (same && MayContinue(values.TypeCode))
            out.Tag(kTagContinue);
        else
        {
            out.Tag(kTagTypeCode);
            out.LE<std::uint32_t>(values.TypeCode);
            out.Tag(kTagSpeed);
            out.LE<float>(values.Speed);
            out.Tag(kTagPower);
            out.LE<float>(values.Power);
            out.Tag(kTagDiameter);
            out.LE<float>(values.LaserDiameter);
            if (pulsingTags)
            {
                out.Tag(kTagPulsing);
                out.LE<std::uint8_t>(values.PulsingEnabled ? 1 : 0);
                if (values.PulsingEnabled)
                {
                    out.Tag(kTagDuration);
                    out.LE<std::uint32_t>(values.PulsingDuration);
                    out.Tag(kTagPeriod);
                    out.LE<std::uint32_t>(values.PulsingPeriod);
                }
            }
        }
        if (delayTags && values.TypeCode != 0)
        {
            if (!same || values.VectorDelay != previous.VectorDelay)
            {
                out.Tag(kTagVectorDelay);
                out.LE<std::uint32_t>(values.VectorDelay);
            }
            if (!same || values.EntityDelay != previous.EntityDelay)
            {
                out.Tag(kTagEntityDelay);
                out.LE<std::uint32_t>(values.EntityDelay);
            }
        }

        const bool joined = _IsJoinedPath(block);
        const std::size_t n = vectors.size();
        const std::size_t head = _out.size();
        if (joined)
        {
            out.Tag(kTagPath);
            out.LE<std::uint32_t>(static_cast<std::uint32_t>(n + 1));
            _out.resize(head + 5 + 8 * (n + 1));
            unsigned char* p = _out.data() + head + 5;
            ByteOrder::StoreLE<float>(p, _ConvertInternToSingle(vectors[0].x1));
            ByteOrder::StoreLE<float>(p + 4, _ConvertInternToSingle(vectors[0].y1));
            p += 8;
            for (const M2DSliceVector& v : vectors)
            {
                ByteOrder::StoreLE<float>(p, _ConvertInternToSingle(v.x2));
                ByteOrder::StoreLE<float>(p + 4, _ConvertInternToSingle(v.y2));
                p += 8;
            }
        }
        else
        {
            out.Tag(kTagHatches);
            out.LE<std::uint32_t>(static_cast<std::uint32_t>(2 * n));
            _out.resize(head + 5 + 16 * n);
            EncodeHatches(vectors.data(), n, static_cast<float>(ZanSDK::Common::MInternalUnits::Get()),
                          _out.data() + head + 5);
        }
        if (_out.size() >= kOutBuffer)
            _FlushOut();

        previous = values;
        previousPartId = found->Id;
        previousSubpart = found->SubpartIndex;
    }

    if (previousPart != -1 && !closeSection())
        return _Fail("the file position is not known");
    const std::int64_t end = _TellFilePos();
    if (end < 0)
        return _Fail("the file position is not known");
    seeksOk = _Patch32(bodyLengthAt, static_cast<std::uint32_t>(end - bodyAt), end) && seeksOk;
    ++_layerCount;
    return seeksOk || _Fail("a length could not be patched");
}

// ---------------------------------------------------------------- reading

std::int32_t M2DSliceIO_wza::_GetIndexOfScanningParameterInstance(const ScanValues& values) const
{
    for (std::size_t i = 0; i < _scanValuesCache.size(); ++i)
        if (_scanValuesCache[i] == values)
            return static_cast<std::int32_t>(i);
    return -1;
}

void M2DSliceIO_wza::_AddNewScanningParameterInstance(const ScanValues& values, M2DSliceBuildParameters* parameters,
                                                      std::int32_t index)
{
    if (!parameters)
        return;
    M2DSliceBuildParameters::Instance instance;
    instance.SetID(index);
    instance.SetLaserPower(values.Power);
    instance.SetSpeed(values.Speed);
    instance.SetLaserDiameter(values.LaserDiameter);
    parameters->AddInstance(instance);
}

std::int32_t M2DSliceIO_wza::_FillScanningParameters(const ScanValues& values, M2DSliceBuildParameters* parameters)
{
    const std::int32_t found = _GetIndexOfScanningParameterInstance(values);
    if (found >= 0)
        return found;
    _scanValuesCache.push_back(values);
    const auto index = static_cast<std::int32_t>(_scanValuesCache.size() - 1);
    _AddNewScanningParameterInstance(values, parameters, index);
    return index;
}

void M2DSliceIO_wza::_MapVectorInfo(M2DSliceVectorTypeInfo& info, unsigned code)
{
    if (_isOldFormat)
        _MapVectorInfoOldFormat(info, code);
    else
    {
        _MapVectorInfoType(info, code);
        _MapVectorInfoFlags(info, code);
    }
}

void M2DSliceIO_wza::_MapVectorInfoType(M2DSliceVectorTypeInfo& info, unsigned code)
{
    if (code % 1000 != 0)
    {
        info.SetType(e2DSliceVectorType_Other);
        return;
    }
    switch (code)
    {
    case 1000:
    case 3000:
    case 101000:
    case 103000:
    case 131000:
    case 141000:
        info.SetType(e2DSliceVectorType_Border);
        break;
    case 2000:
    case 102000:
    case 142000:
        info.SetType(e2DSliceVectorType_Hatch);
        break;
    case 11000:
    case 13000:
        info.SetType(e2DSliceVectorType_ContourGroup3);
        break;
    case 12000:
        info.SetType(e2DSliceVectorType_VectorGroup8);
        break;
    case 21000:
    case 23000:
        info.SetType(e2DSliceVectorType_ContourGroup2);
        break;
    case 22000:
        info.SetType(e2DSliceVectorType_VectorGroup7);
        break;
    default:
        break;
    }
}

void M2DSliceIO_wza::_MapVectorInfoFlags(M2DSliceVectorTypeInfo& info, unsigned code)
{
    if (code >= 10000 && code <= 19999)
        info.SetFlag(e2DSliceVectorTypeFlag_3, true);
    else if (code >= 20000 && code <= 29999)
        info.SetFlag(e2DSliceVectorTypeFlag_2, true);
    else if (code >= 100000 && code <= 109999)
        info.SetIndex(e2DSliceVectorTypeIndex_6, 1);
    else if (code >= 130000 && code <= 139999)
    {
        info.SetFlag(e2DSliceVectorTypeFlag_1, true);
        info.SetFlag(e2DSliceVectorTypeFlag_0, true);
    }
    else if (code >= 140000 && code <= 149999)
        info.SetFlag(e2DSliceVectorTypeFlag_1, true);
    if (code % 10000 >= 3000 && code % 10000 <= 3999)
        info.SetFlag(e2DSliceVectorTypeFlag_4, true);
}

void M2DSliceIO_wza::_MapVectorInfoOldFormat(M2DSliceVectorTypeInfo& info, unsigned code)
{
    if (code == 301 || code == 302 || code == 401)
        info.SetType(e2DSliceVectorType_Hatch);
    else if (code == 101 || code == 201 || code == 400)
        info.SetType(e2DSliceVectorType_Kind9);
    else if ((code >= 102 && code <= 200) || (code >= 202 && code <= 300))
        info.SetType(e2DSliceVectorType_Other);
}

// Reads the points of an H (count / 2 vectors of four floats) or an M (a first point, then
// count - 1 further points, each ending a vector from the one before) into the open block.
bool M2DSliceIO_wza::_ReadVectors(ILayerInput& input, bool joined, std::uint32_t count)
{
    const std::uint64_t total = joined ? (count > 0 ? count - 1u : 0u) : count / 2u;
    float lastX = 0.0f, lastY = 0.0f;
    int lastIx = 0, lastIy = 0;
    if (joined)
    {
        unsigned char first[8];
        if (!_Read(first, 8))
            return _Fail("the file ends in a path's first point");
        lastX = ByteOrder::LoadLE<float>(first);
        lastY = ByteOrder::LoadLE<float>(first + 4);
        lastIx = _ConvertSingleToIntern(lastX);
        lastIy = _ConvertSingleToIntern(lastY);
    }
    const std::size_t stride = joined ? 8 : 16;
    const bool measureOnly = input.MeasuresOnly();
    for (std::uint64_t done = 0; done < total;)
    {
        const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(total - done, kChunkVectors));
        _rawVectors.resize(n * stride);
        const std::size_t got = _stream ? std::fread(_rawVectors.data(), stride, n, _stream) : 0;
        _vectors.resize(got);
        M2DSliceXYArea box;
        if (joined)
        {
            const unsigned char* p = _rawVectors.data();
            for (std::size_t i = 0; i < got; ++i, p += stride)
            {
                M2DSliceVector& v = _vectors[i];
                v.x1 = lastIx;
                v.y1 = lastIy;
                lastIx = v.x2 = _ConvertSingleToIntern(ByteOrder::LoadLE<float>(p));
                lastIy = v.y2 = _ConvertSingleToIntern(ByteOrder::LoadLE<float>(p + 4));
                box.Extend(v.x1, v.y1);
                box.Extend(v.x2, v.y2);
            }
        }
        else
            ConvertHatches(_rawVectors.data(), got, static_cast<float>(ZanSDK::Common::MInternalUnits::Get()),
                           _vectors.data(), box);
        if (got > 0)
        {
            if (measureOnly)
                input.AddVectorsArea(box, got);
            else
                input.AddMeasuredVectors(_vectors.data(), got, box);
        }
        done += got;
        if (got < n)
            return _Fail(joined ? "the file ends in a path" : "the file ends in a run of hatches");
    }
    return true;
}

bool M2DSliceIO_wza::_FetchLayer(ILayerInput& input, ITarget2DSlices* target, bool /*readVectors*/)
{
    const std::int64_t recordAt = _TellFilePos();
    char head[3];
    std::size_t got = _stream ? std::fread(head, 1, 3, _stream) : 0;
    if (got < 3 || std::memcmp(head, "SLC", 3) != 0)
    {
        // The layers end where the digest begins; a file that stops inside the digest, or has
        // none, ends the same way. Anything else there is damage.
        if (recordAt < 0 || _fileSize - recordAt > 32)
            return got < 3 ? _Fail("the file ends inside a layer record")
                           : _FailAt("no \"SLC\" where a layer record should begin", recordAt);
        std::vector<char> rest(static_cast<std::size_t>(std::max<std::int64_t>(_fileSize - recordAt, 0)));
        if (!_SeekFilePos(recordAt) || (!rest.empty() && !_Read(rest.data(), rest.size())))
            return _Fail("the end of the file cannot be read");
        for (char c : rest)
            if (!std::isxdigit(static_cast<unsigned char>(c)))
                return _FailAt("no \"SLC\" where a layer record should begin", recordAt);
        _SeekFilePos(recordAt);
        return false;
    }
    std::uint32_t bodyLength = 0;
    if (!_ReadLE(bodyLength))
        return _Fail("the file ends in a layer record's length");
    const std::int64_t bodyStart = _TellFilePos();
    const std::int64_t bodyEnd = bodyStart + bodyLength;

    M2DSliceBuildParameters* parameters = nullptr;
    if (target)
        if (PersistentProperties* properties = target->GetProperties())
        {
            parameters = M2DSliceBuildParameters::Get(properties, true);
            if (parameters)
                parameters->GetLookupIdsUpdate().First = 0;
        }
    if (!_isOldFormat)
        _readOptions.VectorBlocks.MergeBlocks = false;

    static const int pulsingId = M2DSliceVectorTypeInfo::GetFlagID(L"PulsingEnabled");
    static const int durationId = M2DSliceVectorTypeInfo::GetNumberID(L"PulsingDuration");
    static const int periodId = M2DSliceVectorTypeInfo::GetNumberID(L"PulsingPeriod");
    static const int vectorDelayId = M2DSliceVectorTypeInfo::GetNumberID(L"VectorDelay");
    static const int entityDelayId = M2DSliceVectorTypeInfo::GetNumberID(L"EntityDelay");

    ScanValues current, copy;
    for (;;)
    {
        std::int64_t at = _TellFilePos();
        if (at < 0)
            return _Fail("the file position is not known");
        if (bodyEnd - at <= 3)
            break;
        char wrz[3];
        if (!_Read(wrz, 3))
            return _Fail("the file ends inside a layer record");
        if (std::memcmp(wrz, "WRZ", 3) != 0)
            return _FailAt("no \"WRZ\" where a part section should begin", at);
        std::uint32_t partId = 0, sectionLength = 0;
        if (!_ReadLE(partId) || !_ReadLE(sectionLength))
            return _Fail("the file ends in a part section's head");
        const std::int64_t sectionEnd = _TellFilePos() + sectionLength;
        copy = current;
        current = ScanValues();
        for (;;)
        {
            at = _TellFilePos();
            if (at < 0)
                return _Fail("the file position is not known");
            if (sectionEnd - at <= 2)
                break;
            unsigned char tag = 0;
            if (!_ReadLE(tag))
                return _Fail("the file ends inside a part section");
            bool ok = true;
            switch (tag)
            {
            case kTagTypeCode:
                ok = _ReadLE(current.TypeCode);
                break;
            case kTagSpeed:
                ok = _ReadLE(current.Speed);
                break;
            case kTagPower:
                ok = _ReadLE(current.Power);
                break;
            case kTagDiameter:
                ok = _ReadLE(current.LaserDiameter);
                break;
            case kTagPulsing:
            {
                std::uint8_t b = 0;
                ok = _ReadLE(b);
                current.PulsingEnabled = b != 0;
                break;
            }
            case kTagDuration:
                ok = _ReadLE(current.PulsingDuration);
                break;
            case kTagPeriod:
                ok = _ReadLE(current.PulsingPeriod);
                break;
            case kTagVectorDelay:
                ok = _ReadLE(current.VectorDelay);
                break;
            case kTagEntityDelay:
                ok = _ReadLE(current.EntityDelay);
                break;
            case kTagContinue:
                current = copy;
                break;
            case kTagHatches:
            case kTagPath:
            {
                std::uint32_t count = 0;
                if (!_ReadLE(count))
                    return _Fail("the file ends in a vector count");
                M2DSliceVectorTypeInfo info(e2DSliceVectorType_None);
                info.SetIndex(e2DSliceVectorTypeIndex_Part, static_cast<std::int16_t>(partId));
                info.SetIndex(e2DSliceVectorTypeIndex_Parameter, _FillScanningParameters(current, parameters));
                _MapVectorInfo(info, current.TypeCode);
                info.SetNumber(e2DSliceVectorTypeNumber_2, current.LaserDiameter);
                info.SetNumber(e2DSliceVectorTypeNumber_0, current.Power);
                info.SetNumber(e2DSliceVectorTypeNumber_1, current.Speed);
                info.SetFlag(pulsingId, current.PulsingEnabled);
                info.SetNumber(durationId, current.PulsingDuration);
                info.SetNumber(periodId, current.PulsingPeriod);
                if (tag == kTagPath)
                {
                    info.SetNumber(vectorDelayId, current.VectorDelay);
                    info.SetNumber(entityDelayId, current.EntityDelay);
                }
                // Room only for what the file can still hold.
                const std::uint64_t announced = tag == kTagPath ? (count > 0 ? count - 1u : 0u) : count / 2u;
                const std::int64_t left = std::max<std::int64_t>(_fileSize - _TellFilePos(), 0);
                const std::uint64_t room = static_cast<std::uint64_t>(left) / (tag == kTagPath ? 8u : 16u);
                input.StartVectorBlock(info, static_cast<std::size_t>(std::min(announced, room)));
                if (!_ReadVectors(input, tag == kTagPath, count))
                    return false;
                break;
            }
            default:
                // Not a tag: the next byte is tried.
                continue;
            }
            if (!ok)
                return _Fail(fmt::format("the file ends in the value of tag {}", static_cast<char>(tag)));
            copy = current;
        }
    }
    return true;
}

bool M2DSliceIO_wza::_ReadLayer(M2DSlice& slice, ITarget2DSlices* target, bool readVectors)
{
    M2DSliceContainerScanInfo info;
    {
        MLayerReader reader(slice, info);
        if (!_FetchLayer(reader, target, readVectors))
            return false;
    }
    _ExtendSliceArea(slice, info.Area);
    return true;
}

bool M2DSliceIO_wza::_ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* target, bool readVectors)
{
    MLayerScanner scanner(info);
    scanner.SetZ(_currentZ);
    _currentZ = _NextHeight();
    return _FetchLayer(scanner, target, readVectors);
}
