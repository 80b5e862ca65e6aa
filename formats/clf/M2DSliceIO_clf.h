#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../../framework/Export.h"
#include "../../framework/I2DSliceIO.h"
#include "ClfItems.h"

// CLF files ("Arcam Layer File"), the layer files of electron-beam powder-bed machines: a tree
// of self-describing items, several parts side by side in each layer, and a seek table at the
// end from which a reader finds the layers.
//
// Writing needs a "PartID" (long) and a "PartName" (wide string) in each source's properties;
// each source becomes a part. Coordinates and heights are written as floats of the internal
// value divided by the conversion factor. The header's bounding box is only right once the
// file is closed, which patches it.
//
// The reader takes the file's values as being at the scale the base class starts a read
// with (millimetres, one step per millimetre, so floats in millimetres): the file says nothing
// of its unit, and a file written in inches or at another resolution reads back scaled.
// Contours come back as type 1, every vector as one block of type 1 with flag 1 per layer.
//
// Values that do not fit a field throw clf::ValueOutOfRange (a layer count or file position
// beyond 32 bits, a negative part id or position) or clf::LossOfData (a vector block of more
// than 2147483647 coordinate pairs).
class SLICEIO_API M2DSliceIO_clf : public I2DSliceIO
{
public:
    using SeekTableEntry = clf::SeekTableEntry;

    M2DSliceIO_clf();
    ~M2DSliceIO_clf() override;

protected:
    bool _OpenFile(const std::wstring& path, MOpenMode mode) override;
    bool _CloseFile() override;
    bool _WriteHeader(const std::vector<const ISource2DSlices*>& sources) override;
    bool _WriteHeaderPerSliceContainer(std::uint64_t index) override;
    bool _WriteLayer(const std::vector<const ISource2DSlices*>& sources, std::int32_t z,
                     const M2DSliceConstDataItems& items) override;
    bool _WriteFooter(const std::vector<const ISource2DSlices*>& sources) override;
    bool _ReadHeader(ITarget2DSlices* target) override;
    bool _ReadLayer(M2DSlice& slice, ITarget2DSlices* target, bool readVectors) override;
    bool _ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* target, bool readVectors) override;
    bool _ReadFooter(ITarget2DSlices* target) override;

private:
    // A polygon of the layer writer: what it came from and how it is written.
    struct Polygon
    {
        std::uint32_t Class = 0;
        std::uint32_t Form = 0;
        std::uint32_t Count = 0;
        const M2DSliceContour* Contour = nullptr;
        const M2DSliceVectorBlock* Block = nullptr;
        const M2DSlicePoint* Point = nullptr;
    };
    using Shape = std::vector<Polygon>;
    // The shapes of one slice, by kind (borders, vectors, points).
    struct LayerRecord
    {
        std::uint32_t PartId = 0;
        std::vector<Shape> Shapes[3];
        // Blocks made from polyline sets, owned here while the layer is written.
        std::vector<std::unique_ptr<M2DSliceVectorBlock>> Blocks;
    };

    bool _BuildRecord(const M2DSlice& slice, LayerRecord& record);
    void _PutShapes(const LayerRecord& record);
    void _PutCoordinates(const LayerRecord& record);
    bool _FlushOut();
    bool _WritePart(const ISource2DSlices& source);
    bool _ReadSeekTable();
    bool _FetchLayer(ILayerInput& input, bool invert);
    bool _ReadPolygon(ILayerInput& input, ByteCursor& coordinates, std::uint64_t cls, std::uint64_t form,
                      std::uint64_t count);
    bool _ReadPairs(ILayerInput& input, ByteCursor& coordinates, std::uint64_t count);
    bool _ReadChain(ILayerInput& input, ByteCursor& coordinates, std::uint64_t count);
    void _OpenVectorBlock(ILayerInput& input, std::size_t reserve);

    std::map<std::uint64_t, clf::PartRecord> _parts;
    std::int64_t _seekTableField = -1; // the header's seek table position value
    std::int64_t _boxField = -1;       // the header's bounding box payload
    std::uint64_t _seekTablePosition = 0;
    std::vector<std::shared_ptr<SeekTableEntry>> _seekTable;
    bool _dropOrphanShapes = false; // nothing sets it
    std::uint64_t _numOrphanShapes = 0;

    // Writing: groups under way (payload start of each, for the size patch) and the bytes not
    // yet in the file; reading: the layer group and its decoding.
    std::vector<unsigned char> _out;
    std::int64_t _outStart = 0; // file position of _out[0]
    std::vector<std::int64_t> _openGroups;
    std::vector<unsigned char> _storage;
    struct ShapeRead
    {
        std::uint64_t Class, Form, Count;
    };
    std::vector<ShapeRead> _polygons;
    std::vector<M2DSliceVector> _vectors;
    M2DSliceVectorTypeInfo _vectorLabel;
    bool _invert = false; // how contours of the layer under way end
};

namespace clf_deprecated {

// The name under which the previous generation of the CLF reader and writer was exported.
// That generation is not described anywhere and no file-type code reaches it; the name is
// kept so that code written against it still compiles, and it reads and writes exactly as
// ::M2DSliceIO_clf does.
class SLICEIO_API M2DSliceIO_clf : public ::M2DSliceIO_clf
{
public:
    M2DSliceIO_clf() = default;
    ~M2DSliceIO_clf() override = default;
};

} // namespace clf_deprecated
