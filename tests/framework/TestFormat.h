#pragma once
// A tiny slice format for tests of the framework. Every hook records its call, so a test
// can see what the base class called and in which state. The file is a row of 32-bit
// little-endian integers, in internal units:
//   header        "TSTF", unit conversion, inverse resolution
//   layer         1, z
//   contour       2, type, closed, outer, n, n x (x, y)
//   vector block  3, type, n, n x (x1, y1, x2, y2)
//   point block   4, type, n, n x (x, y)
//   footer        9
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "framework/I2DSliceIO.h"

class TestFormat : public I2DSliceIO
{
public:
    bool appendSupported = false;
    mutable int appendQueries = 0;
    bool invertOnRead = false;      // passed to EndContour
    bool closeSawOpenFile = false;  // whether _CloseFile found the file still open
    std::int32_t unitSeenByReadHeader = 0;
    std::vector<std::string> calls;

    bool IsAppendModeSupported() const override
    {
        ++appendQueries;
        return appendSupported;
    }

    const M2DSliceContainerIOProperties& Properties() const { return _properties; }
    using I2DSliceIO::_AccountLayer;
    using I2DSliceIO::_ConvertDoubleToTextValue;
    using I2DSliceIO::_ReadTextValue;

protected:
    bool _OpenFile(const std::wstring&, MOpenMode mode) override
    {
        calls.push_back("open " + std::to_string(mode));
        return true;
    }
    bool _CloseFile() override
    {
        calls.push_back("close");
        closeSawOpenFile = _file.IS_OPEN();
        return true;
    }
    bool _WriteHeader(const std::vector<const ISource2DSlices*>& sources) override
    {
        calls.push_back("header " + std::to_string(sources.size()));
        std::int32_t values[] = {_properties.UnitConversionFactor, _properties.InverseResolution};
        return _file.WRITE_STRING("TSTF") && _file.WriteInt32(values, 2) == 8;
    }
    bool _WriteHeaderPerSliceContainer(std::uint64_t index) override
    {
        calls.push_back("container " + std::to_string(index));
        return true;
    }
    bool _WriteLayer(const std::vector<const ISource2DSlices*>&, std::int32_t z,
                     const M2DSliceConstDataItems& items) override
    {
        calls.push_back("layer " + std::to_string(z));
        _Put({1, z});
        for (const M2DSliceConstDataItem& item : items.Items)
        {
            if (const M2DSliceContour* c = item.GetContour())
            {
                _Put({2, c->GetTypeInfo().GetType(), c->GetIsClosed(), c->GetIsOuterContour(),
                      static_cast<std::int32_t>(c->GetNumPoints())});
                for (const auto& p : *c)
                    _Put({p.x, p.y});
            }
            else if (const M2DSliceVectorBlock* b = item.GetVectorBlock())
            {
                _Put({3, b->GetTypeInfo().GetType(), static_cast<std::int32_t>(b->Vectors.size())});
                for (const M2DSliceVector& v : b->Vectors)
                    _Put({v.x1, v.y1, v.x2, v.y2});
            }
            else if (const M2DSlicePointBlock* b = item.GetPointBlock())
            {
                _Put({4, b->GetTypeInfo().GetType(), static_cast<std::int32_t>(b->Points.size())});
                for (const M2DSlicePoint& p : b->Points)
                    _Put({p.x, p.y});
            }
        }
        return _file.GET_ERROR() == 0;
    }
    bool _WriteFooter(const std::vector<const ISource2DSlices*>&) override
    {
        calls.push_back("footer");
        _Put({9});
        return true;
    }
    bool _ReadHeader(ITarget2DSlices*) override
    {
        calls.push_back("read header");
        unitSeenByReadHeader = _properties.UnitConversionFactor;
        char magic[4] = {};
        std::int32_t values[2];
        if (_file.READ(magic, 4) != 4 || std::string(magic, 4) != "TSTF" || !_Get(values, 2))
            return false;
        _properties.UnitConversionFactor = values[0];
        _properties.InverseResolution = values[1];
        return true;
    }
    bool _ReadLayer(M2DSlice& slice, ITarget2DSlices*, bool readVectors) override
    {
        M2DSliceContainerScanInfo info;
        MLayerReader reader(slice, info);
        if (!_FetchLayer(reader, readVectors))
            return false;
        reader.EndContour(false);
        _ExtendSliceArea(slice, info.Area);
        return true;
    }
    bool _ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices*, bool readVectors) override
    {
        MLayerScanner scanner(info);
        return _FetchLayer(scanner, readVectors);
    }
    bool _ReadFooter(ITarget2DSlices*) override
    {
        calls.push_back("read footer");
        return true;
    }

private:
    void _Put(std::initializer_list<std::int32_t> values)
    {
        for (std::int32_t v : values)
            _file.WriteInt32(&v, 1);
    }
    bool _Get(std::int32_t* out, std::size_t n) { return _file.ReadInt32(out, n) == n * 4; }
    // A count is believed only when the rest of the file can hold that many records.
    bool _GetCount(std::int32_t& n, std::int64_t recordBytes)
    {
        return _Get(&n, 1) && n >= 0 && n <= (_file.GET_SIZE() - _file.TELL()) / recordBytes;
    }

    bool _FetchLayer(ILayerInput& input, bool readVectors)
    {
        std::int32_t head[2];
        if (!_Get(head, 2) || head[0] != 1)
            return false;
        input.SetZ(head[1]);
        for (std::int32_t tag; _Get(&tag, 1);)
        {
            std::int32_t rec[4], n;
            if (tag == 1 || tag == 9)
                return _SeekFilePos(_TellFilePos() - 4);
            if (tag == 2)
            {
                if (!_Get(rec, 3) || !_GetCount(n, 8))
                    return false;
                input.StartContour(static_cast<e2DSliceVectorType>(rec[0]));
                input.SetContourClosed(rec[1] != 0);
                input.SetContourOuter(rec[2] != 0);
                for (std::int32_t i = 0; i < n && _Get(rec, 2); ++i)
                    input.AddContourPoint(rec[0], rec[1]);
                input.EndContour(invertOnRead);
            }
            else if (tag == 3 || tag == 4)
            {
                const std::int64_t size = tag == 3 ? 16 : 8;
                if (!_Get(rec, 1) || !_GetCount(n, size))
                    return false;
                const M2DSliceVectorTypeInfo label(static_cast<e2DSliceVectorType>(rec[0]));
                if (tag == 3 && !readVectors)
                {
                    _SeekFilePos(_TellFilePos() + n * size);
                    continue;
                }
                if (tag == 3)
                    input.StartVectorBlock(label, static_cast<std::size_t>(n));
                else
                    input.StartPointBlock(label);
                for (std::int32_t i = 0; i < n && _Get(rec, tag == 3 ? 4 : 2); ++i)
                {
                    if (tag == 3)
                        input.AddVector(M2DSliceVector(rec[0], rec[1], rec[2], rec[3]));
                    else
                        input.AddPoint(rec[0], rec[1]);
                }
                if (tag == 3)
                    input.EndVectorBlock(false);
                else
                    input.EndPointBlock();
            }
            else
                return false;
        }
        return true;
    }
};

namespace testformat {

// A fresh path in the test temporary directory.
inline std::wstring TempPath(const std::string& name)
{
    return (std::filesystem::temp_directory_path() / ("sliceio_base_" + name)).wstring();
}

// Appends a contour with the given points and returns it.
inline M2DSliceContour* AddContour(M2DSlice& slice, std::initializer_list<std::pair<int, int>> points,
                                   bool closed = true, e2DSliceVectorType type = e2DSliceVectorType_Border)
{
    M2DSliceContour* c = slice.GetSliceBorderUpdate()->AddContourAtEnd();
    c->SetTypeInfo(M2DSliceVectorTypeInfo(type));
    c->SetIsClosed(closed);
    for (const auto& p : points)
        c->InsertAtEnd(p.first, p.second, nullptr);
    return c;
}

inline std::vector<std::pair<int, int>> Points(const M2DSliceContour& c)
{
    std::vector<std::pair<int, int>> out;
    for (const auto& p : c)
        out.emplace_back(p.x, p.y);
    return out;
}

// The items of one layer made of the given slices, one slice per source.
inline M2DSliceConstDataItems Items(std::initializer_list<std::shared_ptr<const M2DSlice>> slices)
{
    M2DSliceConstDataItems items;
    for (const auto& s : slices)
        items.AddSlice(s);
    return items;
}

// A slice at height z holding a square of the given size with its corner at (x, y).
inline std::shared_ptr<M2DSlice> Square(std::int32_t z, int x = 0, int y = 0, int size = 100)
{
    auto slice = std::make_shared<M2DSlice>();
    slice->SetZ(z);
    AddContour(*slice, {{x, y}, {x, y + size}, {x + size, y + size}, {x + size, y}});
    return slice;
}

} // namespace testformat
