#pragma once
// The compressed build file: a plain SLM file coded section by section, every field with a
// model of its own, through one arithmetic coder (ArithmeticCoder.h). Coordinates are
// quantised to a resolution and predicted, so the compression is lossy for them and only for
// them.
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../../framework/ByteCursor.h"
#include "../../framework/Export.h"
#include "ArithmeticCoder.h"
#include "SectionCodec.h"

class MFile;

namespace Sectioned {

// The container head before the coded stream: 117 bytes.
constexpr std::size_t kCompressedHeadSize = 117;
constexpr const char* kCompressedFileId = "[Compressed SLM Buildfile]";
constexpr double kCoordinateResolution = 0.005; // mm, for polygons and hatches

// A signed integer: a length model of 2 L + sign and L byte models.
struct IntegerModels
{
    ModelOrder2 Length{21};
    std::vector<ModelOrder2> Bytes = std::vector<ModelOrder2>(8, ModelOrder2(257));
};

// Every model of the compressed stream, in the same state on both sides.
struct CompressionModels
{
    CompressionModels();
    ModelOrder2 Op{10};
    ModelOrder2 Field{257};
    ModelOrder2 Exposure{257};
    ModelOrder2 PointDistance{257};
    ModelOrder2 LaserIndex{257};
    ModelOrder2 String{257};
    ModelOrder2 IdLength{6};
    ModelOrder2 SizeLength{10};
    std::vector<ModelOrder2> IdBytes;    // 4
    std::vector<ModelOrder2> SizeBytes;  // 8
    std::vector<ModelOrder2> FloatBytes; // 3 x 4: section 15, 16, 17 by position
    IntegerModels PolygonFirst, PolygonSecond, PolygonRest, HatchFirst, HatchSecond, HatchRest;

    // The model of a byte field: sections 25, 26 and 34 have their own.
    ModelOrder2& ForField(std::int64_t id);
};

enum CompressionOp : unsigned
{
    Op_Open = 0,
    Op_Close = 1,
    Op_Bytes = 2,
    Op_String = 3,
    Op_Float = 4,
    Op_Polygon = 5,
    Op_Hatch = 7,
    Op_End = 8,
};

// q of a coordinate c at resolution r: v = c / r, truncated toward zero, plus one when the
// fraction is above one half (so negative values truncate).
SLICEIO_API bool Quantise(double c, double r, std::int64_t& q);

class SLICEIO_API M2DSliceIOCompressor
{
public:
    // Reads a finished plain file from in (at its start) and writes the compressed file to
    // out, with the checksum's placeholder as its last four bytes.
    M2DSliceIOCompressor(MFile& in, MFile& out) : _in(in), _out(out) {}
    bool Compress();
    const std::string& GetFailureReason() const { return _reason; }

private:
    bool _Fail(const std::string& reason);
    bool _Op(unsigned op) { return _models.Op.EncodeSymbol(*_coder, op) || _Fail("a model outgrew the coder"); }
    bool _Head(std::int64_t id, std::int64_t size, bool fixed);
    bool _BytesWith(ModelOrder2& model, const unsigned char* data, std::size_t n);
    bool _Integer(IntegerModels& set, std::int64_t value);
    bool _Raw(std::int64_t id, const ByteCursor& body, ModelOrder2& model, unsigned op);
    bool _Float(std::int64_t id, const ByteCursor& body);
    bool _Polygon(std::int64_t id, const ByteCursor& body);
    bool _Hatch(std::int64_t id, const ByteCursor& body);
    // The children of a section with this id.
    bool _Children(std::int64_t parent, ByteCursor body);
    bool _Open(std::int64_t id, std::int64_t size, bool fixed, const ByteCursor& body);

    MFile& _in;
    MFile& _out;
    CompressionModels _models;
    std::unique_ptr<M2DBitOutStream> _bits;
    std::unique_ptr<M2DArithmeticEncoder> _coder;
    std::vector<std::int64_t> _values; // quantised coordinates, reused
    std::vector<unsigned char> _storage;
    std::string _reason;
};

class SLICEIO_API M2DSliceIODecompressor
{
public:
    M2DSliceIODecompressor(MFile& in, MFile& out) : _in(in), _out(out) {}
    // Repair mode, off by default. The coded stream is followed by the file's checksum, and its
    // last symbols may depend on zero bits after it; sections 41, 44 and 35 lose their fixed
    // size form on compression. Repair decodes as if zero bits followed the stream and writes
    // those sections with a fixed size again, so that a plain file comes back byte for byte.
    void SetRepair(bool repair) { _repair = repair; }
    // Nothing in this library sets it; checked after each layer section.
    void SetCancelFlag(const bool* cancel) { _cancel = cancel; }
    // At most this many bytes are written (default: 1 MiB plus 4096 times the input).
    void SetMaxOutput(std::uint64_t bytes) { _maxOutput = bytes; }
    bool Decompress();
    const std::string& GetFailureReason() const { return _reason; }
    double GetPolygonResolution() const { return _polygonResolution; }
    double GetHatchResolution() const { return _hatchResolution; }

private:
    bool _Fail(const std::string& reason);
    bool _ReadContainerHead();
    bool _Symbol(ModelOrder2& model, unsigned& symbol) { return model.Decode(*_coder, symbol) || _BadSymbol(); }
    bool _BadSymbol();
    bool _Head(std::int64_t& id, std::int64_t& size, bool& fixed);
    bool _WriteHead(std::int64_t id, std::int64_t size, bool fixed);
    bool _Integer(IntegerModels& set, std::int64_t& value);
    bool _Emit(const void* data, std::size_t n);
    // Decodes operations until the close of a section (or the end at the top level); budget
    // is what the enclosing section still holds.
    bool _Section(int depth, std::int64_t id, std::uint64_t budget, bool& ended);

    MFile& _in;
    MFile& _out;
    CompressionModels _models;
    std::unique_ptr<M2DBitInStream> _bits;
    std::unique_ptr<M2DArithmeticDecoder> _coder;
    std::vector<unsigned char> _buffer;
    std::vector<std::int64_t> _values;
    double _polygonResolution = 0.0;
    double _hatchResolution = 0.0;
    std::uint64_t _written = 0;
    std::uint64_t _maxOutput = 0;
    const bool* _cancel = nullptr;
    bool _repair = false;
    std::string _reason;
};

} // namespace Sectioned
