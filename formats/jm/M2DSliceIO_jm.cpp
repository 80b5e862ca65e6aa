#include "M2DSliceIO_jm.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "../../contracts/ByteOrder.h"
#include "../../framework/ByteCursor.h"
#include "../../framework/LocalClock.h"

namespace {

// True when each vector starts where the one before ended and the last ends where the first
// starts: a closed polygon given by its sides.
bool IsClosedChain(const M2DSliceVectorBlock& block)
{
    const auto& v = block.Vectors;
    if (v.empty())
        return false;
    for (std::size_t i = 1; i < v.size(); ++i)
        if (v[i].x1 != v[i - 1].x2 || v[i].y1 != v[i - 1].y2)
            return false;
    return v.back().x2 == v.front().x1 && v.back().y2 == v.front().y1;
}

std::uint32_t Word(std::int32_t value) { return static_cast<std::uint32_t>(value); }

// The lowest start point of a polygon: smallest y, then smallest x.
std::pair<int, int> LowestPoint(const M2DSliceVectorBlock& block)
{
    std::pair<int, int> lowest(INT_MAX, INT_MAX);
    for (const M2DSliceVector& v : block.Vectors)
        lowest = std::min(lowest, std::make_pair(v.y1, v.x1));
    return lowest;
}

} // namespace

e2DSliceVectorType M2DSliceIO_jm::_ConvertJMDataToVectorType(unsigned data, eSinteringMode mode)
{
    if (mode == eSinteringMode_0)
        switch (data)
        {
        case 0:
            return e2DSliceVectorType_Hatch;
        case 3:
            return e2DSliceVectorType_VectorGroup8;
        case 4:
            return e2DSliceVectorType_VectorGroup7;
        }
    if (mode == eSinteringMode_2)
        switch (data)
        {
        case 0:
            return e2DSliceVectorType_Border;
        case 3:
            return e2DSliceVectorType_ContourGroup3;
        case 4:
            return e2DSliceVectorType_ContourGroup2;
        }
    return e2DSliceVectorType_None;
}

bool M2DSliceIO_jm::_OpenFile(const std::wstring& /*path*/, MOpenMode /*mode*/)
{
    _recordBlocks = _totalBlocks = _recordCount = 0;
    _inBlock = false;
    _recordStart = _blockLengthPosition = _countersPosition = _statisticsPosition = 0;
    _patterns = NumberOfJmPatterns();
    _layerCount = 0;
    _layerRead = false;
    _outUsed = 0;
    _outStart = 0;
    return true;
}

// ---------------------------------------------------------------- words

// Everything written goes through _out, the bytes from file offset _outStart on that are not
// in the file yet; values known only later are patched there, or in the file when they have
// left the buffer already. The file is written in runs of whole records.

void M2DSliceIO_jm::_Grow(std::size_t n) { _out.resize(std::max(2 * _out.size(), _outUsed + n + kRecordSize)); }

void M2DSliceIO_jm::_Put(const void* bytes, std::size_t n)
{
    std::memcpy(_Room(n), bytes, n);
    _outUsed += n;
}

template <class T>
void M2DSliceIO_jm::_PutLE(T value)
{
    ByteOrder::StoreLE(_Room(sizeof(T)), value);
    _outUsed += sizeof(T);
}

void M2DSliceIO_jm::_PutWords(std::initializer_list<std::uint32_t> words)
{
    unsigned char* at = _Room(4 * words.size());
    for (std::uint32_t word : words)
    {
        ByteOrder::StoreLE(at, word);
        at += 4;
    }
    _outUsed += 4 * words.size();
}

template <class T>
void M2DSliceIO_jm::_PatchLE(std::int64_t offset, T value)
{
    if (offset >= _outStart && offset + static_cast<std::int64_t>(sizeof(T)) <= _Tell())
    {
        ByteOrder::StoreLE(_out.data() + (offset - _outStart), value);
        return;
    }
    _file.SEEK(offset, 0);
    WriteLE(_file, value);
    _file.SEEK(_outStart, 0);
}

void M2DSliceIO_jm::_Flush()
{
    if (_outUsed > 0)
        _file.WriteBytes(_out.data(), _outUsed);
    _outStart += static_cast<std::int64_t>(_outUsed);
    _outUsed = 0;
}

void M2DSliceIO_jm::_WriteDataA(const std::string& text) { _Put(text.data(), text.size()); }

void M2DSliceIO_jm::_WriteText(const std::string& text, std::size_t size)
{
    std::string field = text.substr(0, size);
    field.resize(size, '\0');
    _WriteDataA(field);
}

void M2DSliceIO_jm::_WriteDataB2(unsigned short value) { _PutLE(value); }
void M2DSliceIO_jm::_WriteDataB2S(short value) { _PutLE(value); }
void M2DSliceIO_jm::_WriteDataB4(std::uint32_t value) { _PutLE(value); }
void M2DSliceIO_jm::_WriteDataB4S(std::int32_t value) { _PutLE(value); }
void M2DSliceIO_jm::_WriteDataB8(std::int64_t value) { _PutLE(value); }
void M2DSliceIO_jm::_WriteDataB8S(std::uint64_t value) { _PutLE(value); }

void M2DSliceIO_jm::_WriteDataBTP(const bool* bits, std::uint64_t count)
{
    for (std::uint64_t i = 0; i < count; ++i)
        _PutLE<std::uint8_t>(bits[i] ? 1 : 0);
}

// Zeros up to offset; nothing when the file is there or beyond already.
void M2DSliceIO_jm::_PadTo(std::int64_t offset)
{
    const std::int64_t left = offset - _Tell();
    if (left <= 0)
        return;
    const std::size_t n = static_cast<std::size_t>(left);
    if (n > _out.size() - _outUsed)
        _out.resize(std::max(2 * _out.size(), _outUsed + n + kRecordSize));
    std::memset(_out.data() + _outUsed, 0, n);
    _outUsed += n;
}

std::uint32_t M2DSliceIO_jm::_ReadB4(bool& ok)
{
    unsigned char b[4];
    ok = _file.ReadBytes(b, 4) == 4;
    return ok ? ByteOrder::LoadLE<std::uint32_t>(b) : 0;
}

std::string M2DSliceIO_jm::_ReadStr(int length)
{
    std::string text(static_cast<std::size_t>(std::max(length, 0)), '\0');
    text.resize(_file.ReadBytes(&text[0], text.size()));
    return text;
}

// ---------------------------------------------------------------- structure

void M2DSliceIO_jm::_StartRecord()
{
    _recordBlocks = 0;
    ++_recordCount;
    _recordStart = _Tell();
    _WriteText("AM", 4);
    _WriteDataB4(0);
    if (_inBlock)
    {
        // The block goes on here: its remainder gets a length word of its own.
        _blockLengthPosition = _Tell();
        _WriteDataB4(0);
    }
}

void M2DSliceIO_jm::_EndRecord()
{
    _WriteDataB4S(EndOfRecord);
    ++_recordBlocks;
    const std::int64_t end = _Tell();
    const std::int64_t partLength = (end - _blockLengthPosition - 4) / 4;
    const std::int64_t padding = (kRecordSize - end % kRecordSize) % kRecordSize;
    if (padding < kRecordSize - 4)
        _PadTo(end + padding);
    _PatchLE<std::uint32_t>(_recordStart + 4, _recordBlocks);
    if (_inBlock)
        _PatchLE<std::uint32_t>(_blockLengthPosition, static_cast<std::uint32_t>(partLength));
    // The record is whole: a run of them goes to the file.
    if (_outUsed >= kFlushSize)
        _Flush();
}

void M2DSliceIO_jm::_RestartRecord()
{
    if (!_inBlock)
        _WriteDataB4(1); // filler
    _EndRecord();
    _StartRecord();
}

void M2DSliceIO_jm::_BeginBlock(std::int32_t z, const M2DSliceVectorBlock& block)
{
    _RestartRecordIfNeed(8);
    _inBlock = true;
    _blockLengthPosition = _Tell();
    const M2DSliceVectorTypeInfo& label = block.GetTypeInfo();
    _WriteDataB4(0);
    _WriteDataB4S(StartOfBlock);
    _WriteDataB4S(0);
    _WriteDataB4S(0);
    _WriteDataB4S(z);
    _WriteDataB4(Word(label.GetIndex(e2DSliceVectorTypeIndex_Part) + 1));
    _WriteDataB4S(ParameterReference);
    _WriteDataB4(Word(label.GetIndex(e2DSliceVectorTypeIndex_Parameter) + 1));
}

void M2DSliceIO_jm::_EndBlock()
{
    _RestartRecordIfNeed(2);
    _WriteDataB4S(EndOfBlock);
    ++_totalBlocks;
    ++_recordBlocks;
    const std::int64_t end = _Tell();
    _PatchLE<std::uint32_t>(_blockLengthPosition, static_cast<std::uint32_t>((end - _blockLengthPosition - 1) / 4));
    _inBlock = false;
}

void M2DSliceIO_jm::_CloseAMData()
{
    _RestartRecordIfNeed(2);
    _WriteDataB4(2);
    _WriteDataB4S(EndOfData);
    ++_recordBlocks;
    _EndRecord();
    _PatchLE<std::uint32_t>(_countersPosition, _recordCount);
    _PatchLE<std::uint32_t>(_countersPosition + 4, _totalBlocks);
    std::int64_t at = _statisticsPosition;
    for (int i = 0; i < 7; ++i, at += 8)
        _PatchLE<std::int64_t>(at, _patterns.Counters[i]);
    _PatchLE<std::uint32_t>(at, _thickness);
    _PatchLE<std::uint32_t>(at + 4, _layerCount);
    at += 8;
    for (int i = 7; i < 10; ++i, at += 8)
        _PatchLE<std::int64_t>(at, _patterns.Counters[i]);
    _Flush();
}

// ---------------------------------------------------------------- header, layers, footer

bool M2DSliceIO_jm::_WriteHeader(const std::vector<const ISource2DSlices*>& sources)
{
    std::int64_t xMin = INT32_MAX, xMax = INT32_MIN, yMin = INT32_MAX, yMax = INT32_MIN, zMin = INT32_MAX,
                 zMax = INT32_MIN;
    for (const ISource2DSlices* source : sources)
    {
        if (!source)
            continue;
        const std::uint64_t n = source->GetNumSlices();
        for (std::uint64_t i = 0; i < n; ++i)
        {
            const M2DSliceXYArea area = source->GetXYArea(i);
            if (area.IsEmpty())
                continue;
            xMin = std::min<std::int64_t>(xMin, area.XMin);
            xMax = std::max<std::int64_t>(xMax, area.XMax);
            yMin = std::min<std::int64_t>(yMin, area.YMin);
            yMax = std::max<std::int64_t>(yMax, area.YMax);
        }
        if (n > 0)
        {
            zMin = std::min<std::int64_t>(zMin, source->GetSliceZPosition(0));
            zMax = std::max<std::int64_t>(zMax, source->GetSliceZPosition(n - 1));
        }
    }
    // Differences in 64 bits, cut to the 32-bit field as the machine's counters are.
    const auto extent = [](std::int64_t low, std::int64_t high) { return static_cast<std::uint32_t>((high - low) / 10); };

    _outStart = _file.TELL();
    _outUsed = 0;

    std::tm local{};
    LocalNow(local);
    char stamp[32] = {};
    std::strftime(stamp, sizeof stamp, "%d-%m-%y,%H:%M:%S", &local);

    _WriteText("ID", 4);
    _WriteText("JEOLBPOUTPUT", 256);
    _WriteText("EB3DAMFMTV1.004", 20);
    _WriteText(stamp, 20);
    _WriteDataB4(extent(xMin, xMax));
    _WriteDataB4(extent(yMin, yMax));
    _WriteDataB4(extent(zMin, zMax) + _thickness);
    _WriteDataB4(1);
    _WriteDataB4(1);
    _WriteDataB4(1);
    _WriteDataB4(0);
    _countersPosition = _Tell();
    _WriteDataB4(0); // record count, at the end
    _WriteDataB4(0); // total blocks, at the end
    _WriteDataB4(0);
    _WriteDataB4(100000);
    _WriteDataB4S(0);
    for (int i = 0; i < 4; ++i)
        _WriteDataB4(0);
    const std::uint32_t entries = static_cast<std::uint32_t>(_manufacturingData.size());
    _WriteDataB4(entries);
    _WriteDataB4(entries);
    for (int i = 0; i < 7; ++i)
        _WriteDataB4(0);
    _statisticsPosition = _Tell();
    for (int i = 0; i < 7; ++i)
        _WriteDataB8(0);
    _WriteDataB4(0); // thickness
    _WriteDataB4(0); // layer count
    for (int i = 0; i < 3; ++i)
        _WriteDataB8(0);

    _PadTo(800);
    std::uint32_t number = 0;
    for (const ManufacturingData& data : _manufacturingData)
    {
        _WriteDataB4(++number);
        _WriteText(data.Name, 20);
        for (int i : {0, 1, 2, 3, 4, 5, 7, 8, 9}) // the seventh value is not written
            _WriteDataB4(data.Values[i]);
        _WriteText("", 20);
    }
    _PadTo(8800);
    number = 0;
    for (const std::wstring& name : _partNames)
    {
        _WriteDataB4(++number);
        std::string narrow;
        for (wchar_t c : name)
            narrow += static_cast<char>(static_cast<unsigned>(c) & 0xff);
        _WriteText(narrow, 64);
    }
    _PadTo(12200);
    _PadTo(kRecordSize);
    _StartRecord();
    return _file.GET_ERROR() == 0 || _Fail("the header could not be written");
}

bool M2DSliceIO_jm::_WriteLayer(const std::vector<const ISource2DSlices*>& /*sources*/, std::int32_t z,
                                const M2DSliceConstDataItems& items)
{
    ++_layerCount;
    for (const auto& slice : items.Slices)
    {
        if (!slice)
            continue;
        const M2DSliceVectorLayer& layer = *slice->GetVectors();
        for (std::size_t i = 0; i < layer.GetNumVectorBlocks(); ++i)
        {
            const M2DSliceVectorBlock& block = *layer.GetVectorBlock(i);
            if (!_WritePolygonLine(block, z) && !_WritePolygonSolid(layer, i, z))
                _WriteLines(block, z);
        }
    }
    return _file.GET_ERROR() == 0 || _Fail("the layer could not be written");
}

bool M2DSliceIO_jm::_WriteFooter(const std::vector<const ISource2DSlices*>& /*sources*/)
{
    _CloseAMData();
    return _file.GET_ERROR() == 0 || _Fail("the file could not be finished");
}

// ---------------------------------------------------------------- patterns

bool M2DSliceIO_jm::_WritePolygonLine(const M2DSliceVectorBlock& block, std::int32_t z)
{
    const e2DSliceVectorType type = block.GetTypeInfo().GetType();
    if (type < e2DSliceVectorType_Border || type > e2DSliceVectorType_Other || !IsClosedChain(block))
        return false;
    _BeginBlock(StlUnitsToMicrometers(z), block);
    _RestartRecordIfNeed(2);
    if (block.GetTypeInfo().GetFlag(e2DSliceVectorTypeFlag_5))
    {
        ++_patterns.Counters[9];
        _WriteDataB4S(InnerPolygonLine);
    }
    else
    {
        ++_patterns.Counters[3];
        _WriteDataB4S(PolygonLine);
    }
    _WriteDataB4(static_cast<std::uint32_t>(block.Vectors.size()));
    _WritePolygon(block);
    _EndBlock();
    return true;
}

bool M2DSliceIO_jm::_WritePolygonSolid(const M2DSliceVectorLayer& layer, std::size_t index, std::int32_t z)
{
    const M2DSliceVectorBlock& block = *layer.GetVectorBlock(index);
    const M2DSliceVectorTypeInfo& label = block.GetTypeInfo();
    const e2DSliceVectorType type = label.GetType();
    if (type < e2DSliceVectorType_Kind9 || type > e2DSliceVectorType_Kind11 || !IsClosedChain(block))
        return false;
    if (label.GetFlag(e2DSliceVectorTypeFlag_5))
        return true; // a hole goes out with its outer polygon
    _BeginBlock(StlUnitsToMicrometers(z), block);

    // Its holes: closed chains of the same kind and the same indexes 9, 2 and 11, flagged 5,
    // looked for before it, then after it.
    std::vector<const M2DSliceVectorBlock*> holes;
    const auto isHole = [&](const M2DSliceVectorBlock& other) {
        const M2DSliceVectorTypeInfo& o = other.GetTypeInfo();
        return o.GetFlag(e2DSliceVectorTypeFlag_5) && o.GetType() == type &&
               o.GetIndex(e2DSliceVectorTypeIndex_9) == label.GetIndex(e2DSliceVectorTypeIndex_9) &&
               o.GetIndex(e2DSliceVectorTypeIndex_Part) == label.GetIndex(e2DSliceVectorTypeIndex_Part) &&
               o.GetIndex(e2DSliceVectorTypeIndex_11) == label.GetIndex(e2DSliceVectorTypeIndex_11) &&
               IsClosedChain(other);
    };
    for (std::size_t i = index; i-- > 0;)
        if (isHole(*layer.GetVectorBlock(i)))
            holes.push_back(layer.GetVectorBlock(i));
    for (std::size_t i = index + 1; i < layer.GetNumVectorBlocks(); ++i)
        if (isHole(*layer.GetVectorBlock(i)))
            holes.push_back(layer.GetVectorBlock(i));
    std::stable_sort(holes.begin(), holes.end(), [](const M2DSliceVectorBlock* a, const M2DSliceVectorBlock* b) {
        return LowestPoint(*a) < LowestPoint(*b);
    });

    const std::uint32_t count = static_cast<std::uint32_t>(block.Vectors.size());
    if (holes.empty())
    {
        _RestartRecordIfNeed(2);
        ++_patterns.Counters[6];
        _WriteDataB4S(SolidPolygon);
        _WriteDataB4(count);
    }
    else
    {
        _RestartRecordIfNeed(3);
        ++_patterns.Counters[7];
        _patterns.Counters[8] += static_cast<std::int64_t>(holes.size());
        _WriteDataB4S(SolidPolygonWithHoles);
        _WriteDataB4(count);
        _WriteDataB4(static_cast<std::uint32_t>(holes.size()));
    }
    _WritePolygon(block);
    for (const M2DSliceVectorBlock* hole : holes)
    {
        _RestartRecordIfNeed(2);
        _WriteDataB4S(Hole);
        _WriteDataB4(static_cast<std::uint32_t>(hole->Vectors.size()));
        _WritePolygon(*hole);
    }
    _EndBlock();
    return true;
}

void M2DSliceIO_jm::_WritePolygon(const M2DSliceVectorBlock& block)
{
    // Each word on its own: a point's x and y may stand in two records.
    const auto word = [this](std::int32_t value) {
        _RestartRecordIfNeed(1);
        _PutWords({Word(value)});
    };
    for (const M2DSliceVector& v : block.Vectors)
    {
        word(StlUnitsToMicrometers(v.x1));
        word(StlUnitsToMicrometers(v.y1));
    }
}

bool M2DSliceIO_jm::_WriteLines(const M2DSliceVectorBlock& block, std::int32_t z)
{
    _BeginBlock(StlUnitsToMicrometers(z), block);
    for (const M2DSliceVector& v : block.Vectors)
    {
        // Decided on the internal values: a vector of no length is parallel to Y.
        if (v.x1 == v.x2)
        {
            ++_patterns.Counters[2];
            _WriteLineParallelToYAxis(v);
        }
        else if (v.y1 == v.y2)
        {
            ++_patterns.Counters[1];
            _WriteLineParallelToXAxis(v);
        }
        else
        {
            ++_patterns.Counters[0];
            _WriteFreeDirectionLine(v);
        }
    }
    _EndBlock();
    return true;
}

void M2DSliceIO_jm::_WriteFreeDirectionLine(const M2DSliceVector& v)
{
    _RestartRecordIfNeed(5);
    _PutWords({Word(FreeLine), Word(StlUnitsToMicrometers(v.x1)), Word(StlUnitsToMicrometers(v.y1)),
               Word(StlUnitsToMicrometers(v.x2)), Word(StlUnitsToMicrometers(v.y2))});
}

void M2DSliceIO_jm::_WriteLineParallelToXAxis(const M2DSliceVector& v)
{
    _RestartRecordIfNeed(4);
    _PutWords({Word(LineParallelToX), Word(StlUnitsToMicrometers(v.x1)), Word(StlUnitsToMicrometers(v.y1)),
               Word(StlUnitsToMicrometers(v.x2))});
}

void M2DSliceIO_jm::_WriteLineParallelToYAxis(const M2DSliceVector& v)
{
    _RestartRecordIfNeed(4);
    _PutWords({Word(LineParallelToY), Word(StlUnitsToMicrometers(v.x1)), Word(StlUnitsToMicrometers(v.y1)),
               Word(StlUnitsToMicrometers(v.y2))});
}

// ---------------------------------------------------------------- reading

bool M2DSliceIO_jm::_ReadLayer(M2DSlice& slice, ITarget2DSlices* /*target*/, bool /*readVectors*/)
{
    // Reading covers free lines ahead of the first block, once: the fragment ends the layers.
    if (_layerRead)
        return false;
    _layerRead = true;
    if (_file.GET_SIZE() < 32764)
        return _Fail("a JM file holds a header and at least one record (32,764 bytes or more)");
    _file.SEEK(16392, 0);
    M2DSliceVectorBlock* block = nullptr;
    for (bool ok = true, first = true;; first = false)
    {
        const std::int32_t word = static_cast<std::int32_t>(_ReadB4(ok));
        if (!ok || word == EndOfData || (first && word == 0))
            break;
        if (word == StartOfBlock)
            throw std::logic_error("The method or operation is not implemented.");
        if (word == FreeLine)
        {
            std::uint32_t values[4];
            for (std::uint32_t& value : values)
                value = _ReadB4(ok);
            if (!ok)
                break;
            if (!block)
            {
                block = slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
                block->SetTypeInfo(M2DSliceVectorTypeInfo(e2DSliceVectorType_Hatch));
            }
            const M2DSliceVector v(MicrometersToStlUnits(values[0]), MicrometersToStlUnits(values[1]),
                                   MicrometersToStlUnits(values[2]), MicrometersToStlUnits(values[3]));
            block->Vectors.push_back(v);
            _UpdateSliceArea(slice, v.x1, v.y1);
            _UpdateSliceArea(slice, v.x2, v.y2);
        }
    }
    return true;
}

bool M2DSliceIO_jm::_ScanLayer(M2DSliceContainerScanInfo& /*info*/, ITarget2DSlices* /*target*/, bool /*readVectors*/)
{
    // Nothing is measured; like reading, the fragment is one layer, so a scan ends, and a file
    // too short for it has none.
    if (_layerRead)
        return false;
    _layerRead = true;
    if (_file.GET_SIZE() < 32764)
        return _Fail("a JM file holds a header and at least one record (32,764 bytes or more)");
    return true;
}
