#pragma once
// A slice format for tests of the framework that keeps the layers it is given in memory and
// reads them back from there. Every hook records its call, so a test can see what the base
// class called and in which state.
#include <initializer_list>

#include "framework/I2DSliceIO.h"
#include "tests/TestSupport.h"

class TestFormat : public I2DSliceIO
{
public:
    bool appendSupported = false;
    mutable int appendQueries = 0;
    bool invertOnRead = false;     // passed to EndContour
    bool closeSawOpenFile = false; // whether _CloseFile found the file still open
    std::int32_t unitSeenByReadHeader = 0;
    std::uint64_t headerLayers = 0; // the layer count the header was written for
    std::vector<std::string> calls;
    std::vector<std::pair<std::int32_t, M2DSliceConstDataItems>> layers; // as written

    bool IsAppendModeSupported() const override
    {
        ++appendQueries;
        return appendSupported;
    }
    const M2DSliceContainerIOProperties& Properties() const { return _properties; }
    using I2DSliceIO::_ConvertDoubleToTextValue;
    using I2DSliceIO::_ReadTextValue;

protected:
    bool _OpenFile(const std::wstring&, MOpenMode mode) override { return _Call("open " + std::to_string(mode)); }
    bool _CloseFile() override
    {
        closeSawOpenFile = _file.IS_OPEN();
        return _Call("close");
    }
    // The header goes to the file, so that a device that refuses every byte makes it fail.
    bool _WriteHeader(const std::vector<const ISource2DSlices*>& sources) override
    {
        layers.clear();
        headerLayers = _GetNumLayers();
        return _Call("header " + std::to_string(sources.size())) && _file.WRITE_STRING("TSTF");
    }
    bool _WriteHeaderPerSliceContainer(std::uint64_t key) override { return _Call("container " + std::to_string(key)); }
    bool _WriteLayer(const std::vector<const ISource2DSlices*>&, std::int32_t z,
                     const M2DSliceConstDataItems& items) override
    {
        layers.emplace_back(z, items);
        return _Call("layer " + std::to_string(z));
    }
    bool _WriteFooter(const std::vector<const ISource2DSlices*>&) override { return _Call("footer"); }
    bool _ReadHeader(ITarget2DSlices*) override
    {
        unitSeenByReadHeader = _properties.UnitConversionFactor;
        _next = 0;
        return _Call("read header");
    }
    bool _ReadLayer(M2DSlice& slice, ITarget2DSlices*, bool readVectors) override
    {
        M2DSliceContainerScanInfo info;
        MLayerReader reader(slice, info);
        if (!_Feed(reader, readVectors))
            return false;
        _ExtendSliceArea(slice, info.Area);
        return true;
    }
    bool _ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices*, bool readVectors) override
    {
        MLayerScanner scanner(info);
        return _Feed(scanner, readVectors);
    }
    bool _ReadFooter(ITarget2DSlices*) override { return _Call("read footer"); }

private:
    bool _Call(const std::string& call)
    {
        calls.push_back(call);
        return true;
    }
    bool _Feed(ILayerInput& input, bool readVectors)
    {
        if (_next >= layers.size())
            return false;
        input.SetZ(layers[_next].first);
        for (const M2DSliceConstDataItem& item : layers[_next++].second.Items)
        {
            if (const M2DSliceContour* c = item.GetContour())
            {
                input.StartContour(c->GetTypeInfo().GetType());
                input.SetContourClosed(c->GetIsClosed());
                input.SetContourOuter(c->GetIsOuterContour());
                for (const auto& p : *c)
                    input.AddContourPoint(p.x, p.y);
                input.EndContour(invertOnRead);
            }
            else if (const M2DSliceVectorBlock* b = item.GetVectorBlock())
            {
                if (!readVectors)
                    continue;
                input.StartVectorBlock(b->GetTypeInfo(), b->Vectors.size());
                for (const M2DSliceVector& v : b->Vectors)
                    input.AddVector(v);
                input.EndVectorBlock(false);
            }
            else if (const M2DSlicePointBlock* pb = item.GetPointBlock())
            {
                input.StartPointBlock(pb->GetTypeInfo());
                for (const M2DSlicePoint& p : pb->Points)
                    input.AddPoint(p.x, p.y);
                input.EndPointBlock();
            }
        }
        return true;
    }
    std::size_t _next = 0;
};

// The items of one layer made of the given slices, one slice per source.
inline M2DSliceConstDataItems Items(std::initializer_list<std::shared_ptr<const M2DSlice>> slices)
{
    M2DSliceConstDataItems items;
    for (const auto& s : slices)
        items.AddSlice(s);
    return items;
}

// A slice at height z holding an outer square of the given size with its corner at (x, y).
inline std::shared_ptr<M2DSlice> SquareAt(std::int32_t z, int x = 0, int y = 0, int size = 100)
{
    auto slice = std::make_shared<M2DSlice>();
    slice->SetZ(z);
    ts::AddContour(*slice, ts::Square(x, y, size));
    return slice;
}
