#pragma once
#include "Export.h"
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "../contracts/M2DSlice.h"
#include "../contracts/M2DSliceSource.h"
#include "../contracts/MFile.h"
#include "../contracts/MUnit.h"

// Bounds of a file in internal units: x, y, z minimum and maximum.
struct M2DSliceContainerIODimensions
{
    int XMin = INT32_MAX;
    int XMax = INT32_MIN;
    int YMin = INT32_MAX;
    int YMax = INT32_MIN;
    int ZMin = INT32_MAX;
    int ZMax = INT32_MIN;

    // axis 0 x, 1 y, 2 z; end 0 minimum, 1 maximum.
    int operator()(unsigned axis, unsigned end) const { return (&XMin)[axis * 2 + end]; }
    int& operator()(unsigned axis, unsigned end) { return (&XMin)[axis * 2 + end]; }
};

// Units and running statistics of one file.
struct M2DSliceContainerIOProperties
{
    M2DSliceContainerIOProperties() { Init(); }
    void Init()
    {
        UnitConversionFactor = MUnit::GetIE();
        InverseResolution = 1;
        LayerThickness = 0;
        NumLayers = 0;
        Dimensions = M2DSliceContainerIODimensions();
        HatchDistanceX = 0;
        HatchDistanceY = 0;
    }

    std::int32_t UnitConversionFactor; // internal units per millimetre, or per inch
    std::int32_t InverseResolution;    // file coordinate steps per millimetre or inch
    std::int32_t LayerThickness;       // greatest common divisor of the layer distances met
    std::uint64_t NumLayers;
    M2DSliceContainerIODimensions Dimensions;
    std::int32_t HatchDistanceX;
    std::int32_t HatchDistanceY;
};

// What a scan measures of one layer.
struct M2DSliceContainerScanInfo
{
    M2DSliceXYArea Area;
    std::int32_t Z = M2DSLICE_UNSET;
    std::uint64_t NumContours = 0;
    double ContourLength = 0.0;
    double SurfaceArea = 0.0;
    std::uint64_t NumVectorBlocks = 0;
    std::uint64_t NumPointBlocks = 0;

    void Clear() { *this = M2DSliceContainerScanInfo(); }
};

class M2DSliceContainerIO;
class M2DSliceContainerIterator;
class M2DSliceContainerAppendableIO;

// The abstract reader and writer of one slice file. The public operations do the checks
// and the bookkeeping that are the same for every format and call the format's hooks.
//
// Writing: OpenFile, WriteHeader, [WriteHeaderPerSliceContainer], WriteLayer per height in
// rising order, WriteFooter, CloseFile. Reading: OpenFile, ReadHeader, ReadLayer or
// ScanLayer until false, ReadFooter, CloseFile. Failure is a false result, with no message.
class SLICEIO_API I2DSliceIO
{
public:
    enum MOpenMode : std::int32_t
    {
        Read = 0,
        Write = 1,
        Append = 2,
    };

    struct ReadOptions
    {
        struct BordersOptions
        {
            BordersOptions() = default;
            bool RemoveRedundantPoints = false;
            bool OrientBorders = false;
        };
        struct VectorBlocksOptions
        {
            VectorBlocksOptions() = default;
            bool MergeBlocks = true;
        };
        ReadOptions() = default;

        bool ReadBordersAsVectors = false; // polyline formats deliver vector blocks
        bool OpenBordersToVectors = false; // a layer with an open contour becomes vectors
        BordersOptions Borders;
        VectorBlocksOptions VectorBlocks;
    };

    struct WriteOptions
    {
        bool WriteEmptyLayers = false;
    };

    // ------------------------------------------------------------- layer input
    // A format decodes a layer once against this interface; a reader behind it builds the
    // geometry into a slice, a scanner only measures it. Both measure the same way.
    class ILayerInput
    {
    public:
        virtual ~ILayerInput() = default;
        virtual void SetZ(std::int32_t z) = 0;
        virtual void StartContour(e2DSliceVectorType type) = 0;
        virtual void AddContourPoint(int x, int y) = 0;
        virtual void SetContourClosed(bool closed) = 0;
        virtual void SetContourOuter(bool outer) = 0;
        virtual void EndContour(bool invert) = 0;
        virtual std::uint64_t GetNumContours() const = 0;
        virtual M2DSliceVectorTypeInfo* GetContourTypeInfo() = 0;
        virtual void StartVectorBlock(const M2DSliceVectorTypeInfo& info, std::size_t reserve) = 0;
        virtual void AddVector(const M2DSliceVector& vector) = 0;
        virtual void EndVectorBlock(bool release) = 0;
        virtual std::uint64_t GetNumVectorBlocks() const = 0;
        virtual M2DSliceVectorTypeInfo* GetVectorBlockTypeInfo() = 0;
        virtual void StartPointBlock(const M2DSliceVectorTypeInfo& info) = 0;
        virtual void AddPoint(int x, int y) = 0;
        virtual void EndPointBlock() = 0;
        virtual std::uint64_t GetNumPointBlocks() const = 0;
        virtual M2DSliceVectorTypeInfo* GetPointBlockTypeInfo() = 0;
        // n vectors at once, as n calls of AddVector would add them.
        virtual void AddVectors(const M2DSliceVector* vectors, std::size_t n);
        // The same for vectors whose box the caller has measured already: box is the box of
        // their ends.
        virtual void AddMeasuredVectors(const M2DSliceVector* vectors, std::size_t n, const M2DSliceXYArea& box);
        // True for an input that only measures: a format may then hand over the box of a run
        // of vectors (AddVectorsArea) instead of the vectors themselves.
        virtual bool MeasuresOnly() const { return false; }
        virtual void AddVectorsArea(const M2DSliceXYArea& /*area*/, std::size_t /*n*/) {}
    };

    // Measures contours into a scan info: box, count, drawn length, signed area.
    class MContourMeter
    {
    public:
        explicit MContourMeter(M2DSliceContainerScanInfo* info);
        ~MContourMeter() { Finish(false); }
        MContourMeter(const MContourMeter&) = delete;
        MContourMeter& operator=(const MContourMeter&) = delete;

        void Start();
        void Measure(int x, int y)
        {
            _info->Area.Extend(x, y);
            if (_count > 0)
                _Segment(x, y);
            else
            {
                _firstX = x;
                _firstY = y;
            }
            _lastX = x;
            _lastY = y;
            ++_count;
        }
        void Finish(bool invert);
        void SetClosed(bool closed) { _closed = closed; }
        void SetOuter(bool outer) { _outer = outer; }
        bool IsActive() const { return _active; }
        double GetSignedSum() const { return _signedSum; }
        M2DSliceContainerScanInfo* GetInfo() const { return _info; }

    private:
        void _Segment(int x, int y);
        M2DSliceContainerScanInfo* _info;
        bool _active = false;
        int _lastX = 0, _lastY = 0;
        int _firstX = 0, _firstY = 0;
        std::uint64_t _count = 0;
        bool _closed = true;
        bool _outer = true;
        double _length = 0.0;
        double _signedSum = 0.0;
    };

    // Builds a layer into a slice and measures it into an info.
    class MLayerReader : public ILayerInput
    {
    public:
        MLayerReader(M2DSlice& slice, M2DSliceContainerScanInfo& info);
        ~MLayerReader() override;
        void SetZ(std::int32_t z) override;
        void StartContour(e2DSliceVectorType type) override;
        void AddContourPoint(int x, int y) override;
        void SetContourClosed(bool closed) override;
        void SetContourOuter(bool outer) override;
        void EndContour(bool invert) override;
        std::uint64_t GetNumContours() const override;
        M2DSliceVectorTypeInfo* GetContourTypeInfo() override;
        void StartVectorBlock(const M2DSliceVectorTypeInfo& info, std::size_t reserve) override;
        void AddVector(const M2DSliceVector& vector) override;
        void EndVectorBlock(bool release) override;
        std::uint64_t GetNumVectorBlocks() const override;
        M2DSliceVectorTypeInfo* GetVectorBlockTypeInfo() override;
        void StartPointBlock(const M2DSliceVectorTypeInfo& info) override;
        void AddPoint(int x, int y) override;
        void EndPointBlock() override;
        std::uint64_t GetNumPointBlocks() const override;
        M2DSliceVectorTypeInfo* GetPointBlockTypeInfo() override;
        void AddVectors(const M2DSliceVector* vectors, std::size_t n) override;
        void AddMeasuredVectors(const M2DSliceVector* vectors, std::size_t n, const M2DSliceXYArea& box) override;

    private:
        MContourMeter _meter;
        M2DSlice* _slice;
        M2DSliceContourLayer* _border;
        M2DSliceVectorLayer* _vectors;
        M2DSlicePointLayer* _points;
        M2DSliceContour* _contour = nullptr;   // contour under way
        M2DSliceVectorBlock* _block = nullptr; // last vector block, cached for AddVector
        // Handed out by the Get...TypeInfo calls while there is nothing to label, so that a
        // format that labels after the fact never writes through a null pointer.
        M2DSliceVectorTypeInfo _spareLabel;
    };

    // Measures a layer into an info without building anything.
    class MLayerScanner : public ILayerInput
    {
    public:
        explicit MLayerScanner(M2DSliceContainerScanInfo& info);
        void SetZ(std::int32_t z) override;
        void StartContour(e2DSliceVectorType type) override;
        void AddContourPoint(int x, int y) override;
        void SetContourClosed(bool closed) override;
        void SetContourOuter(bool outer) override;
        void EndContour(bool invert) override;
        std::uint64_t GetNumContours() const override;
        M2DSliceVectorTypeInfo* GetContourTypeInfo() override;
        void StartVectorBlock(const M2DSliceVectorTypeInfo& info, std::size_t reserve) override;
        void AddVector(const M2DSliceVector& vector) override;
        void EndVectorBlock(bool release) override;
        std::uint64_t GetNumVectorBlocks() const override;
        M2DSliceVectorTypeInfo* GetVectorBlockTypeInfo() override;
        void StartPointBlock(const M2DSliceVectorTypeInfo& info) override;
        void AddPoint(int x, int y) override;
        void EndPointBlock() override;
        std::uint64_t GetNumPointBlocks() const override;
        M2DSliceVectorTypeInfo* GetPointBlockTypeInfo() override;
        void AddVectors(const M2DSliceVector* vectors, std::size_t n) override;
        bool MeasuresOnly() const override { return true; }
        void AddVectorsArea(const M2DSliceXYArea& area, std::size_t /*n*/) override { _info->Area.Extend(area); }
        void AddMeasuredVectors(const M2DSliceVector* /*vectors*/, std::size_t n, const M2DSliceXYArea& box) override
        {
            AddVectorsArea(box, n);
        }

    private:
        MContourMeter _meter;
        M2DSliceContainerScanInfo* _info;
        M2DSliceVectorTypeInfo _contourLabel;
        M2DSliceVectorTypeInfo _vectorLabel;
        M2DSliceVectorTypeInfo _pointLabel;
    };

    // ------------------------------------------------------------- public operations
    I2DSliceIO();
    virtual ~I2DSliceIO();
    I2DSliceIO(const I2DSliceIO&) = delete;
    I2DSliceIO& operator=(const I2DSliceIO&) = delete;

    virtual bool IsAppendModeSupported() const { return false; }

    bool OpenFile(const std::wstring& path, MOpenMode mode);
    bool CloseFile();
    bool FlushFile();
    bool WriteHeader(const std::vector<const ISource2DSlices*>& sources, std::int32_t unitConversion,
                     std::int32_t inverseResolution);
    bool WriteHeaderPerSliceContainer(std::uint64_t index);
    bool ReadHeader(ITarget2DSlices* target);
    bool WriteLayer(const std::vector<const ISource2DSlices*>& sources, const M2DSliceConstDataItems& items);
    bool ReadLayer(M2DSlice& slice, ITarget2DSlices* target, bool readVectors);
    bool ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* target, bool readVectors);
    bool WriteFooter(const std::vector<const ISource2DSlices*>& sources);
    bool ReadFooter(ITarget2DSlices* target);

    void SetFileBufferSize(std::uint64_t size);
    void SetReadOptions(const ReadOptions& options) { _readOptions = options; }
    const ReadOptions& GetReadOptions() const { return _readOptions; }
    ReadOptions& GetReadOptions() { return _readOptions; }
    void SetWriteOptions(const WriteOptions& options) { _writeOptions = options; }
    const WriteOptions& GetWriteOptions() const { return _writeOptions; }
    WriteOptions& GetWriteOptions() { return _writeOptions; }
    void SetIoProperties(M2DSliceContainerIOProperties& properties) { _properties = properties; }
    void GetIoProperties(M2DSliceContainerIOProperties& properties) const { properties = _properties; }
    void SetFileType(unsigned short type) { _fileType = type; }
    unsigned short GetFileType() const { return _fileType; }
    MOpenMode GetOpenMode() const { return _mode; }
    const std::wstring& GetPath() const { return _path; }

    // Why the last public operation returned false, in one line ("header: no \"$$VERSION/\"
    // before \"$$HEADEREND\""); empty when it did not fail. ReadLayer and ScanLayer return
    // false both at the clean end of the layers (reason empty) and on damage (reason set), so
    // a caller tells the two apart here. OpenFile, the header and the layer operations clear
    // it when they start; closing and the footer keep a reason that an earlier step gave.
    const std::string& GetFailureReason() const { return _failureReason; }
    // The step under way or last done: "opening", "header", "layer N" (counted from 0 since
    // the header; a lazy reader that seeks counts the calls, not the file's layers), "footer",
    // "closing". Reasons start with it; a caller that catches an exception names it too.
    std::string DescribeStep() const;

    // Thins a contour of points within maxError of the chord of their neighbours, keeping
    // a running error so that many small steps cannot add up past it.
    static void SimplifyContour(M2DSliceContour& contour, double maxError, double maxLength);

protected:
    virtual std::int64_t _TellFilePos() { return _file.TELL(); }
    virtual bool _SeekFilePos(std::int64_t position) { return _file.SEEK(position, 0); }
    virtual bool _OpenFile(const std::wstring& path, MOpenMode mode) = 0;
    virtual bool _CloseFile() = 0;
    virtual bool _WriteHeader(const std::vector<const ISource2DSlices*>& sources) = 0;
    virtual bool _WriteHeaderPerSliceContainer(std::uint64_t /*index*/) { return true; }
    virtual bool _WriteLayer(const std::vector<const ISource2DSlices*>& sources, std::int32_t z,
                             const M2DSliceConstDataItems& items) = 0;
    virtual bool _WriteFooter(const std::vector<const ISource2DSlices*>& sources) = 0;
    virtual bool _ReadHeader(ITarget2DSlices* target) = 0;
    virtual bool _ReadLayer(M2DSlice& slice, ITarget2DSlices* target, bool readVectors) = 0;
    virtual bool _ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* target, bool readVectors) = 0;
    virtual bool _ReadFooter(ITarget2DSlices* target) = 0;

    double _GetConversionFactor() const
    {
        return static_cast<double>(_properties.UnitConversionFactor) / static_cast<double>(_properties.InverseResolution);
    }
    std::int32_t _GetUnitconversionFactor() const { return _properties.UnitConversionFactor; }
    std::int32_t _GetInverseResolution() const { return _properties.InverseResolution; }
    std::int32_t _GetLayerThickness() const { return _properties.LayerThickness; }
    std::uint64_t _GetNumLayers() const { return _properties.NumLayers; }
    const M2DSliceContainerIODimensions* _GetDimensions() const { return &_properties.Dimensions; }

    // Skips to the first digit and reads an unsigned number (wrapping at 65,536); the byte
    // after the digits is consumed. False when the file ends before a digit.
    bool _ReadTextValue(unsigned short& value);
    // The same in single precision with an optional fraction after ',' or '.'. A minus sign
    // is skipped like any other byte and exponents are not understood.
    bool _ReadTextValue(float& value);
    // Exactly width characters, then suffix, then a terminating zero.
    void _ConvertDoubleToTextValue(char* out, double value, std::size_t width, const char* suffix) const;
    static void _UpdateSliceArea(M2DSlice& slice, std::int32_t x, std::int32_t y);
    // _ReadLayer's usual body: fetch(input) decodes one layer into an MLayerReader on the slice
    // (false: no layer); the slice then gets the box and height that were measured.
    template <class Fetch>
    static bool _ReadLayerWith(M2DSlice& slice, Fetch fetch)
    {
        M2DSliceContainerScanInfo info;
        {
            MLayerReader reader(slice, info);
            if (!fetch(static_cast<ILayerInput&>(reader)))
                return false;
        }
        _ExtendSliceArea(slice, info.Area);
        slice.SetZ(info.Z);
        return true;
    }
    static void _ExtendSliceArea(M2DSlice& slice, const M2DSliceXYArea& area);
    static void _GetSlicesFromItems(const M2DSliceConstDataItems& items, std::vector<const M2DSlice*>& slices);

    // Shared by WriteLayer and the drivers: the bookkeeping of one layer. Returns false
    // where WriteLayer would; sets callHook when the format's hook is to be called.
    bool _AccountLayer(const std::vector<const ISource2DSlices*>& sources, const M2DSliceConstDataItems& items,
                       std::int32_t& z, bool& callHook);
    bool _CheckWriteHeader(const std::vector<const ISource2DSlices*>& sources, std::int32_t unitConversion,
                           std::int32_t inverseResolution);
    bool _IsOpenFor(MOpenMode mode) const { return _file.IS_OPEN() && _mode == mode; }

    // Notes why an operation fails and returns false, for `return _Fail("...")`; the reason is
    // kept behind the step ("layer 3: ..."). The first reason of an operation stays: the
    // innermost code knows most.
    bool _Fail(const std::string& reason);
    // The same with the file's position: "<reason> at offset N".
    bool _FailAt(const std::string& reason, std::int64_t offset);
    // Sets the reason of a failed step when the format gave none.
    bool _FailStep(const char* what);

    MOpenMode _mode = Read;
    MFile _file;
    std::wstring _path;
    M2DSliceContainerIOProperties _properties;
    ReadOptions _readOptions;
    WriteOptions _writeOptions;
    unsigned short _fileType = 0;
    std::string _failureReason;

private:
    enum class Step
    {
        Opening,
        Header,
        Layer,
        Footer,
        Closing,
    };
    void _EnterLayer();
    Step _step = Step::Opening;
    std::uint64_t _layerIndex = 0;

    friend class M2DSliceContainerIO;
    friend class M2DSliceContainerIterator;
    friend class M2DSliceContainerAppendableIO;
};
