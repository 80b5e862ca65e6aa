#pragma once
// SLM and MTT layer files: a tree of tagged sections (Sectioned::SectionBuffer, SectionCodec.h) with a
// header of models and build styles, one or two layer sections per height, a seek table of the
// layers and a CRC-32 at the end.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../../contracts/M2DSliceBuildParameters.h"
#include "../../contracts/PersistentProperties.h"
#include "../../framework/Export.h"
#include "../../framework/I2DSliceIO.h"
#include "SectionCodec.h"

namespace ZanSDK {
namespace FileIO {
namespace FileSystem {
class TemporaryDirectory;
}
} // namespace FileIO
} // namespace ZanSDK

// What SLM and MTT files share: the frame, models and build styles, layers, seek table,
// checksum and the compressed form. The two formats differ in a few sections and rules, which
// the subclasses choose through the variant members and virtual operations below.
class SLICEIO_API M2DSliceIO_sectioned : public I2DSliceIO
{
public:
    enum EWriteOrder : std::int32_t
    {
        WriteOrderByBuildOrder = 0,
        WriteOrderPerSlice = 1,
        // MTT only: the layer's blocks sorted region by region (M2DSliceOperatorSortRegions)
        // before they are cut into sections; an SLM writer takes it as per slice.
        WriteOrderSortedRegions = 3,
    };

    // The laser settings a vector block refers to by id.
    struct BuildStyle
    {
        std::int64_t BuildStyleId = 0;
        std::int64_t PointDistance = 0;
        std::int64_t ExposureTime = 0;
        float LaserFocus = 0.0f;
        float LaserPower = 0.0f;
        float LaserSpeed = 0.0f;
        float LaserPowerFactor = 0.0f;
        float LaserSpeedFactor = 0.0f;
        std::int32_t LaserIndex = 0;
        std::wstring BuildStyleName;
    };

    struct GeneratingParameterEntry
    {
        std::u16string Key;
        std::u16string Value;
        std::u16string Unit;
    };

    // One model as gathered for writing.
    struct ModelInfoMap
    {
        std::int32_t ModelId = 0;
        std::int32_t ModelTopSlice = 0;
        std::wstring ModelName;
        std::wstring BuildStrategyName;
        std::wstring BuildStrategyComment;
        std::vector<std::unique_ptr<BuildStyle>> BuildStyles;
        std::map<std::string, std::vector<GeneratingParameterEntry>> GeneratingParameters;
        bool BuildStrategyProtection = true;
        bool PartFound = false;
        bool SupportsFound = false;
        bool VolumeSupportsFound = false;
    };

    // One model as read.
    struct ModelInfo
    {
        std::int64_t ModelId = 0;
        std::int64_t ModelTopSlice = 0;
        std::string ModelName; // UTF-8
        std::map<std::int64_t, std::unique_ptr<BuildStyle>> BuildStyles;
    };

    struct SeekTableEntry
    {
        std::int64_t Position = 0;
        double Z = 0.0; // millimetres
    };

    // A build style as a block of a layer refers to it on reading.
    struct SlmBuildProperties
    {
        std::int32_t BuildStyleId = 0;
        std::int32_t PointDistance = 0;
        std::int32_t ExposureTime = 0;
        float LaserFocus = 0.0f;
        float LaserPower = 0.0f;
        float LaserSpeed = 0.0f;
        std::int32_t LaserIndex = 0;
        std::wstring Name;
        bool operator==(const SlmBuildProperties& o) const
        {
            return BuildStyleId == o.BuildStyleId && PointDistance == o.PointDistance &&
                   ExposureTime == o.ExposureTime && LaserFocus == o.LaserFocus && LaserPower == o.LaserPower &&
                   LaserSpeed == o.LaserSpeed && LaserIndex == o.LaserIndex && Name == o.Name;
        }
    };

    // A run of one block's vectors that becomes one polygon or hatch section.
    struct VectorBlockExtract
    {
        const M2DSliceVectorBlock* Block = nullptr;
        bool IsPolygon = false;
        std::int64_t FirstVector = 0;
        std::int64_t EndVector = 0; // one past the last
    };

    explicit M2DSliceIO_sectioned(bool compressed);
    ~M2DSliceIO_sectioned() override;

    void SetWriteOrder(EWriteOrder order) { _writeOrder = order; }
    void SetSupportsFirst(bool first) { _supportsFirst = first; }
    void SetBuildOrder(const std::vector<M2DSliceVectorTypeInfo>& order) { _buildOrder = order; }

    // Values for the keys a source must carry ("PartID", "IsSupport", "IsVolumeSupport",
    // "SLMBuildStyles", ...) that are used where a source lacks them, so that a build whose
    // sources say nothing of build styles can still be written. Empty by default: then a
    // source must carry every key.
    void SetSourceDefaults(const PersistentProperties& defaults) { _sourceDefaults = defaults; }
    // Source defaults of a part (model 1, not a support) with these build styles; the
    // factors and names are taken as a part's.
    void SetDefaultBuildStyles(const std::vector<BuildStyle>& styles);
    // True when the properties carry a build style list of their own.
    static bool NamesBuildStyles(const PersistentProperties* properties);
    // Writes blocks of a kind that is neither hatch nor polygon (kind 0 and above 11), which
    // are otherwise dropped: as polygons when every vector starts where the one before ends,
    // else as hatches. Off by default.
    void SetKindlessBlocksInferred(bool on) { _inferKindless = on; }
    // Writes each contour as a polygon block (closed ones with their closing segment) ahead
    // of the slice's vector blocks, labelled as the contour is. Off by default: then contours
    // are not written at all.
    void SetContoursAsPolygons(bool on) { _contoursAsPolygons = on; }

    // Reading a compressed build file decompresses it in repair mode (see
    // Sectioned::M2DSliceIODecompressor::SetRepair), which gives a file written by this
    // library back byte for byte; off by default, as the format reads literally. New objects
    // take the process-wide default, which a program may set once at its start.
    void SetDecompressRepair(bool repair) { _decompressRepair = repair; }
    bool GetDecompressRepair() const { return _decompressRepair; }
    static void SetDecompressRepairByDefault(bool repair);
    static bool GetDecompressRepairByDefault();

    // What the header said, after ReadHeader: "File ID String", "File Version", "Layer Z Unit".
    const std::map<std::string, std::string>& GetHeaderInfo() const { return _headerInfo; }
    // Models read from the header, by id.
    const std::map<std::int64_t, std::unique_ptr<ModelInfo>>& GetModelTable() const { return _modelTable; }
    bool IsCompressed() const { return _compressed; }

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
    // Reads the file id at the file's position: true for an SLM, MTT or compressed build file;
    // compressed is set for the last and left alone otherwise.
    virtual bool _IdentifyFile(bool& compressed);

    // ---- writing, shared with the MTT writer
    // The magic text of the file-type code: "SLM-Layerfile" for 47, "MTT-Layerfile" for any
    // other.
    const char* _FileIdText() const;
    // Writes bytes at the file's position and runs them through the running checksum.
    bool _Emit(const void* data, std::size_t n);
    bool _Emit(const std::vector<unsigned char>& bytes) { return _Emit(bytes.data(), bytes.size()); }
    // Seeks to 0 and writes byte 1 and the fixed LF number of size; the file stays behind them.
    bool _WriteHeaderSizeInfo(std::uint64_t size);
    void _WriteFileHistorySection(Sectioned::SectionBuffer& out) const;
    // Section 8 with one section 9 per entry; the caller patches section 4 and the checksum.
    bool _WriteSeekTable();
    // The section head 15 04 and the CRC-32 of everything before the last four bytes.
    bool _WriteChecksumSection();
    // The checksum of an open file computed by reading it: its first size - 4 bytes are run
    // through CRC-32 and the result is written over its last four bytes.
    static bool _WriteChecksumSection(MFile& file);

    // ---- models and build styles (writing)
    bool _GetBuildStyleListNameAndTopSlice(const std::vector<const ISource2DSlices*>& sources,
                                           std::vector<std::unique_ptr<ModelInfoMap>>& models);
    bool _GetBuildStylesForPart(const PersistentProperties& source, std::vector<std::unique_ptr<BuildStyle>>& list);
    bool _GetBuildStylesForVolumeSupports(const PersistentProperties& source,
                                          std::vector<std::unique_ptr<BuildStyle>>& list);
    bool _GetBuildStylesForWallSupports(const PersistentProperties& source,
                                        std::vector<std::unique_ptr<BuildStyle>>& list);
    static void _WriteBuildStyleSection(const BuildStyle& style, Sectioned::SectionBuffer& out);
    static std::int64_t _CalcBuildStyleSectionSize(const BuildStyle& style);
    static void _WriteExtraBuildStyleSection(const BuildStyle& style, Sectioned::SectionBuffer& out);
    static std::int64_t _CalcExtraBuildStyleSectionSize(const BuildStyle& style, bool withHead);
    static bool _isNamedStrategyUsed(const std::vector<std::unique_ptr<ModelInfoMap>>& models, const std::wstring& name);
    // The style with this id of the model with this id among the models being written.
    const BuildStyle* _FindWrittenBuildStyle(std::int64_t modelId, std::int64_t styleId) const;

    // ---- models and build styles (reading)
    bool _LoadModelInfo(ByteCursor body);
    bool _LoadModelBuildStyle(ModelInfo& model, ByteCursor body);
    bool _HasModelID(std::int64_t id) const { return _modelTable.count(id) != 0; }
    ModelInfo* _GetModelInfoByID(std::int64_t id) const;
    static BuildStyle* _GetBuildStyleByMapAndID(const ModelInfo& model, std::int64_t id);
    void _ConvertModelInfoToBuildParameters(ITarget2DSlices* target);
    std::int32_t _ConvertBuildStyleToBuildParameters(const BuildStyle& style, std::int64_t modelId, std::int32_t id);
    std::int32_t _GetBuildParametersIndexOfBuildStyle(const BuildStyle& style, std::int64_t modelId, bool generated);
    static e2DSliceVectorType _GetVectorTypeFromBuildStyleId(std::int64_t id);
    static void _AddVectorTypeInfo(std::int64_t id, M2DSliceVectorTypeInfo& info);

    // A block of a layer as it is read.
    struct M2DMTTVectorBlock
    {
        std::int32_t BlockKind = 0; // 0 polygon, 1 hatch; 2 and 3 the same in a second pass
        const unsigned char* Coordinates = nullptr; // raw floats, in place
        std::size_t NumFloats = 0;
        std::int64_t ModelId = 0;
        std::int64_t StyleId = 0;
        bool HasModelId = false;
        bool HasStyleId = false;
        std::int32_t PropertyIndex = 0;
        std::int32_t ParameterId = 0;
    };
    bool _FindBuildProperties(M2DMTTVectorBlock& block);
    void _SetBuildPropertiesToVectorBlock(M2DMTTVectorBlock& block, const SlmBuildProperties& properties);
    std::int32_t _GetIndexOfProperties(const SlmBuildProperties& properties) const;
    void _AddNewProperty(const SlmBuildProperties& properties);
    bool _LoadBuildParameterSection(M2DMTTVectorBlock& block, ByteCursor body);

    // ---- layers
    bool _WriteLayerSection(const std::vector<const M2DSlice*>& slices);
    void _ExtractBlocks(const M2DSlice& slice, std::vector<VectorBlockExtract>& extracts) const;
    void _ExtractContours(const M2DSlice& slice, std::vector<VectorBlockExtract>& extracts);
    void _SortVectorsForBuildOrder(std::vector<VectorBlockExtract>& extracts) const;
    static void _FilterEmptyVectorBlock(std::vector<VectorBlockExtract>& extracts);
    void _GetTypeOrderVectorSorting(const M2DSlice& slice, std::vector<M2DSliceVectorTypeInfo>& types) const;
    std::int64_t _CalcVectorBlockSectionSize(const VectorBlockExtract& extract) const;
    bool _WritePolygonSection(const VectorBlockExtract& extract, std::int64_t size, Sectioned::SectionBuffer& out) const;
    bool _WriteHatchSection(const VectorBlockExtract& extract, std::int64_t size, Sectioned::SectionBuffer& out) const;
    bool _FetchLayer(ILayerInput& input, ITarget2DSlices* target);
    bool _LoadLayer(ByteCursor body, ILayerInput& input, bool second);
    bool _LoadBlock(ByteCursor body, M2DMTTVectorBlock& block, bool polygon);
    void _AddNewPolygon(ILayerInput& input, const M2DMTTVectorBlock& block);
    void _AddNewVectorBlock(ILayerInput& input, const M2DMTTVectorBlock& block);

    // ---- what tells the two formats apart, set by the subclass's constructor
    // Build styles carry names (section 40), and the build parameters and build style lists
    // read back name them ("BuildStyleID", "VectorTypeName", "SLMBuildStyleName").
    bool _namedStyles = true;
    // Slices whose first block is marked as a second pass (flag 8) go into a second layer
    // section of the same z; several seek table entries of one z are read as one slice.
    bool _secondPass = true;
    // A polygon block of a block with flag 4 is written with sections 33, 14 and 32.
    bool _extraStyleBlocks = true;
    // Coordinates read back truncated toward zero instead of rounded.
    bool _truncateCoordinates = false;

    // The header body up to the models.
    virtual void _WriteHeaderFrame(Sectioned::SectionBuffer& out, std::size_t& seekPointerAt) const;
    virtual bool _WriteModelSection(const ModelInfoMap& model, Sectioned::SectionBuffer& out) const;
    // Runs after the models are gathered, before they are written.
    virtual void _FinishModels(const std::vector<const ISource2DSlices*>& /*sources*/) {}
    // The extracts of one layer's slices, before empty ones are dropped and the build order
    // applies across slices.
    virtual void _CollectExtracts(const std::vector<const M2DSlice*>& slices, std::vector<VectorBlockExtract>& extracts);
    // The build-order rule: does a block match an order entry of the same type?
    virtual bool _MatchesBuildOrder(const M2DSliceVectorTypeInfo& order, const M2DSliceVectorTypeInfo& block) const;
    // The label of a block read.
    virtual M2DSliceVectorTypeInfo _BlockLabel(const M2DMTTVectorBlock& block) const;
    // One block's extracts: a hatch over all vectors, or a polygon per chain.
    void _ExtractBlock(const M2DSliceVectorBlock& block, std::vector<VectorBlockExtract>& extracts) const;

    // What a source says, or the source defaults when it does not.
    template <class T>
    bool _SourceValue(const PersistentProperties& source, const std::wstring& key, T& value) const
    {
        return source.GetValue(key, value) || _sourceDefaults.GetValue(key, value);
    }

    // ---- state
    std::map<std::int64_t, std::unique_ptr<ModelInfo>> _modelTable;
    Sectioned::SectionHeader _seekSectionHeader;
    std::int64_t _seekTableOffset = 0;
    std::int64_t _seekTableEnd = 0;      // reading: first byte after the seek table
    std::int64_t _seekPointerPosition = 0; // writing: where section 4's fixed LF number stands
    std::int32_t _entriesRead = 0;
    EWriteOrder _writeOrder = WriteOrderPerSlice;
    std::vector<SeekTableEntry> _seekEntries;
    std::vector<std::unique_ptr<ModelInfoMap>> _models;
    std::vector<M2DSliceVectorTypeInfo> _buildOrder;
    std::vector<SlmBuildProperties> _properties;
    std::string _configXmlPath;
    std::wstring _targetPath;
    std::wstring _productName;
    std::wstring _productVersion;
    std::string _parameterXml;
    std::wstring _usedMaterialName;
    std::wstring _usedMaterialComment;
    std::wstring _usedBuildStrategyName;
    std::wstring _usedBuildStrategyComment;
    std::wstring _fileGuid;
    bool _buildStrategyProtection = true;
    bool _supportsFirst = true;
    bool _compressed;
    bool _scanFailed = false;
    IndexedProperties<PersistentProperties>* _buildStyleList = nullptr;
    M2DSliceBuildParameters* _buildParameters = nullptr;

    PersistentProperties _sourceDefaults;
    // The compressed form: the plain file written or read beside it, in a directory of its own
    // that goes when the file is done with.
    std::unique_ptr<ZanSDK::FileIO::FileSystem::TemporaryDirectory> _tempDirectory;
    std::wstring _plainPath;
    bool _decompressRepair;
    bool _WriteCompressed();
    bool _ReadCompressed();
    bool _contoursAsPolygons = false;
    bool _inferKindless = false;
    std::vector<std::unique_ptr<M2DSliceVectorBlock>> _contourBlocks; // one layer section's contours
    std::map<std::string, std::string> _headerInfo;
    // Writing: the header as written (patched in memory too) and the running checksum of
    // everything after it.
    std::vector<unsigned char> _headerBytes;
    std::uint32_t _crcAfterHeader = 0;
    std::uint64_t _bytesAfterHeader = 0;
    std::vector<unsigned char> _layerBytes; // one layer section, reused
    // Reading: storage for records that do not fit the file's buffer, and converted points.
    std::vector<unsigned char> _recordStorage;
    std::vector<int> _points;
    std::vector<M2DSliceVector> _polygonVectors;
};

// SLM layer files, file-type codes 47 (plain) and 48 (compressed build file).
class SLICEIO_API M2DSliceIO_slm : public M2DSliceIO_sectioned
{
public:
    explicit M2DSliceIO_slm(bool compressed) : M2DSliceIO_sectioned(compressed) {}

    void SetProductInformation(const std::wstring& name, const std::wstring& version)
    {
        _productName = name;
        _productVersion = version;
    }
    void SetParameterXml(const std::string& xml) { _parameterXml = xml; }
    void SetConfigXml(const std::string& path) { _configXmlPath = path; }
    void SetUsedMaterialName(const std::wstring& name) { _usedMaterialName = name; }
    void SetUsedMaterialComment(const std::wstring& comment) { _usedMaterialComment = comment; }
    void SetUsedBuildStrategyName(const std::wstring& name) { _usedBuildStrategyName = name; }
    void SetUsedBuildStrategyComment(const std::wstring& comment) { _usedBuildStrategyComment = comment; }
    void SetUsedBuildStrategyProtection(bool protect) { _buildStrategyProtection = protect; }
    bool GetUsedBuildStrategyProtection() const { return _buildStrategyProtection; }
    void SetFileGuid(const std::wstring& guid) { _fileGuid = guid; }
    const std::wstring& GetFileGuid() const { return _fileGuid; }
};
