#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../../contracts/I2DSliceOperatorSort.h"
#include "../../contracts/M2DSliceBuildParameters.h"
#include "../../contracts/MXMLExpat.h"
#include "../../contracts/PersistentProperties.h"
#include "../../framework/ByteCursor.h"
#include "../../framework/I2DSliceIO.h"
#include "ZffMetaData.h"

// The text header's elements as a map of names to texts, and the names of its parts.
class SLICEIO_API XMLHEaderReader : public MXMLExpat
{
public:
    std::map<std::string, std::string>& GetValues() { return _values; }
    const std::vector<std::string>& GetPartNames() const { return _partNames; }
    void Clear()
    {
        _values.clear();
        _partNames.clear();
        _element.clear();
        _text.clear();
    }

protected:
    void OnStartElement(const std::string& name, const std::map<std::string, std::string>& attributes) override;
    void OnEndElement(const std::string& name) override;
    void OnCharacterData(const std::string& text) override;

private:
    std::map<std::string, std::string> _values;
    std::vector<std::string> _partNames;
    std::string _element; // element whose text is being collected, or empty
    std::string _text;
};

// One distinct scan setting met while reading.
struct SLICEIO_API build_properties
{
    float LaserSpeed = 0.0f;
    float LaserFocus = 0.0f;
    float LaserPower = 0.0f;
    std::int32_t PointDistance = 0;
    std::int32_t ExposureTime = 0;
    float LaserDiameter = -1.0f;  // -1: the block gave none
    std::int32_t ExtraValue = -1; // -1: the block gave none
};

// The contour of a layer as the writer sizes it, with the attributes it goes out with.
struct ZffSliceContour
{
    const M2DSliceContour* Contour = nullptr;
    ZffVectorAttributes Attributes;
};

// ZFF build files: a text header in an XML-like form, ended by CR LF, then binary layer
// sections to the end of the file. Each layer is sized completely before it is written, so the
// file is written strictly forward. Scan values travel per block as attribute sections; on
// reading, a block without some attribute keeps the value seen last.
class SLICEIO_API M2DSliceIO_zff : public I2DSliceIO
{
public:
    // Section identifiers.
    enum : std::uint16_t
    {
        SectionLayer = 1,
        SectionContourBlock = 2,
        SectionContourData = 3,
        SectionHatchBlock = 4,
        SectionHatchData = 5,
        SectionHeight = 12,
    };
    enum EBlockType
    {
        ContourBlock,
        HatchBlock,
    };

    M2DSliceIO_zff();
    ~M2DSliceIO_zff() override;

    void SetHatched(bool hatched) { _hatched = hatched; }
    bool GetHatched() const { return _hatched; }
    void SetSorting(std::shared_ptr<I2DSliceOperatorSort> sorter) { _sorter = std::move(sorter); }
    ZffMetaData& GetMetaData() { return _metaData; }

    // Position of the setting in the list of distinct settings read so far, or -1.
    std::int32_t GetIndexOfProperties(const build_properties& properties) const;
    // Puts the setting into the target's "ScanParametersGeneric" list and build parameters.
    void AddNewProperty(const build_properties& properties);
    const std::vector<build_properties>& GetBuildProperties() const { return _buildProperties; }
    // The texts of the header read last ("Origin", "Layers", "Zunit", "xmin", ...).
    const std::map<std::string, std::string>& GetHeaderValues() { return _headerReader.GetValues(); }

protected:
    bool _OpenFile(const std::wstring& path, MOpenMode mode) override;
    bool _CloseFile() override;
    bool _WriteHeader(const std::vector<const ISource2DSlices*>& sources) override;
    bool _WriteLayer(const std::vector<const ISource2DSlices*>& sources, std::int32_t z,
                     const M2DSliceConstDataItems& items) override;
    bool _WriteFooter(const std::vector<const ISource2DSlices*>& sources) override;
    bool _ReadHeader(ITarget2DSlices* target) override;
    bool _ReadLayer(M2DSlice& slice, ITarget2DSlices* target, bool readVectors) override;
    bool _ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* target, bool readVectors) override;
    bool _ReadFooter(ITarget2DSlices* target) override;

    // The header text, from the start of the file through "</Header>"; the file is left past
    // the CR LF after it. False when the file does not start as a ZFF header or it has no end.
    bool _GetHeaderFile(std::string& header);
    void _CalculateContainerDimensions(M2DSliceContainerIODimensions& dimensions,
                                       const std::vector<const ISource2DSlices*>& sources) const;

    // Write helpers: each puts its bytes on the way to the file and takes them off remaining,
    // the bytes of the section being written that are still to come.
    bool _WriteSectionHeader(std::uint32_t id, std::int64_t size, std::int64_t& remaining);
    bool _WriteLayerSection(std::int64_t size, std::int64_t& remaining);
    bool _WriteZPosition(std::int32_t z, std::int64_t& remaining);
    bool _WriteAttributes(const ZffVectorAttributes& attributes, std::int64_t& remaining);
    bool _WriteContourData(const ZffSliceContour* contour, std::int64_t size, std::int64_t& remaining);
    bool _WriteHatchData(const M2DSliceVectorBlock* block, std::int64_t size, std::int64_t& remaining);
    // A value of 1, 2, 4 or 8 bytes; false for any other size.
    bool _WriteFixedSizeValue(std::int64_t value, std::int64_t size, std::int64_t& remaining);
    bool _WriteFloat(float value, std::int64_t size, std::int64_t& remaining);
    bool _WriteData(const void* data, std::int64_t size, std::int64_t& remaining);
    bool _WriteSectionContent(const void* data, std::int64_t size, std::int64_t& remaining)
    {
        return _WriteData(data, size, remaining);
    }

    bool _ReadVectorBlock(ILayerInput& input, EBlockType type, unsigned int size);
    bool _FetchLayer(ILayerInput& input, M2DSliceContainerScanInfo& info, ITarget2DSlices* target);
    void _AddToBuildParameters(const build_properties& properties, std::int32_t index) const;

private:
    bool _Flush();
    void _RegisterSettings(const build_properties& properties);
    std::int32_t _HeaderZunit() const;
    // A text of the header read last; a missing one throws std::out_of_range.
    const std::string& _LookupHeader(const char* key);

    bool _hatched = false;
    std::shared_ptr<I2DSliceOperatorSort> _sorter;
    XMLHEaderReader _headerReader;
    // The reader's current attribute values, kept from block to block and layer to layer.
    struct Current
    {
        float LaserPower = 0.0f;
        float LaserSpeed = 0.0f;
        float LaserFocus = 0.0f;
        std::int32_t PointDistance = 0;
        std::int32_t ExposureTime = 0;
        std::int32_t PartID = 0;
    } _current;
    ZffMetaData _metaData;
    std::vector<build_properties> _buildProperties;
    std::int32_t _propertyIndex = -1;
    PersistentProperty<IndexedProperties<PersistentProperties>>* _scanParameters = nullptr;
    M2DSliceBuildParameters* _buildParameters = nullptr;

    // Reading: the layer section being decoded, the cursor over it, and the coordinates of
    // a contour data section.
    std::vector<unsigned char> _record;
    ByteCursor* _cursor = nullptr;
    std::vector<int> _coords;
    std::vector<M2DSliceVector> _vectors;
    // Writing: bytes on their way to the file, and the layer's sizing.
    // A staging area of fixed size, small enough to stay in the cache: filled in place and
    // written out whenever the next piece does not fit.
    unsigned char* _Room(std::size_t bytes);
    std::unique_ptr<unsigned char[]> _out;
    std::size_t _staged = 0;
    bool _writeFailed = false;
};
