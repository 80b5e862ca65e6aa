#pragma once
#include <cstdint>
#include <cstdio>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../../contracts/ByteOrder.h"
#include "../../contracts/I2DSliceOperatorSort.h"
#include "../../contracts/M2DSliceBuildParameters.h"
#include "../../framework/Export.h"
#include "../../framework/I2DSliceIO.h"
#include "WZADataStructures.h"

// WZA job files of a laser machine: a header with a versioned layout (magic "SiAMODeL",
// versions 1000 to 4000), one record per layer holding tagged scan parameters and vectors per
// part, and the MD5 digest of everything before it as 32 characters of hexadecimal text.
//
// Writing patches lengths and counts by seeking back, so the class keeps a stdio stream with
// 64-bit positions of its own instead of the base class's file. The writer always produces the
// newest header layout; Version only decides which layer tags are written. The scan
// parameters of a block come from the caller's table per part (Parts), looked up by the
// block's parameter index. Contours and point blocks are not written.
//
// Reading accepts versions 1000 to Version. The digest, the slice count and the data length
// are not checked. Layers read from height 0 upward in steps of SliceHeight.
class SLICEIO_API M2DSliceIO_wza : public I2DSliceIO
{
public:
    using ScanValues = WZADataStructures::ScanValues;
    using WZAPartStructure = WZADataStructures::WZAPartStructure;
    using SettingVariant = WZADataStructures::SettingVariant;
    using ScanKeyFunctionType = std::function<std::int32_t(const M2DSliceVectorTypeInfo&)>;

    // The extra index of a block's label that names its subpart.
    static const std::wstring WZA_SUBPART_INDEX;
    // The machine for which neither pulsing tags nor delay tags are written.
    static constexpr unsigned kMachineWithoutExtraTags = 1414563859u;

    M2DSliceIO_wza();
    M2DSliceIO_wza(unsigned version, const std::wstring& jobName, const std::wstring& material,
                   const std::wstring& computerId, const std::wstring& spVersion, std::int32_t sliceHeight,
                   const std::wstring& headerTail, const std::wstring& machineType, unsigned machineTypeId,
                   std::vector<SettingVariant> settings, std::list<WZAPartStructure> parts,
                   std::shared_ptr<I2DSliceOperatorSort> sortOperator, ScanKeyFunctionType scanKeyFunction,
                   std::unique_ptr<WZADataStructures::MeltPoolMonitoringSettings> meltPoolMonitoring,
                   std::unique_ptr<WZADataStructures::PreformsSettings> preforms);
    ~M2DSliceIO_wza() override;

    // Everything the header told, as text.
    const std::map<std::string, std::string>& GetHeaderProperties() const { return _headerProperties; }
    // Part names by identifier, from the last header read.
    const std::map<unsigned, std::string>& GetPartsById() const { return _partsById; }

    // Setters for callers that configure a default-constructed writer (the tool).
    void SetVersion(unsigned version) { _version = version; }
    unsigned GetVersion() const { return _version; }
    void SetSliceHeight(std::int32_t height) { _sliceHeight = height; }
    std::int32_t GetSliceHeight() const { return _sliceHeight; }
    void SetJobName(const std::wstring& name);
    void SetMachineTypeId(unsigned id) { _machineTypeId = id; }
    // The meta items "Material" and "Machine Type".
    void SetMetaTexts(const std::wstring& material, const std::wstring& machineType);
    void SetParts(std::list<WZAPartStructure> parts) { _parts = std::move(parts); }
    const std::list<WZAPartStructure>& GetParts() const { return _parts; }
    void SetSettings(std::vector<SettingVariant> settings) { _settings = std::move(settings); }
    void SetScanKeyFunction(ScanKeyFunctionType function) { _scanKeyFunction = std::move(function); }
    unsigned GetLayerCount() const { return _layerCount; }
    bool IsOldFormat() const { return _isOldFormat; }

    // The digest a file should end with: MD5 of all but its last 32 bytes, as hexadecimal text.
    // Empty when the file cannot be read or is shorter than 32 bytes.
    static std::string DigestOfFileBody(const std::wstring& path, std::string* stored = nullptr);

protected:
    std::int64_t _TellFilePos() override;
    bool _SeekFilePos(std::int64_t position) override;
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

private:
    double _DateToDouble(std::int64_t t) const;
    float _ConvertInternToSingle(int v) const;
    int _ConvertSingleToIntern(float f) const;
    std::string _ReadNextStringFromFile(std::FILE* stream);
    bool _ReadHeaderData();
    bool _ReadHeaderMetaStructure(const std::string& name);
    bool _ReadHeaderSettings(const std::string& name);
    std::string _MD5ForWZA() const;
    void _WriteHeaderMachineSettings();
    void _WriteHeaderMetaData();
    void _WritePerformsSettings();
    void _WriteMeltPoolMonitoringSettings();
    static void _WriteHeaderMetaDataItem(std::FILE* stream, const std::string& description, const std::string& value,
                                         std::uint32_t& count);
    static void _WriteIntegerBasedSettings(std::FILE* stream, unsigned id, unsigned value);
    static void _WriteDoubleBasedSettings(std::FILE* stream, unsigned id, double value);
    static void _WriteBoolBasedSettings(std::FILE* stream, unsigned id, bool value);
    static void _WriteStringBasedSettings(std::FILE* stream, unsigned id, const std::string& value);

    bool _FetchLayer(ILayerInput& input, ITarget2DSlices* target, bool readVectors);
    bool _ReadVectors(ILayerInput& input, bool joined, std::uint32_t count);
    std::int32_t _FillScanningParameters(const ScanValues& values, M2DSliceBuildParameters* parameters);
    std::int32_t _GetIndexOfScanningParameterInstance(const ScanValues& values) const;
    void _AddNewScanningParameterInstance(const ScanValues& values, M2DSliceBuildParameters* parameters,
                                          std::int32_t index);
    void _MapVectorInfo(M2DSliceVectorTypeInfo& info, unsigned code);
    void _MapVectorInfoType(M2DSliceVectorTypeInfo& info, unsigned code);
    void _MapVectorInfoFlags(M2DSliceVectorTypeInfo& info, unsigned code);
    void _MapVectorInfoOldFormat(M2DSliceVectorTypeInfo& info, unsigned code);
    static unsigned _IterateContourType(unsigned code, std::int32_t index);
    bool _ContainsShortVectors(const M2DSliceVectorBlock* block, const ScanValues& values) const;
    bool _IsJoinedPath(const M2DSliceVectorBlock* block) const;

    // Checked reads of the stream; false at its end.
    bool _Read(void* out, std::size_t n) { return _stream && std::fread(out, 1, n, _stream) == n; }
    template <class T>
    bool _ReadLE(T& out)
    {
        unsigned char bytes[sizeof(T)];
        if (!_Read(bytes, sizeof bytes))
            return false;
        out = ByteOrder::LoadLE<T>(bytes);
        return true;
    }
    // Unchecked writes, as the format's writer does not look at them.
    // Writes go through a buffer of the class, so that a length patched while its bytes are
    // still in the buffer costs no seek; older positions are patched by seeking.
    void _Write(const void* data, std::size_t n)
    {
        if (!_stream || n == 0)
            return;
        const auto* bytes = static_cast<const unsigned char*>(data);
        _out.insert(_out.end(), bytes, bytes + n);
        if (_out.size() >= kOutBuffer)
            _FlushOut();
    }
    // Hands the buffer to the stream; the stream's position is then the logical one.
    void _FlushOut();
    template <class T>
    void _WriteLE(T value)
    {
        unsigned char bytes[sizeof(T)];
        ByteOrder::StoreLE<T>(bytes, value);
        _Write(bytes, sizeof bytes);
    }
    void _WriteText(const std::string& text);
    bool _Patch32(std::int64_t at, std::uint32_t value, std::int64_t back);
    // The running height plus SliceHeight, wrapping as 32-bit arithmetic does.
    std::int32_t _NextHeight() const
    {
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(_currentZ) + static_cast<std::uint32_t>(_sliceHeight));
    }

    std::map<unsigned, std::string> _partsById;
    std::FILE* _stream = nullptr;
    unsigned _version = 4000;
    std::string _jobName;
    std::string _material;
    std::string _computerId;
    std::string _spVersion;
    std::int32_t _sliceHeight = 0;
    std::string _headerTail;
    std::string _machineType;
    unsigned _machineTypeId = 0;
    std::wstring _filePath;
    std::map<std::string, std::string> _headerProperties;
    std::vector<SettingVariant> _settings;
    std::list<WZAPartStructure> _parts;
    std::shared_ptr<I2DSliceOperatorSort> _sortOperator;
    ScanKeyFunctionType _scanKeyFunction;
    std::unique_ptr<WZADataStructures::MeltPoolMonitoringSettings> _meltPoolMonitoring;
    std::unique_ptr<WZADataStructures::PreformsSettings> _preforms;
    std::int32_t _currentZ = 0;
    unsigned _layerCount = 0;
    bool _isOldFormat = false;
    std::int64_t _sliceCountPosition = 0;
    std::int64_t _dataLengthPosition = 0;
    std::int64_t _dataStartPosition = 0;
    std::vector<ScanValues> _scanValuesCache;

    static constexpr std::size_t kOutBuffer = std::size_t{1} << 18;
    std::vector<unsigned char> _out; // written bytes not yet handed to the stream
    std::int64_t _outStart = 0;      // file position of _out's first byte
    bool _writing = false;
    std::int64_t _fileSize = 0;              // of a file opened for reading
    std::vector<unsigned char> _rawVectors;  // a chunk of coordinates read
    std::vector<M2DSliceVector> _vectors;    // the same converted
};
